#include "HMAccountFormRules.h"

#include <QtTest>

using Rules = HMAccountFormRules;
Q_DECLARE_METATYPE(HMAccountFormRules::Form)

class HMAccountFormRulesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void emailMatchesWholeStringWithShortTopLevelDomain_data()
    {
        QTest::addColumn<QString>("email");
        QTest::addColumn<bool>("valid");
        QTest::newRow("plain") << "ann@example.com" << true;
        QTest::newRow("plus and dots") << "a.n+n%x@mail.example.info" << true;
        QTest::newRow("two letters") << "ann@example.de" << true;
        QTest::newRow("five-letter tld") << "ann@example.store" << false;
        QTest::newRow("one-letter tld") << "ann@example.c" << false;
        QTest::newRow("no at") << "ann.example.com" << false;
        QTest::newRow("trailing blank") << "ann@example.com " << false;
        QTest::newRow("text around") << "mail ann@example.com now" << false;
        QTest::newRow("non-ascii") << "änn@example.com" << false;
        QTest::newRow("null") << QString() << false;
    }
    void emailMatchesWholeStringWithShortTopLevelDomain()
    {
        QFETCH(QString, email);
        QFETCH(bool, valid);
        QCOMPARE(Rules::isValidEmail(email), valid);
    }

    // Sign-in takes 6 characters, a new account 8; lengths in UTF-16 units.
    void passwordLengthsDifferBetweenSignInAndNewAccount()
    {
        QVERIFY(Rules::isValidSignInPassword("abcdef"));
        QVERIFY(!Rules::isValidSignInPassword("abcde"));
        QVERIFY(!Rules::isValidPassword("abcdef"));
        QVERIFY(!Rules::isValidPassword("abcdefg"));
        QVERIFY(Rules::isValidPassword("abcdefgh"));
        QVERIFY(Rules::isValidSignInPassword(QString::fromUtf8("😀😀😀"))); // six units
    }

    void strengthAndHintCoachThePassword_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<QString>("strength");
        QTest::addColumn<QString>("hint");
        const auto row = [](const char *name, const char *password, const char *strength,
                            const char *hint) {
            QTest::newRow(name) << QString(password) << QString(strength) << QString(hint);
        };
        const char *canyonTip = "Tip: You can add more characters for a canyon-strength password!";
        row("null", nullptr, nullptr, nullptr);
        row("seven", "abcdefg", "Too short!", "Should be at least 8 characters long");
        row("eight lower", "abcdefgh", "Cub Strength",
            "Tip: You can add numbers to make it stronger");
        row("digits, one case", "abcdefg1", "Cub Strength",
            "Tip: You can mix lowercase and uppercase characters to make it stronger");
        row("no symbols", "abcdefG1", "Wisp Strength",
            "Tip: You can add symbols to make it even stronger");
        row("ten, all classes", "Abcdefg1!x", "Wisp Strength", canyonTip);
        row("twelve, all classes", "Abcdefg1!xyz", "Canyon Strength RAWR!", canyonTip);
        row("fourteen, all classes", "Abcdefg1!xyzuv", "Canyon Strength RAWR!", nullptr);
        row("blank and emoji are symbols", "Abcdef 1😀", "Wisp Strength", canyonTip);
        row("fourteen lower", "abcdefghijklmn", "Wisp Strength",
            "Tip: You can add numbers to make it stronger");
    }
    void strengthAndHintCoachThePassword()
    {
        QFETCH(QString, password);
        QFETCH(QString, strength);
        QFETCH(QString, hint);
        QCOMPARE(Rules::passwordStrength(password), strength);
        QCOMPARE(Rules::passwordHint(password), hint);
        QCOMPARE(Rules::passwordHint(password).isNull(), hint.isNull());
    }

    void sentenceCapitalizationSparesShortLaterWords_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("capitalized");
        QTest::newRow("short first word") << "de la cruz" << QStringLiteral("De la Cruz");
        QTest::newRow("rest keeps its case")
            << "mcDONALD von neumann" << QStringLiteral("McDONALD Von Neumann");
        QTest::newRow("double blank kept") << "ann  lee" << QStringLiteral("Ann  Lee");
        QTest::newRow("non-ascii") << "élodie ørsted" << QStringLiteral("Élodie Ørsted");
        QTest::newRow("empty") << "" << QStringLiteral("");
    }
    void sentenceCapitalizationSparesShortLaterWords()
    {
        QFETCH(QString, text);
        QFETCH(QString, capitalized);
        QCOMPARE(Rules::sentenceCapitalization(text), capitalized);
    }

    // Each row breaks the form at one place; earlier fields stay valid, so the row's check
    // is the first failure.
    void firstFailureStopsAtFirstCheckWithItsPairing_data()
    {
        QTest::addColumn<Rules::Form>("form");
        QTest::addColumn<int>("field");
        QTest::addColumn<int>("redraw");
        QTest::addColumn<QString>("message");
        const Rules::Form good{"Ann",       "Lee",      "Ann@Example.com", "ann@example.com",
                               "password1", "password1"};
        auto with = [&](auto member, const QString &value) {
            Rules::Form form = good;
            form.*member = value;
            return form;
        };
        QTest::newRow("first name") << with(&Rules::Form::firstName, "") << int(Rules::FirstName)
                                    << int(Rules::FirstName) << "First Name is required";
        QTest::newRow("last name") << with(&Rules::Form::lastName, "") << int(Rules::LastName)
                                   << int(Rules::FirstName) << "Last Name is required";
        QTest::newRow("email") << with(&Rules::Form::email, "ann@example.store")
                               << int(Rules::Email) << int(Rules::Email)
                               << "A valid Email address is required";
        QTest::newRow("verify email")
            << with(&Rules::Form::verifyEmail, "anne@example.com") << int(Rules::VerifyEmail)
            << int(Rules::Email) << "The email addresses you entered do not match";
        QTest::newRow("password") << with(&Rules::Form::password, "abcdefg") << int(Rules::Password)
                                  << int(Rules::Password)
                                  << "The password must be at least 8 characters long";
        QTest::newRow("verify password")
            << with(&Rules::Form::verifyPassword, "Password1") << int(Rules::VerifyPassword)
            << int(Rules::VerifyPassword) << "The passwords you entered do not match";
        QTest::newRow("valid") << good << -1 << -1 << QString();
    }
    void firstFailureStopsAtFirstCheckWithItsPairing()
    {
        QFETCH(Rules::Form, form);
        QFETCH(int, field);
        QFETCH(int, redraw);
        QFETCH(QString, message);
        const auto failure = Rules::firstFailure(form);
        QCOMPARE(failure.has_value(), field >= 0);
        if (failure) {
            QCOMPARE(int(failure->field), field);
            QCOMPARE(int(failure->redrawField), redraw);
            QCOMPARE(failure->message, message);
            QCOMPARE(Rules::validate(failure->field, form), message);
        }
    }
};

QTEST_GUILESS_MAIN(HMAccountFormRulesTest)
#include "HMAccountFormRulesTest.moc"
