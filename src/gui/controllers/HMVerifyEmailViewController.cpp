#include "HMVerifyEmailViewController.h"

#include "ui_HMVerifyEmailViewController.h"

#include "HMAccountManager.h"
#include "HMScreenPresenter.h"
#include "HMTheme.h"

#include <QPointer>

HMVerifyEmailViewController::HMVerifyEmailViewController(HMScreenPresenter &presenter,
                                                         const HMScreenContext &context,
                                                         QWidget *parent)
    : QWidget(parent), m_presenter(presenter), m_context(context),
      m_ui(std::make_unique<Ui::HMVerifyEmailViewController>())
{
    m_ui->setupUi(this);
    HMTheme::styleTitle(m_ui->titleLabel);
    HMTheme::styleError(m_ui->errorLabel);
    m_ui->messageLabel->setText(
        tr("We sent a confirmation link to %1. Open it, then come back here.")
            .arg(m_context.account->username().toHtmlEscaped()));
    m_ui->messageLabel->setTextFormat(Qt::RichText);
    setFocusProxy(m_ui->checkAgainButton);
    QObject::connect(m_ui->checkAgainButton, &QPushButton::clicked, this,
                     &HMVerifyEmailViewController::didPressCheckAgain);
    QObject::connect(m_ui->resendButton, &QPushButton::clicked, this,
                     &HMVerifyEmailViewController::didPressResend);
    QObject::connect(m_ui->signOutButton, &QPushButton::clicked, this,
                     &HMVerifyEmailViewController::didPressSignOut);
}

HMVerifyEmailViewController::~HMVerifyEmailViewController() = default;

void HMVerifyEmailViewController::setBusy(bool busy)
{
    m_busy = busy;
    m_ui->checkAgainButton->setEnabled(!busy);
    m_ui->resendButton->setEnabled(!busy);
}

void HMVerifyEmailViewController::didPressCheckAgain()
{
    if (m_busy) {
        return;
    }
    if (!m_context.account->isLoggedIn()) {
        m_ui->errorLabel->setText(tr("You are signed out. Sign in again to continue."));
        return;
    }
    setBusy(true);
    HMTheme::setButtonBusy(m_ui->checkAgainButton, true, tr("Checking…"));
    HMTheme::styleError(m_ui->errorLabel);
    m_ui->errorLabel->clear();
    QPointer<HMVerifyEmailViewController> self(this);
    m_context.account->verifyAccountWithCompletion([self](const HMMaybeError &error) {
        if (!self) {
            return;
        }
        HMTheme::setButtonBusy(self->m_ui->checkAgainButton, false, QString());
        self->setBusy(false);
        if (error) {
            self->m_ui->errorLabel->setText(error->displayText());
            return;
        }
        self->m_presenter.closeWindow();
    });
}

void HMVerifyEmailViewController::didPressResend()
{
    if (m_busy || !m_context.account->isLoggedIn()) {
        return;
    }
    setBusy(true);
    HMTheme::setButtonBusy(m_ui->resendButton, true, tr("Sending…"));
    HMTheme::styleError(m_ui->errorLabel);
    m_ui->errorLabel->clear();
    QPointer<HMVerifyEmailViewController> self(this);
    m_context.account->resendVerificationEmailWithCompletion([self](const HMMaybeError &error) {
        if (!self) {
            return;
        }
        HMTheme::setButtonBusy(self->m_ui->resendButton, false, QString());
        self->setBusy(false);
        if (error) {
            self->m_ui->errorLabel->setText(error->displayText());
            return;
        }
        // Good news in the error line, so in the quiet colour; the next error restores red.
        HMTheme::styleSecondary(self->m_ui->errorLabel);
        self->m_ui->errorLabel->setText(tr("We sent the email again."));
    });
}

void HMVerifyEmailViewController::didPressSignOut()
{
    m_context.account->logout();
}
