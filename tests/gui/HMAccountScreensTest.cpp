#include "HMAPITestBed.h"
#include "HMCreateAccountViewController.h"
#include "HMLaunchViewController.h"
#include "HMLoginViewController.h"
#include "HMScreenWorld.h"
#include "HMTextField.h"
#include "HMVerifyEmailViewController.h"

#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QtTest>

using Rules = HMAccountFormRules;

// Launch, sign-in, create-account and verification screens, driven through their widgets;
// the requests go through the real API client to the reference service.
class HMAccountScreensTest : public QObject
{
    Q_OBJECT

private:
    HMAPITestBed m_bed;
    std::unique_ptr<HMScreenWorld> m_world;
    int m_didLogIn = 0;

    HMScreenContext context() { return m_world->context(); }
    HMRecordingPresenter &presenter() { return m_world->presenter; }

    template <typename Screen> static QString label(Screen &screen, const char *name)
    {
        return screen.template findChild<QLabel *>(name)->text();
    }
    template <typename Screen> static QPushButton *button(Screen &screen, const char *name)
    {
        return screen.template findChild<QPushButton *>(name);
    }

    void putAccount(const QString &username, bool confirmed)
    {
        m_bed.service.putAccount(
            QJsonObject{{"username", username}, {"password", "secret"}, {"confirmed", confirmed}});
    }

    void fill(HMCreateAccountViewController &screen, const Rules::Form &form)
    {
        for (Rules::Field field : {Rules::FirstName, Rules::LastName, Rules::Email,
                                   Rules::VerifyEmail, Rules::Password, Rules::VerifyPassword}) {
            screen.field(field)->setText(form.text(field));
        }
    }

private Q_SLOTS:
    void initTestCase() { HM_START_API_TEST_BED(m_bed); }

    void init()
    {
        m_world =
            std::make_unique<HMScreenWorld>([this](HMClock &clock, HMNotificationCenter &center) {
                return m_bed.makeClient(clock, center);
            });
        m_didLogIn = 0;
        m_world->accounts.center.addObserverForName(QLatin1String(kHMDidLogInNotification),
                                                    [this] { ++m_didLogIn; });
        m_bed.service.clearFaults();
        m_bed.service.clearRequests();
    }

    void cleanup() { m_world.reset(); }

    void launchLeadsToSignInAndAccountCreation()
    {
        HMLaunchViewController launch(presenter(), context());
        QTest::mouseClick(button(launch, "signInButton"), Qt::LeftButton);
        QTest::mouseClick(button(launch, "createAccountButton"), Qt::LeftButton);
        QCOMPARE(presenter().presented,
                 QStringList({"HMLoginViewController", "HMCreateAccountViewController"}));
    }

    void signInNeedsAddressAndSixCharacters_data()
    {
        QTest::addColumn<QString>("email");
        QTest::addColumn<QString>("password");
        QTest::addColumn<bool>("enabled");
        const QString ann = "ann@example.test";
        QTest::newRow("six characters") << ann << "secret" << true;
        QTest::newRow("five characters") << ann << "short" << false;
        QTest::newRow("pasted blanks") << "  " + ann + " \t"
                                       << "secret" << true;
    }
    void signInNeedsAddressAndSixCharacters()
    {
        QFETCH(QString, email);
        QFETCH(QString, password);
        QFETCH(bool, enabled);
        HMLoginViewController login(presenter(), context());
        login.findChild<QLineEdit *>("emailField")->setText(email);
        login.findChild<QLineEdit *>("passwordField")->setText(password);
        QCOMPARE(button(login, "signInButton")->isEnabled(), enabled);
    }

    // A slow service: the button shows progress, a second press sends nothing more, a
    // refusal shows the service's own text (or, without one, still says something) and
    // nothing is announced.
    void signInSendsOnceAndShowsRefusal()
    {
        putAccount(QStringLiteral("ann@example.test"), true);
        m_bed.service.addFault(
            QJsonObject{{"path", "/core/register"}, {"delayMs", 700}, {"times", 1}});
        HMLoginViewController login(presenter(), context());
        login.findChild<QLineEdit *>("emailField")->setText(QStringLiteral("ann@example.test"));
        auto *password = login.findChild<QLineEdit *>("passwordField");
        password->setText(QStringLiteral("wrong-password"));
        QPushButton *signIn = button(login, "signInButton");
        QTest::mouseClick(signIn, Qt::LeftButton);
        QVERIFY(!signIn->isEnabled());
        QCOMPARE(signIn->text(), QStringLiteral("Signing In…"));
        QTest::keyClick(password, Qt::Key_Return);
        login.didPressSignIn();

        QTRY_COMPARE(label(login, "errorLabel"), QStringLiteral("Incorrect password"));
        QCOMPARE(m_bed.service.requestsTo("/core/register").size(), 1);
        QVERIFY(signIn->isEnabled());
        QCOMPARE(signIn->text(), QStringLiteral("Sign In"));
        QCOMPARE(m_didLogIn, 0);
        QVERIFY(presenter().presented.isEmpty());

        m_bed.service.addFault(QJsonObject{
            {"path", "/core/register"}, {"body", "{\"status\":\"fail\"}"}, {"times", 1}});
        QTest::mouseClick(signIn, Qt::LeftButton);
        QTRY_VERIFY(label(login, "errorLabel").startsWith("The Hollowmere service refused"));
        QCOMPARE(m_didLogIn, 0);
    }

    void signInAnnouncesAndMovesOnByVerification_data()
    {
        QTest::addColumn<bool>("confirmed");
        QTest::addColumn<QStringList>("presented");
        QTest::addColumn<int>("closed");
        QTest::newRow("confirmed") << true << QStringList() << 1;
        QTest::newRow("unconfirmed") << false << QStringList{"HMVerifyEmailViewController"} << 0;
    }
    void signInAnnouncesAndMovesOnByVerification()
    {
        QFETCH(bool, confirmed);
        QFETCH(QStringList, presented);
        QFETCH(int, closed);
        putAccount(QStringLiteral("ann@example.test"), confirmed);
        HMLoginViewController login(presenter(), context());
        login.findChild<QLineEdit *>("emailField")->setText(QStringLiteral("ann@example.test"));
        login.findChild<QLineEdit *>("passwordField")->setText(QStringLiteral("secret"));
        QTest::keyClick(login.findChild<QLineEdit *>("passwordField"), Qt::Key_Return);
        QTRY_COMPARE(m_didLogIn, 1);
        QVERIFY(m_world->accounts.account->isLoggedIn());
        QCOMPARE(presenter().presented, presented);
        QCOMPARE(presenter().closed, closed);
    }

    // Each row breaks one field of a valid form; Create Account names the first failure.
    // Which failure comes first is the form rules' own suite; here, how the screen shows it
    // (a failure on the second field of a pair redraws the first).
    void createAccountReportsFirstFailure_data()
    {
        QTest::addColumn<int>("field");
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("redrawn");
        QTest::addColumn<QString>("message");
        QTest::newRow("last name")
            << int(Rules::LastName) << "" << int(Rules::FirstName) << "Last Name is required";
        QTest::newRow("verify email")
            << int(Rules::VerifyEmail) << "ann@example.org" << int(Rules::Email)
            << "The email addresses you entered do not match";
        QTest::newRow("verify password")
            << int(Rules::VerifyPassword) << "Password1" << int(Rules::VerifyPassword)
            << "The passwords you entered do not match";
    }
    void createAccountReportsFirstFailure()
    {
        QFETCH(int, field);
        QFETCH(QString, value);
        QFETCH(int, redrawn);
        QFETCH(QString, message);
        HMCreateAccountViewController create(presenter(), context());
        QSignalSpy redraws(&create, &HMCreateAccountViewController::fieldRedrawn);
        fill(create, Rules::Form{"Ann", "Lee", "ann@example.com", "ANN@Example.com", "password1",
                                 "password1"});
        create.field(Rules::Field(field))->setText(value);
        QTest::mouseClick(button(create, "nextButton"), Qt::LeftButton);

        QCOMPARE(label(create, "errorLabel"), message);
        for (int other = Rules::FirstName; other <= Rules::VerifyPassword; ++other) {
            QCOMPARE(create.field(Rules::Field(other))->shouldHighlightError(), other == field);
        }
        QCOMPARE(redraws.size(), 1);
        QCOMPARE(redraws.first().at(0).value<QWidget *>(),
                 static_cast<QWidget *>(create.field(Rules::Field(redrawn))));
        QVERIFY(m_bed.service.requestsTo("/core/createAccount").isEmpty());
    }

    void leavingFieldChecksOnlyThatField()
    {
        HMCreateAccountViewController create(presenter(), context());
        HMTextField *email = create.field(Rules::Email);
        email->setText(QStringLiteral("ann@example"));
        create.fieldDidEndEditing(email);
        QVERIFY(email->shouldHighlightError());
        QCOMPARE(label(create, "errorLabel"), QStringLiteral("A valid Email address is required"));
        email->clear(); // an empty field waits for Create Account
        create.fieldDidEndEditing(email);
        QVERIFY(!email->shouldHighlightError());
        QCOMPARE(label(create, "errorLabel"), QString());

        HMTextField *first = create.field(Rules::FirstName);
        first->setText(QStringLiteral("ann de la cruz"));
        create.fieldDidEndEditing(first); // last name is still empty: not judged here
        QCOMPARE(first->text(), QStringLiteral("Ann de la Cruz"));
        QCOMPARE(label(create, "errorLabel"), QString());
    }

    void strengthAndTipFollowTyping()
    {
        HMCreateAccountViewController create(presenter(), context());
        HMTextField *password = create.field(Rules::Password);
        QTest::keyClicks(password, QStringLiteral("abcdefgh"));
        QCOMPARE(label(create, "strengthLabel"), QStringLiteral("Cub Strength"));
        QCOMPARE(label(create, "hintLabel"),
                 QStringLiteral("Tip: You can add numbers to make it stronger"));
        QTest::keyClicks(password, QStringLiteral("A1!xyz"));
        QCOMPARE(label(create, "strengthLabel"), QStringLiteral("Canyon Strength RAWR!"));
        QCOMPARE(label(create, "hintLabel"), QString());
    }

    // Creating signs in (unconfirmed) and leads to verification; checking before the
    // confirmation says so, after it puts the window away; sign-out signs out.
    void newAccountIsVerifiedThroughTheVerificationScreen()
    {
        HMCreateAccountViewController create(presenter(), context());
        fill(create, Rules::Form{"bo", "li", " bo@example.test", "bo@example.test", "password1",
                                 "password1"});
        QTest::mouseClick(button(create, "nextButton"), Qt::LeftButton);
        QTRY_COMPARE(m_didLogIn, 1);
        const QJsonObject created = m_bed.service.account(QStringLiteral("bo@example.test"));
        QCOMPARE(created.value("firstName").toString(), QStringLiteral("bo"));
        QCOMPARE(presenter().presented, QStringList{"HMVerifyEmailViewController"});

        auto *verify = qobject_cast<HMVerifyEmailViewController *>(presenter().screen());
        QVERIFY(verify);
        QTest::mouseClick(button(*verify, "checkAgainButton"), Qt::LeftButton);
        QTRY_COMPARE(label(*verify, "errorLabel"), QStringLiteral("Email has not been confirmed"));
        QTest::mouseClick(button(*verify, "resendButton"), Qt::LeftButton);
        QTRY_COMPARE(m_bed.service.requestsTo("/core/resendConfirmationEmail").size(), 1);
        QTRY_VERIFY(button(*verify, "checkAgainButton")->isEnabled());

        m_bed.service.updateAccount(
            QJsonObject{{"username", "bo@example.test"}, {"confirmed", true}});
        QTest::mouseClick(button(*verify, "checkAgainButton"), Qt::LeftButton);
        QTRY_COMPARE(presenter().closed, 1);

        int loggedOut = 0;
        m_world->accounts.center.addObserverForName(HMAccountManager::kDidLogOutNotification,
                                                    [&] { ++loggedOut; });
        QTest::mouseClick(button(*verify, "signOutButton"), Qt::LeftButton);
        QCOMPARE(loggedOut, 1);
        QVERIFY(!m_world->accounts.account->isLoggedIn());
    }
};

QTEST_MAIN(HMAccountScreensTest)
#include "HMAccountScreensTest.moc"
