// The tray item against a fake StatusNotifierWatcher on the session's private bus.
#include "HMMenuBarItemController.h"
#include "HMAccountWorld.h"
#include "HMException.h"
#include "HMImageView.h"
#include "HMTestEnvironment.h"
#include "HMTrayHostWatcher.h"
#include "HMVPNTestRig.h"

#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QSystemTrayIcon>
#include <QtTest>

namespace {

const QString kWatcher = "org.kde.StatusNotifierWatcher";

QStringList registeredItems()
{
    QDBusInterface watcher(kWatcher, "/StatusNotifierWatcher", kWatcher);
    return watcher.property("RegisteredStatusNotifierItems").toStringList();
}

struct Tray
{
    HMAccountWorld world;
    HMVPNTestRig rig;
    HMTrayHostWatcher hostWatcher{QDBusConnection::sessionBus()};
    std::unique_ptr<HMMenuBarItemController> item;
    int clicks = 0;

    Tray()
    {
        HMMenuBarItemController::Collaborators c;
        c.vpn = rig.vpn.get();
        c.routing = world.routing.get();
        c.account = world.account.get();
        c.center = &world.center;
        c.clock = &rig.clock;
        c.hostWatcher = &hostWatcher;
        item = std::make_unique<HMMenuBarItemController>(c);
        world.center.addObserverForName(HMMenuBarItemController::kDidClickNotification,
                                        [this] { ++clicks; });
        hostWatcher.start();
    }
};

} // namespace

class HMMenuBarItemControllerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void iconFollowsStateAndRouting_data();
    void iconFollowsStateAndRouting();
    void connectingAnimatesUntilTheStateChanges();
    void frameAnimation_data();
    void frameAnimation();
    void iconAppearsWithTheHostAndActivates();

private:
    std::unique_ptr<QTemporaryDir> m_home;
    QProcess m_watcher;
};

void HMMenuBarItemControllerTest::initTestCase()
{
    if (qEnvironmentVariableIsEmpty("HM_DESKTOP_SESSION")) {
        QSKIP("needs a throw-away desktop session: run through with-desktop-session.sh");
    }
    m_home = HMTestEnvironment::isolateUserDirectories();
    // No host yet: the last case registers one while an item waits for it.
    m_watcher.start(HMTestEnvironment::buildDir() + "/tests/gui/hm-fake-tray-watcher", {});
    QVERIFY(m_watcher.waitForStarted());
    QTRY_VERIFY(QDBusConnection::sessionBus().interface()->isServiceRegistered(kWatcher));
}

void HMMenuBarItemControllerTest::cleanupTestCase()
{
    m_watcher.kill();
    m_watcher.waitForFinished();
}

void HMMenuBarItemControllerTest::iconFollowsStateAndRouting_data()
{
    QTest::addColumn<VPNState>("state");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("icon");
    using S = VPNState;
    QTest::newRow("disconnected") << S::Disconnected << 0 << "mb_ico_off";
    QTest::newRow("disconnecting: no animation") << S::Disconnecting << 0 << "mb_ico_off";
    QTest::newRow("error") << S::Error << 0 << "mb_ico_off";
    QTest::newRow("connected") << S::Connected << 0 << "mb_ico_connected_alternate";
    QTest::newRow("connected, exclusion list") << S::Connected << 1 << "mb_ico_wisproute";
    QTest::newRow("connected, inclusion list") << S::Connected << 2 << "mb_ico_wisproute";
    QTest::newRow("out of data") << S::OutOfData << 0 << "mb_ico_disabled";
    QTest::newRow("no connection") << S::NoConnection << 0 << "mb_ico_disabled";
}

void HMMenuBarItemControllerTest::iconFollowsStateAndRouting()
{
    QFETCH(VPNState, state);
    QFETCH(int, mode);
    QFETCH(QString, icon);
    Tray tray;
    tray.item->showItem();
    tray.item->showItem(); // a second show makes no second item
    tray.rig.vpn->setState(VPNState::Connecting);
    tray.rig.vpn->setState(state);
    tray.world.routing->setWisprouteMode(mode);
    QCOMPARE(tray.item->currentIconName(), icon);
    QVERIFY(!tray.item->menuBarItemView()->iconImage()->isAnimating());
    QVERIFY(!HMImageView::imageNamed(icon).pixmap(22, 22).isNull());

    tray.item->hideItem();
    tray.world.routing->setWisprouteMode(0);
    tray.item->showItem(); // a fresh view shows the current state at once
    QCOMPARE(tray.item->currentIconName(),
             state == VPNState::Connected ? QString("mb_ico_connected_alternate") : icon);
}

void HMMenuBarItemControllerTest::connectingAnimatesUntilTheStateChanges()
{
    Tray tray;
    tray.item->showItem();
    QStringList shown;
    connect(tray.item.get(), &HMMenuBarItemController::iconChanged,
            [&](const QString &name) { shown << name; });
    tray.rig.vpn->setState(VPNState::Connecting);
    tray.rig.clock.advance(50 * 17); // one pass of 16 frames at 0.05 s, and one more frame
    QCOMPARE(shown.size(), 18);
    QCOMPARE(shown.first(), QString("mb_ico_connecting_01"));
    QCOMPARE(shown.at(15), QString("mb_ico_connecting_16"));
    QCOMPARE(shown.last(), QString("mb_ico_connecting_02"));

    // The same state stored again does not restart the animation.
    tray.rig.vpn->setState(VPNState::Connecting);
    QCOMPARE(tray.item->currentIconName(), QString("mb_ico_connecting_02"));

    tray.rig.vpn->setState(VPNState::Connected);
    shown.clear();
    tray.rig.clock.advance(1000);
    QCOMPARE(shown, QStringList());
    QCOMPARE(tray.item->currentIconName(), QString("mb_ico_connected_alternate"));
}

void HMMenuBarItemControllerTest::frameAnimation_data()
{
    QTest::addColumn<unsigned>("repeats");
    QTest::addColumn<int>("stopAfterMs"); // -1: never stopped
    QTest::addColumn<int>("finishedCalls");
    QTest::addColumn<int>("unfinishedCalls");
    QTest::addColumn<int>("frameAtEnd");
    // Four frames over 0.2 s: one every 50 ms.
    QTest::newRow("two passes finish") << 2u << -1 << 1 << 0 << 0;
    QTest::newRow("stopped mid-way keeps its frame") << 2u << 120 << 0 << 1 << 2;
}

void HMMenuBarItemControllerTest::frameAnimation()
{
    QFETCH(unsigned, repeats);
    QFETCH(int, stopAfterMs);
    QFETCH(int, finishedCalls);
    QFETCH(int, unfinishedCalls);
    QFETCH(int, frameAtEnd);
    HMManualClock clock;
    HMImageView view(nullptr, &clock);
    view.setAnimationImages({"mb_ico_connecting_01", "mb_ico_connecting_05", "mb_ico_connecting_09",
                             "mb_ico_connecting_13"});
    view.setAnimationDuration(0.2);
    view.setAnimationRepeatCount(repeats);
    int finished = 0;
    int unfinished = 0;
    view.animateWithCompletion([&](bool done) { ++(done ? finished : unfinished); });
    QVERIFY(view.isAnimating());
    if (stopAfterMs >= 0) {
        clock.advance(stopAfterMs);
        view.stopAnimating();
    }
    clock.advance(2000);
    QCOMPARE(finished, finishedCalls);
    QCOMPARE(unfinished, unfinishedCalls);
    QCOMPARE(view.currImage(), frameAtEnd);
    QVERIFY(!view.isAnimating());
    QCOMPARE(clock.pendingTimers(), 0);

    view.setAnimationRepeatCount(0);
    try {
        view.animateWithCompletion([](bool) {});
        QFAIL("an endless animation took a completion");
    } catch (const HMException &e) {
        QCOMPARE(e.reason(), QString("Only finite animations should be called with completion"));
    }
}

void HMMenuBarItemControllerTest::iconAppearsWithTheHostAndActivates()
{
    Tray tray;
    tray.item->showItem();
    QVERIFY(!tray.item->hasTrayIcon());
    QCOMPARE(registeredItems(), QStringList());

    // A tray host appears later in the session.
    QDBusInterface(kWatcher, "/StatusNotifierWatcher", kWatcher)
        .call("RegisterStatusNotifierHost", "org.kde.StatusNotifierHost-test");
    QTRY_VERIFY(tray.item->hasTrayIcon());
    QTRY_COMPARE(registeredItems().size(), 1);
    QCOMPARE(tray.item->menuBarItem()->toolTip(), QString("Hollowmere"));

    const QString item = registeredItems().first();
    const QString service = item.section('/', 0, 0);
    const QString path = "/" + item.section('/', 1);
    QDBusConnection::sessionBus().asyncCall(
        QDBusMessage::createMethodCall(service, path, "org.kde.StatusNotifierItem", "Activate")
        << 0 << 0);
    QTRY_COMPARE(tray.clicks, 1);

    tray.item->hideItem();
    QVERIFY(!tray.item->hasTrayIcon());
}

QTEST_MAIN(HMMenuBarItemControllerTest)
#include "HMMenuBarItemControllerTest.moc"
