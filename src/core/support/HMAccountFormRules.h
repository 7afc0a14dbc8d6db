// The checks of the sign-in and create-account forms, and the password coaching.
//
// Everything here is judged before a request is sent. Two deliberate oddities that look
// like bugs: an e-mail address must end in a top-level domain of 2 to 4 letters (longer
// ones are refused), and signing in needs a password of 6 characters while creating an
// account needs 8. Lengths are counted in UTF-16 code units, as the service counts them.
//
// Widget-free, so the create-account screen and the D-Bus control interface apply the
// same rules with the same messages.
#pragma once

#include <QString>
#include <optional>

class HMAccountFormRules
{
public:
    enum Field
    {
        FirstName,
        LastName,
        Email,
        VerifyEmail,
        Password,
        VerifyPassword,
    };

    struct Form
    {
        QString firstName;
        QString lastName;
        QString email;
        QString verifyEmail;
        QString password;
        QString verifyPassword;

        const QString &text(Field field) const;
    };

    struct Failure
    {
        Field field;       // the field that failed: its error ring is set
        Field redrawField; // the field asked to redraw (see firstFailure)
        QString message;
    };

    static constexpr int kSignInPasswordLength = 6;
    static constexpr int kNewPasswordLength = 8;

    // The whole string must be an address with a 2-to-4-letter top-level domain.
    static bool isValidEmail(const QString &email);
    // Sign-in: at least 6 characters.
    static bool isValidSignInPassword(const QString &password);
    // Account creation: at least 8 characters.
    static bool isValidPassword(const QString &password);

    // "Too short!", "Cub Strength", "Wisp Strength" or "Canyon Strength RAWR!"; null for a
    // null password.
    static QString passwordStrength(const QString &password);
    // The first tip that applies, or null when the password needs none (or is null).
    static QString passwordHint(const QString &password);
    // First word, and every later word of 3 or more characters, gets an upper-case first
    // character; words are split on single blanks and joined again the same way.
    static QString sentenceCapitalization(const QString &text);

    // One field's own check: its message, or null when it passes.
    static QString validate(Field field, const Form &form);
    // The checks in form order, stopping at the first failure. The field asked to redraw
    // is the failing one, except that a last-name failure redraws the first name and a
    // verify-email failure redraws the e-mail field: the established pairing, kept.
    static std::optional<Failure> firstFailure(const Form &form);
};
