#include "HMAccountViewController.h"
#include "HMCreateAccountViewController.h"
#include "HMGeneralViewController.h"
#include "HMLaunchViewController.h"
#include "HMLoginViewController.h"
#include "HMMainViewController.h"
#include "HMScreenWorld.h"
#include "HMUtilityWindowController.h"
#include "HMVerifyEmailViewController.h"

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QSet>
#include <QtTest>

// Every screen: each control has a name for assistive technology, and the Tab key reaches
// every enabled control.
class HMScreenAccessibilityTest : public QObject
{
    Q_OBJECT

private:
    enum Screen
    {
        Main,
        Launch,
        Login,
        CreateAccount,
        VerifyEmail,
        General,
        Account,
    };

    static QWidget *make(Screen screen, HMScreenWorld &world)
    {
        HMScreenContext context = world.context();
        context.showPreferencesGeneral = [] {};
        context.showDiagnostics = [] {};
        context.launchOnStartup = [] { return false; };
        context.setLaunchOnStartup = [](bool) {};
        world.accounts.account->setUsername(QStringLiteral("ann@example.test"));
        world.accounts.account->setPassword(QStringLiteral("secret"));
        world.accounts.account->setCountries(
            {QVariantMap{{"code", "US"}, {"id", "1"}}, QVariantMap{{"code", "GB"}, {"id", "2"}}});
        switch (screen) {
        case Main:
            return new HMMainViewController(context);
        case Launch:
            return new HMLaunchViewController(world.presenter, context);
        case Login:
            return new HMLoginViewController(world.presenter, context);
        case CreateAccount:
            return new HMCreateAccountViewController(world.presenter, context);
        case VerifyEmail:
            return new HMVerifyEmailViewController(world.presenter, context);
        case General:
            return new HMGeneralViewController(context);
        case Account:
            break;
        }
        return new HMAccountViewController(context);
    }

private Q_SLOTS:
    void everyControlNamedAndReachableByTab_data()
    {
        QTest::addColumn<int>("screen");
        QTest::newRow("main panel") << int(Main);
        QTest::newRow("launch") << int(Launch);
        QTest::newRow("sign-in") << int(Login);
        QTest::newRow("create account") << int(CreateAccount);
        QTest::newRow("verify email") << int(VerifyEmail);
        QTest::newRow("general") << int(General);
        QTest::newRow("account") << int(Account);
    }
    void everyControlNamedAndReachableByTab()
    {
        QFETCH(int, screen);
        HMScreenWorld world;
        std::unique_ptr<QWidget> widget(make(Screen(screen), world));
        widget->show();
        QApplication::setActiveWindow(widget.get());
        QVERIFY(QTest::qWaitForWindowActive(widget.get()));

        QList<QWidget *> controls;
        for (QWidget *child : widget->findChildren<QWidget *>()) {
            if (qobject_cast<QAbstractButton *>(child) || qobject_cast<QLineEdit *>(child) ||
                qobject_cast<QComboBox *>(child)) {
                if (child->isVisibleTo(widget.get()) &&
                    !child->parentWidget()->inherits("QComboBox")) {
                    QVERIFY2(!child->accessibleName().isEmpty(), qPrintable(child->objectName()));
                    if (child->isEnabled()) {
                        controls.append(child);
                    }
                }
            }
        }
        QVERIFY(!controls.isEmpty());

        controls.first()->setFocus(Qt::TabFocusReason);
        QSet<QWidget *> reached{QApplication::focusWidget()};
        for (int i = 0; i < 2 * controls.size(); ++i) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            reached.insert(QApplication::focusWidget());
        }
        for (QWidget *control : controls) {
            QVERIFY2(reached.contains(control), qPrintable(control->objectName()));
        }
    }

    // Typing goes to the screen sliding in, from the first key on, into the field it offers.
    void newScreenTakesTheKeysAtOnce_data()
    {
        QTest::addColumn<QString>("previousUser");
        QTest::addColumn<QString>("field");
        QTest::newRow("first sign-in") << QString() << "emailField";
        QTest::newRow("known user") << "ann@example.test"
                                    << "passwordField";
    }
    void newScreenTakesTheKeysAtOnce()
    {
        QFETCH(QString, previousUser);
        QFETCH(QString, field);
        HMScreenWorld world;
        world.accounts.account->setPreviousUsername(previousUser);
        HMUtilityWindowController utility;
        utility.presentViewController(new HMLaunchViewController(utility, world.context()),
                                      HMScreenPresenter::Animation::None);
        utility.showWindow();
        QApplication::setActiveWindow(utility.window());
        QVERIFY(QTest::qWaitForWindowActive(utility.window()));
        auto *login = new HMLoginViewController(utility, world.context());
        utility.presentViewController(login, HMScreenPresenter::Animation::Slide);
        QVERIFY(utility.isAnimating());
        QTest::keyClicks(QApplication::focusWidget(), "typed");
        const QString text = login->findChild<QLineEdit *>(field)->text();
        QVERIFY2(text.endsWith("typed"), qPrintable(field + ": " + text));
    }
};

QTEST_MAIN(HMScreenAccessibilityTest)
#include "HMScreenAccessibilityTest.moc"
