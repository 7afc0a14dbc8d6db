#include "HMDataBar.h"
#include "HMDialSwitch.h"
#include "HMDisplayViewController.h"
#include "HMIndicatorView.h"
#include "HMMainViewController.h"
#include "HMMainWindowController.h"
#include "HMScreenFactory.h"
#include "HMScreenWorld.h"

#include <QComboBox>
#include <QLabel>
#include <QPointer>
#include <QScreen>
#include <QSignalSpy>
#include <QtTest>
#include <cmath>

// The main panel driven through its real widgets, in its popup and tray-less windows.
class HMMainPanelTest : public QObject
{
    Q_OBJECT

private:
    static QString text(QWidget *root, const char *name)
    {
        return root->findChild<QLabel *>(name)->text();
    }

private Q_SLOTS:
    void accountLineAndBarFollowPlanAndAllowance_data()
    {
        QTest::addColumn<bool>("verified");
        QTest::addColumn<bool>("paid");
        QTest::addColumn<bool>("canyon");
        QTest::addColumn<qint64>("available");
        QTest::addColumn<qint64>("cap");
        QTest::addColumn<QString>("line");
        QTest::addColumn<double>("progress"); // NaN: not a number; -1: infinite
        const qint64 mib = 1048576;
        QTest::newRow("unverified")
            << false << true << true << 5 * mib << 10 * mib << "Please verify your email" << 0.0;
        QTest::newRow("summit") << true << true << false << 0ll << 0ll
                                << "Summit Hollowmere \u2013 Unlimited Data" << 1.0;
        QTest::newRow("canyon") << true << true << true << 0ll << 0ll
                                << "Canyon Hollowmere \u2013 Unlimited Data" << 1.0;
        QTest::newRow("one byte short of a MB")
            << true << false << false << mib - 1 << 4 * mib
            << "Sprout Hollowmere \u2013 0 MB remaining" << double(mib - 1) / double(4 * mib);
        QTest::newRow("half") << true << false << false << 250 * mib << 500 * mib
                              << "Sprout Hollowmere \u2013 250 MB remaining" << 0.5;
        QTest::newRow("cap 0, nothing left")
            << true << false << false << 0ll << 0ll << "Sprout Hollowmere \u2013 0 MB remaining"
            << double(NAN);
        QTest::newRow("cap 0, some left") << true << false << false << 3 * mib << 0ll
                                          << "Sprout Hollowmere \u2013 3 MB remaining" << -1.0;
    }
    void accountLineAndBarFollowPlanAndAllowance()
    {
        QFETCH(bool, verified);
        QFETCH(bool, paid);
        QFETCH(bool, canyon);
        QFETCH(qint64, available);
        QFETCH(qint64, cap);
        QFETCH(QString, line);
        QFETCH(double, progress);
        HMScreenWorld world;
        HMAccountManager &account = *world.accounts.account;
        account.setMaxBandwidth(cap);
        HMDisplayViewController display(world.context());
        // The meter takes rises under 40 MiB for noise; the world starts at 100 MiB, so
        // every row's value arrives as a real change.
        world.rig.account.setAllowance(available);
        // Set after construction: the display follows changes, not only its first look.
        account.setAccountVerified(verified);
        account.setFullVersion(paid);
        account.setCanyon(canyon);
        display.grab(); // painting must survive whatever the bar holds

        QCOMPARE(text(&display, "accountInfoLabel"), line);
        const auto *bar = display.findChild<HMDataBar *>("progressBarView");
        if (std::isnan(progress)) {
            QVERIFY(std::isnan(bar->progress()));
        } else if (progress < 0) {
            QVERIFY(std::isinf(bar->progress()));
        } else {
            QCOMPARE(bar->progress(), progress);
        }
        QVERIFY(bar->drawnFraction() >= 0.0 && bar->drawnFraction() <= 1.0);
    }

    void statusIndicatorAndLookFollowStateRoutingAndHealth_data()
    {
        QTest::addColumn<VPNState>("state");
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("apiStatus");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("indicator");
        QTest::addColumn<QString>("animation");
        QTest::addColumn<QString>("background");
        const int healthy = HMAPIStatusHealthy, blocked = HMAPIStatusBlocked;
        const QString none, spinner = "spinner", off = "scr_off", on = "scr_on";
        const QString idle = "indicator_disconnected", busy = "indicator_connecting";
        const QString error = "indicator_error";
        using S = VPNState;
        QTest::newRow("disconnected")
            << S::Disconnected << 0 << healthy << "Disconnected" << idle << none << off;
        QTest::newRow("disconnected, roots blocked")
            << S::Disconnected << 0 << blocked << "Disconnected" << error << none << off;
        QTest::newRow("disconnected, routing on")
            << S::Disconnected << 2 << healthy << "Disconnected" << idle << none << off;
        QTest::newRow("connecting")
            << S::Connecting << 0 << blocked << "Connecting\u2026" << busy << spinner << off;
        QTest::newRow("disconnecting")
            << S::Disconnecting << 1 << healthy << "Disconnecting\u2026" << busy << spinner << off;
        QTest::newRow("connected") << S::Connected << 0 << healthy << "Connected"
                                   << QString("indicator_connected") << none << on;
        QTest::newRow("connected, routing on")
            << S::Connected << 1 << healthy << "Wisproute On" << QString("indicator_wisproute")
            << QString("pulse") << QString("scr_on_wisproute");
        QTest::newRow("error") << S::Error << 0 << healthy << "Error" << error << none << off;
        QTest::newRow("out of data")
            << S::OutOfData << 2 << healthy << "Out of Data" << error << none << off;
        QTest::newRow("no connection")
            << S::NoConnection << 0 << healthy << "No Connection" << error << none << off;
    }

    void statusIndicatorAndLookFollowStateRoutingAndHealth()
    {
        QFETCH(VPNState, state);
        QFETCH(int, mode);
        QFETCH(int, apiStatus);
        QFETCH(QString, status);
        QFETCH(QString, indicator);
        QFETCH(QString, animation);
        QFETCH(QString, background);
        HMScreenWorld world;
        const HMScreenContext context = world.context();
        HMDisplayViewController display(context);
        QSignalSpy announced(&display, &HMDisplayViewController::statusChanged);
        world.rig.vpn->setState(state);
        // Routing and health change last: each must reach the display on its own.
        context.routing->setWisprouteMode(mode);
        context.api->setCheckStatus(apiStatus);

        QCOMPARE(display.status(), status);
        QCOMPARE(text(&display, "statusLabel"), status);
        if (status != QLatin1String("Disconnected")) {
            QCOMPARE(announced.last().at(0).toString(), status);
        }
        const auto *view = display.findChild<HMIndicatorView *>("indicatorImage");
        QCOMPARE(view->imageName(), indicator);
        QCOMPARE(view->isSpinning(), animation == QLatin1String("spinner"));
        QCOMPARE(view->isPulsing(), animation == QLatin1String("pulse"));
        QCOMPARE(display.backgroundName(), background);
        QCOMPARE(display.isOn(), state == VPNState::Connected);
    }

    void routingOffWhileConnectedAndSwitchOffReturnToPlainLooks()
    {
        HMScreenWorld world;
        HMScreenContext context = world.context();
        int routingPaneOpened = 0;
        context.showPreferencesWisproute = [&] { ++routingPaneOpened; };
        HMDisplayViewController display(context);
        display.show();
        auto *status = display.findChild<QLabel *>("statusLabel");
        world.accounts.routing->setWisprouteMode(2);
        QTest::mouseClick(status, Qt::LeftButton); // routing on, but not connected
        QCOMPARE(routingPaneOpened, 0);
        world.rig.vpn->setState(VPNState::Connected);
        QCOMPARE(display.logoName(), QStringLiteral("scr_on_logo_wisproute"));
        // The pulse runs only while on screen.
        const auto *indicator = display.findChild<HMIndicatorView *>("indicatorImage");
        QVERIFY(indicator->isAnimating());
        display.hide();
        QVERIFY(!indicator->isAnimating());
        display.show();
        QVERIFY(indicator->isAnimating());
        const auto *bar = display.findChild<HMDataBar *>("progressBarView");
        QCOMPARE(bar->foregroundColor(), bar->backgroundColor()); // one colour, on purpose
        QTest::mouseClick(status, Qt::LeftButton);
        QCOMPARE(routingPaneOpened, 1);

        world.accounts.routing->setWisprouteMode(0);
        QCOMPARE(display.logoName(), QStringLiteral("scr_on_logo"));
        QCOMPARE(display.status(), QStringLiteral("Connected"));
        QVERIFY(bar->foregroundColor() != bar->backgroundColor());
        QVERIFY(!display.isPlayingSwitchOff());

        world.rig.vpn->setState(VPNState::Disconnected);
        QCOMPARE(display.backgroundName(), QStringLiteral("scr_off"));
        QVERIFY(display.isPlayingSwitchOff());
        QTRY_VERIFY(!display.isPlayingSwitchOff());
    }

    void dialConnectsAndSwitchingOffPostsNotification()
    {
        HMScreenWorld world;
        int switchedOff = 0;
        world.accounts.center.addObserverForName(QLatin1String(kHMDidSwitchDialOffNotification),
                                                 [&] { ++switchedOff; });
        HMMainViewController panel(world.context());
        panel.show();
        auto *dial = panel.findChild<HMDialSwitch *>("dialSwitch");

        QTest::keyClick(dial, Qt::Key_Space);
        QTRY_COMPARE(world.rig.account.tokenRequests, 1); // the connect sequence began
        QVERIFY(dial->isChecked());
        QCOMPARE(switchedOff, 0);

        world.rig.vpn->setState(VPNState::Connected);
        QTest::mouseClick(dial, Qt::LeftButton);
        QCOMPARE(switchedOff, 1);
        QVERIFY(world.rig.vpn->state() != VPNState::Connected);
        QVERIFY(!dial->isChecked());
        QCOMPARE(world.rig.account.tokenRequests, 1);
    }

    void pickerListsAccountCountriesAndStoresChoice()
    {
        HMScreenWorld world;
        HMAccountManager &account = *world.accounts.account;
        const auto record = [](const char *code, const char *id) {
            return QVariant(QVariantMap{{"code", code}, {"id", id}});
        };
        HMMainViewController panel(world.context());
        auto *picker = panel.findChild<QComboBox *>("countryPicker");
        QVERIFY(!picker->isEnabled());
        QCOMPARE(picker->currentText(), QStringLiteral("No countries available"));

        account.setCountries(
            {record("GB", "2"), record("QQ", "9"), record("US", "1"), record("Closest", "-1")});
        account.setCurrentCountry(QStringLiteral("US"));
        QVERIFY(picker->isEnabled());
        QStringList names;
        for (int i = 0; i < picker->count(); ++i) {
            names << picker->itemText(i);
        }
        QCOMPARE(names, QStringList({"United Kingdom", "QQ", "United States", "Closest Tunnel"}));
        QCOMPARE(picker->currentText(), QStringLiteral("United States"));

        panel.show();
        picker->setFocus();
        QTest::keyClick(picker, Qt::Key_Down);
        QCOMPARE(account.currentCountry(), QStringLiteral("Closest"));
        QCOMPARE(account.currentCountryCode(), QStringLiteral("-1"));
    }

    void usageIsRefreshedOnlyWhileShown()
    {
        HMScreenWorld world;
        HMAccountManager &account = *world.accounts.account;
        account.setUsername(QStringLiteral("ann@example.test"));
        account.setPassword(QStringLiteral("secret"));
        account.setAccountVerified(true);
        HMMainViewController panel(world.context());
        QVERIFY(!account.shouldUpdateUsage());
        panel.show();
        QVERIFY(account.shouldUpdateUsage());
        panel.hide();
        QVERIFY(!account.shouldUpdateUsage());
    }

    void windowHangsFromTheIconAndClosesByItsForm_data()
    {
        QTest::addColumn<bool>("trayLess");
        QTest::addColumn<QPoint>("anchor");
        // On the offscreen screen (800 wide, 600 or more high at 0,0); a 320x460 panel.
        QTest::addColumn<QPoint>("topLeft");
        QTest::newRow("under an icon at the top") << false << QPoint(400, 0) << QPoint(240, 0);
        QTest::newRow("above an icon at the bottom")
            << false << QPoint(400, 600) << QPoint(240, 140);
        QTest::newRow("kept inside on the right") << false << QPoint(790, 24) << QPoint(480, 24);
        QTest::newRow("kept inside on the left") << false << QPoint(10, 24) << QPoint(0, 24);
        QTest::newRow("tray-less: left where it was, close minimises")
            << true << QPoint(790, 24) << QPoint(30, 40);
    }
    void windowHangsFromTheIconAndClosesByItsForm()
    {
        QFETCH(bool, trayLess);
        QFETCH(QPoint, anchor);
        QFETCH(QPoint, topLeft);
        const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
        QVERIFY(area.topLeft() == QPoint(0, 0) && area.width() == 800 && area.height() >= 600);
        HMScreenWorld world;
        HMScreenFactory::setContext(world.context());
        HMMainWindowController controller;
        controller.setFallbackMode(trayLess);
        QWidget *window = controller.window();
        window->move(30, 40);           // where a window manager put the ordinary window
        QVERIFY(!controller.content()); // made when first shown, not at start-up

        controller.showWindowAt(anchor);
        QVERIFY(controller.isWindowVisible());
        QPointer<QWidget> content = controller.content();
        QVERIFY(window->isAncestorOf(content) && content->findChild<HMDisplayViewController *>());
        QCOMPARE(window->size(), QSize(320, 460));
        QCOMPARE(window->pos(), topLeft);
        QCOMPARE(window->windowFlags().testFlag(Qt::FramelessWindowHint), !trayLess);

        // Escape dismisses the popup; the ordinary window keeps the key for its controls, and
        // its own close only minimises it, the application's one way back in.
        QTest::keyClick(controller.content(), Qt::Key_Escape);
        QCOMPARE(controller.isWindowVisible(), trayLess);
        window->close();
        QVERIFY(!controller.isWindowVisible());
        QCOMPARE(window->isVisible(), trayLess);
        QCOMPARE(window->isMinimized(), trayLess);

        // A hidden popup gives its widget tree back and builds a fresh one when shown again;
        // the minimised window is still on screen and keeps its own.
        if (trayLess) {
            QCoreApplication::processEvents();
            QCOMPARE(controller.content(), content.data());
        } else {
            QTRY_VERIFY(!content);
            QVERIFY(!controller.content());
        }
        controller.showWindowAt(anchor);
        QVERIFY(controller.content() && controller.content()->isVisible());
        QCOMPARE(controller.content() == content.data(), trayLess);
    }
};

QTEST_MAIN(HMMainPanelTest)
#include "HMMainPanelTest.moc"
