#include "HMCreateAccountViewController.h"

#include "ui_HMCreateAccountViewController.h"

#include "HMAccountManager.h"
#include "HMLaunchViewController.h"
#include "HMLoginViewController.h"
#include "HMScreenPresenter.h"
#include "HMTheme.h"

#include <QPointer>

using Rules = HMAccountFormRules;

namespace {

constexpr Rules::Field kFields[] = {Rules::FirstName,   Rules::LastName, Rules::Email,
                                    Rules::VerifyEmail, Rules::Password, Rules::VerifyPassword};

} // namespace

HMCreateAccountViewController::HMCreateAccountViewController(HMScreenPresenter &presenter,
                                                             const HMScreenContext &context,
                                                             QWidget *parent)
    : QWidget(parent), m_presenter(presenter), m_context(context),
      m_ui(std::make_unique<Ui::HMCreateAccountViewController>())
{
    m_ui->setupUi(this);
    HMTheme::styleTitle(m_ui->titleLabel);
    HMTheme::styleError(m_ui->errorLabel);
    HMTheme::styleSecondary(m_ui->hintLabel);
    setFocusProxy(m_ui->firstNameField);

    for (Rules::Field which : kFields) {
        QObject::connect(field(which), &HMTextField::didEndEditing, this,
                         &HMCreateAccountViewController::fieldDidEndEditing);
        QObject::connect(field(which), &QLineEdit::returnPressed, this,
                         &HMCreateAccountViewController::didPressNext);
    }
    QObject::connect(m_ui->passwordField, &QLineEdit::textChanged, this,
                     &HMCreateAccountViewController::updatePasswordCoaching);
    QObject::connect(m_ui->nextButton, &QPushButton::clicked, this,
                     &HMCreateAccountViewController::didPressNext);
    QObject::connect(m_ui->backButton, &QPushButton::clicked, this,
                     &HMCreateAccountViewController::didPressBack);
    updatePasswordCoaching();
}

HMCreateAccountViewController::~HMCreateAccountViewController()
{
    // A focused field loses its focus while the form is torn down; by then this object is
    // no longer a create-account form and must not hear about it.
    for (Rules::Field which : kFields) {
        QObject::disconnect(field(which), nullptr, this, nullptr);
    }
}

HMTextField *HMCreateAccountViewController::field(Rules::Field which) const
{
    switch (which) {
    case Rules::FirstName:
        return m_ui->firstNameField;
    case Rules::LastName:
        return m_ui->lastNameField;
    case Rules::Email:
        return m_ui->emailField;
    case Rules::VerifyEmail:
        return m_ui->verifyEmailField;
    case Rules::Password:
        return m_ui->passwordField;
    case Rules::VerifyPassword:
        break;
    }
    return m_ui->verifyPasswordField;
}

// Names and addresses lose the blanks a paste brings; passwords are taken as typed.
Rules::Form HMCreateAccountViewController::form() const
{
    return Rules::Form{m_ui->firstNameField->text().trimmed(),
                       m_ui->lastNameField->text().trimmed(),
                       m_ui->emailField->text().trimmed(),
                       m_ui->verifyEmailField->text().trimmed(),
                       m_ui->passwordField->text(),
                       m_ui->verifyPasswordField->text()};
}

void HMCreateAccountViewController::updatePasswordCoaching()
{
    const QString password = m_ui->passwordField->text();
    const QString strength = Rules::passwordStrength(password);
    m_ui->strengthLabel->setText(password.isEmpty() ? QString() : strength);
    m_ui->hintLabel->setText(password.isEmpty() ? QString() : Rules::passwordHint(password));
    const QString colour =
        strength == QLatin1String("Canyon Strength RAWR!") ? QStringLiteral("strengthStrongColor")
        : strength == QLatin1String("Wisp Strength")       ? QStringLiteral("strengthMediumColor")
                                                           : QStringLiteral("strengthWeakColor");
    QPalette palette = m_ui->strengthLabel->palette();
    palette.setColor(QPalette::WindowText, HMTheme::color(colour));
    m_ui->strengthLabel->setPalette(palette);
}

bool HMCreateAccountViewController::isCreateAccountFormValid()
{
    const auto failure = Rules::firstFailure(form());
    if (!failure) {
        return true;
    }
    field(failure->field)->setShouldHighlightError(true);
    m_ui->errorLabel->setText(failure->message);
    HMTextField *redraw = field(failure->redrawField);
    redraw->update();
    Q_EMIT fieldRedrawn(redraw);
    return false;
}

void HMCreateAccountViewController::fieldDidEndEditing(QWidget *widget)
{
    for (Rules::Field which : kFields) {
        HMTextField *edited = field(which);
        if (edited != widget) {
            continue;
        }
        if ((which == Rules::FirstName || which == Rules::LastName) && !edited->text().isEmpty()) {
            edited->setText(Rules::sentenceCapitalization(edited->text()));
        }
        if (edited->text().isEmpty()) {
            edited->setShouldHighlightError(false);
            m_ui->errorLabel->setText(QString());
        } else {
            const QString message = Rules::validate(which, form());
            edited->setShouldHighlightError(!message.isNull());
            m_ui->errorLabel->setText(message.isNull() ? QString() : message);
        }
        edited->update();
        return;
    }
    m_ui->errorLabel->setText(QString());
}

void HMCreateAccountViewController::didPressNext()
{
    if (m_busy || !isCreateAccountFormValid()) {
        return;
    }
    m_busy = true;
    m_ui->errorLabel->clear();
    HMTheme::setButtonBusy(m_ui->nextButton, true, tr("Creating Account…"));
    const Rules::Form values = form();
    QPointer<HMCreateAccountViewController> self(this);
    m_context.account->addAccountWithUsername(
        values.email, values.password, values.firstName, values.lastName,
        [self](const HMMaybeError &error) {
            if (!self) {
                return;
            }
            self->m_busy = false;
            HMTheme::setButtonBusy(self->m_ui->nextButton, false, QString());
            if (error) {
                self->m_ui->errorLabel->setText(error->displayText());
                return;
            }
            HMLoginViewController::continueAfterSignIn(self->m_presenter, self->m_context);
        });
}

void HMCreateAccountViewController::didPressBack()
{
    if (m_busy) {
        return;
    }
    m_presenter.presentViewController(new HMLaunchViewController(m_presenter, m_context),
                                      HMScreenPresenter::Animation::Slide);
}
