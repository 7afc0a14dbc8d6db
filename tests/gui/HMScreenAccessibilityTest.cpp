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
#include <functional>
#include <type_traits>

using Make = std::function<QWidget *(HMScreenWorld &)>;
Q_DECLARE_METATYPE(Make)

// Every screen: each control has a name for assistive technology, and the Tab key reaches
// every enabled control.
class HMScreenAccessibilityTest : public QObject
{
    Q_OBJECT

private:
    template <typename Screen> static Make make()
    {
        return [](HMScreenWorld &world) -> QWidget * {
            HMScreenContext context = world.context();
            context.showPreferencesGeneral = [] {};
            context.showDiagnostics = [] {};
            context.launchOnStartup = [] { return false; };
            context.setLaunchOnStartup = [](bool) {};
            world.accounts.account->setUsername(QStringLiteral("ann@example.test"));
            world.accounts.account->setPassword(QStringLiteral("secret"));
            world.accounts.account->setCountries({QVariantMap{{"code", "US"}, {"id", "1"}},
                                                  QVariantMap{{"code", "GB"}, {"id", "2"}}});
            if constexpr (std::is_constructible_v<Screen, HMScreenPresenter &, HMScreenContext>) {
                return new Screen(world.presenter, context);
            } else {
                return new Screen(context);
            }
        };
    }

private Q_SLOTS:
    void everyControlNamedAndReachableByTab_data()
    {
        QTest::addColumn<Make>("make");
        QTest::newRow("main panel") << make<HMMainViewController>();
        QTest::newRow("launch") << make<HMLaunchViewController>();
        QTest::newRow("sign-in") << make<HMLoginViewController>();
        QTest::newRow("create account") << make<HMCreateAccountViewController>();
        QTest::newRow("verify email") << make<HMVerifyEmailViewController>();
        QTest::newRow("general") << make<HMGeneralViewController>();
        QTest::newRow("account") << make<HMAccountViewController>();
    }
    void everyControlNamedAndReachableByTab()
    {
        QFETCH(Make, make);
        HMScreenWorld world;
        std::unique_ptr<QWidget> widget(make(world));
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
