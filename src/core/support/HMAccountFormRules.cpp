#include "HMAccountFormRules.h"

#include <QRegularExpression>
#include <QStringList>
#include <algorithm>

namespace {

bool hasNumbers(const QString &text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.isDigit(); });
}

bool hasMixedCase(const QString &text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.isUpper(); }) &&
           std::any_of(text.begin(), text.end(), [](QChar c) { return c.isLower(); });
}

// Anything outside letters and digits: a blank, punctuation, half of an emoji.
bool hasSymbols(const QString &text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return !c.isLetterOrNumber(); });
}

} // namespace

const QString &HMAccountFormRules::Form::text(Field field) const
{
    switch (field) {
    case FirstName:
        return firstName;
    case LastName:
        return lastName;
    case Email:
        return email;
    case VerifyEmail:
        return verifyEmail;
    case Password:
        return password;
    case VerifyPassword:
        break;
    }
    return verifyPassword;
}

bool HMAccountFormRules::isValidEmail(const QString &email)
{
    static const QRegularExpression pattern(QRegularExpression::anchoredPattern(
        QStringLiteral("[A-Z0-9a-z._%+-]+@[A-Za-z0-9.-]+\\.[A-Za-z]{2,4}")));
    return !email.isNull() && pattern.match(email).hasMatch();
}

bool HMAccountFormRules::isValidSignInPassword(const QString &password)
{
    return password.size() >= kSignInPasswordLength;
}

bool HMAccountFormRules::isValidPassword(const QString &password)
{
    return password.size() >= kNewPasswordLength;
}

QString HMAccountFormRules::passwordStrength(const QString &password)
{
    if (password.isNull()) {
        return QString();
    }
    const qsizetype length = password.size();
    const int lengthPoints = int(length > 7) + int(length >= 12) + int(length > 13);
    if (lengthPoints == 0) {
        return QStringLiteral("Too short!");
    }
    const int score = lengthPoints + int(hasNumbers(password)) + int(hasMixedCase(password)) +
                      int(hasSymbols(password));
    if (score > 4) {
        return QStringLiteral("Canyon Strength RAWR!");
    }
    if (score > 2) {
        return QStringLiteral("Wisp Strength");
    }
    return QStringLiteral("Cub Strength");
}

QString HMAccountFormRules::passwordHint(const QString &password)
{
    if (password.isNull()) {
        return QString();
    }
    if (password.size() <= 7) {
        return QStringLiteral("Should be at least 8 characters long");
    }
    if (!hasNumbers(password)) {
        return QStringLiteral("Tip: You can add numbers to make it stronger");
    }
    if (!hasMixedCase(password)) {
        return QStringLiteral(
            "Tip: You can mix lowercase and uppercase characters to make it stronger");
    }
    if (!hasSymbols(password)) {
        return QStringLiteral("Tip: You can add symbols to make it even stronger");
    }
    if (password.size() <= 13) {
        return QStringLiteral("Tip: You can add more characters for a canyon-strength password!");
    }
    return QString();
}

QString HMAccountFormRules::sentenceCapitalization(const QString &text)
{
    if (text.isNull()) {
        return QString();
    }
    QStringList words = text.split(QLatin1Char(' '));
    for (qsizetype i = 0; i < words.size(); ++i) {
        QString &word = words[i];
        if (!word.isEmpty() && (i == 0 || word.size() >= 3)) {
            word[0] = word[0].toUpper();
        }
    }
    return words.join(QLatin1Char(' '));
}

QString HMAccountFormRules::validate(Field field, const Form &form)
{
    switch (field) {
    case FirstName:
        return form.firstName.isEmpty() ? QStringLiteral("First Name is required") : QString();
    case LastName:
        return form.lastName.isEmpty() ? QStringLiteral("Last Name is required") : QString();
    case Email:
        return isValidEmail(form.email) ? QString()
                                        : QStringLiteral("A valid Email address is required");
    case VerifyEmail:
        return form.verifyEmail.compare(form.email, Qt::CaseInsensitive) == 0
                   ? QString()
                   : QStringLiteral("The email addresses you entered do not match");
    case Password:
        return isValidPassword(form.password)
                   ? QString()
                   : QStringLiteral("The password must be at least %1 characters long")
                         .arg(kNewPasswordLength);
    case VerifyPassword:
        break;
    }
    return form.verifyPassword == form.password
               ? QString()
               : QStringLiteral("The passwords you entered do not match");
}

std::optional<HMAccountFormRules::Failure> HMAccountFormRules::firstFailure(const Form &form)
{
    for (Field field : {FirstName, LastName, Email, VerifyEmail, Password, VerifyPassword}) {
        const QString message = validate(field, form);
        if (!message.isNull()) {
            const Field redraw = field == LastName      ? FirstName
                                 : field == VerifyEmail ? Email
                                                        : field;
            return Failure{field, redraw, message};
        }
    }
    return std::nullopt;
}
