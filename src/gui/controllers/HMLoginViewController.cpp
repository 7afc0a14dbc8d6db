#include "HMLoginViewController.h"

#include "ui_HMLoginViewController.h"

#include "HMAccountFormRules.h"
#include "HMAccountManager.h"
#include "HMCreateAccountViewController.h"
#include "HMNotificationCenter.h"
#include "HMScreenPresenter.h"
#include "HMTheme.h"
#include "HMVerifyEmailViewController.h"

#include <QPointer>

HMLoginViewController::HMLoginViewController(HMScreenPresenter &presenter,
                                             const HMScreenContext &context, QWidget *parent)
    : QWidget(parent), m_presenter(presenter), m_context(context),
      m_ui(std::make_unique<Ui::HMLoginViewController>())
{
    m_ui->setupUi(this);
    HMTheme::styleTitle(m_ui->titleLabel);
    HMTheme::styleError(m_ui->errorLabel);
    m_ui->emailField->setText(m_context.account->previousUsername());
    setFocusProxy(m_ui->emailField->text().isEmpty() ? m_ui->emailField : m_ui->passwordField);

    for (QLineEdit *field : {static_cast<QLineEdit *>(m_ui->emailField),
                             static_cast<QLineEdit *>(m_ui->passwordField)}) {
        QObject::connect(field, &QLineEdit::textChanged, this, [this] { updateSignInButton(); });
        QObject::connect(field, &QLineEdit::returnPressed, this, [this] {
            if (canSignIn()) {
                didPressSignIn();
            }
        });
    }
    QObject::connect(m_ui->signInButton, &QPushButton::clicked, this,
                     &HMLoginViewController::didPressSignIn);
    QObject::connect(m_ui->createAccountButton, &QPushButton::clicked, this,
                     &HMLoginViewController::didPressCreateAccount);
    updateSignInButton();
}

HMLoginViewController::~HMLoginViewController() = default;

// Addresses pasted from mail or a password manager often bring a blank along.
QString HMLoginViewController::email() const
{
    return m_ui->emailField->text().trimmed();
}

bool HMLoginViewController::canSignIn() const
{
    return !m_busy && HMAccountFormRules::isValidEmail(email()) &&
           HMAccountFormRules::isValidSignInPassword(m_ui->passwordField->text());
}

void HMLoginViewController::updateSignInButton()
{
    m_ui->signInButton->setEnabled(canSignIn());
}

void HMLoginViewController::didPressSignIn()
{
    if (!canSignIn()) {
        return;
    }
    m_busy = true;
    m_ui->errorLabel->clear();
    m_ui->emailField->setEnabled(false);
    m_ui->passwordField->setEnabled(false);
    HMTheme::setButtonBusy(m_ui->signInButton, true, tr("Signing In…"));
    QPointer<HMLoginViewController> self(this);
    m_context.account->loginWithUsername(
        email(), m_ui->passwordField->text(), false, [self](const HMMaybeError &error) {
            if (!self) {
                return;
            }
            self->m_busy = false;
            HMTheme::setButtonBusy(self->m_ui->signInButton, false, QString());
            self->m_ui->emailField->setEnabled(true);
            self->m_ui->passwordField->setEnabled(true);
            self->updateSignInButton();
            if (error) {
                self->m_ui->errorLabel->setText(error->displayText());
                self->m_ui->passwordField->setFocus();
                return;
            }
            continueAfterSignIn(self->m_presenter, self->m_context);
        });
}

void HMLoginViewController::didPressCreateAccount()
{
    if (m_busy) {
        return;
    }
    m_presenter.presentViewController(new HMCreateAccountViewController(m_presenter, m_context),
                                      HMScreenPresenter::Animation::Slide);
}

void HMLoginViewController::continueAfterSignIn(HMScreenPresenter &presenter,
                                                const HMScreenContext &context)
{
    context.center->postNotificationName(QLatin1String(kHMDidLogInNotification));
    if (context.account->isAccountVerified()) {
        presenter.closeWindow();
    } else {
        presenter.presentViewController(new HMVerifyEmailViewController(presenter, context),
                                        HMScreenPresenter::Animation::Slide);
    }
}
