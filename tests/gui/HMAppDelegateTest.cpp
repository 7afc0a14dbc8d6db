// The application controller run whole in a throw-away desktop session, against a real
// notification server and the helper stand-in.
#include "HMAppDelegate.h"
#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMBundleInfo.h"
#include "HMDaemonManager.h"
#include "HMDeploymentValues.h"
#include "HMHelperPeerProcess.h"
#include "HMLogCapture.h"
#include "HMMainWindowController.h"
#include "HMMenuBarItemController.h"
#include "HMNotificationManager.h"
#include "HMPreferenceWindowController.h"
#include "HMSleepWatcher.h"
#include "HMTestEnvironment.h"
#include "HMTrayHostWatcher.h"
#include "HMUtilityWindowController.h"
#include "HMVPNTestRig.h"
#include "HMVerifyEmailViewController.h"

#include <QApplication>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QLabel>
#include <QRegularExpression>
#include <QScreen>
#include <QtTest>
#include <csignal>

namespace {

// One start-up's world: store and account, a faked tunnel, the helper stand-in and a
// notification manager on the session's bus.
struct Shell
{
    HMAccountWorld world;
    HMVPNTestRig rig;
    HMHelperPeerProcess peer;
    std::unique_ptr<HMDaemonManager> daemon;
    std::unique_ptr<HMNotificationManager> notifications;
    std::unique_ptr<HMTrayHostWatcher> hostWatcher;
    std::unique_ptr<HMSleepWatcher> sleepWatcher;
    std::unique_ptr<HMAppDelegate> delegate;
    QStringList delivered; // "title|text"
    bool reachable = true;
    HMMaybeError installError;
    QStringList seenAtInstall;
    int closestRefreshes = 0;
    bool holdAccount = false;        // the keyring's answer is held back...
    std::function<void()> heldReady; // ...until this is called

    bool start()
    {
        if (!peer.start()) {
            qWarning() << peer.errorString();
            return false;
        }
        peer.setStep("*", QJsonObject{{"reply", QJsonObject{{"status", "ok"}}}});
        HMDaemonManager::Paths paths;
        paths.socketPath = peer.socketPath();
        daemon = std::make_unique<HMDaemonManager>(*world.store, world.account.get(),
                                                   world.routing.get(), paths);
        notifications =
            std::make_unique<HMNotificationManager>(*world.store, QDBusConnection::sessionBus());
        QObject::connect(notifications.get(), &HMNotificationManager::notificationDelivered,
                         [this](const QString &title, const QString &text, uint) {
                             delivered << title + "|" + text;
                         });
        hostWatcher = std::make_unique<HMTrayHostWatcher>(QDBusConnection::sessionBus());
        launch();
        return true;
    }

    // A fresh application controller over the same store, keychain and helper.
    void launch()
    {
        delegate = std::make_unique<HMAppDelegate>([this] {
            HMAppDelegate::Collaborators c;
            c.store = world.store.get();
            c.account = world.account.get();
            c.vpn = rig.vpn.get();
            c.daemon = daemon.get();
            c.routing = world.routing.get();
            c.notifications = notifications.get();
            c.center = &world.center;
            c.clock = &rig.clock;
            c.reachable = [this] { return reachable; };
            c.refreshClosest = [this] { ++closestRefreshes; };
            c.initializeDaemons = [this]() -> HMMaybeError {
                seenAtInstall = peer.actions();
                seenAtInstall << (delegate->utilityWindowController() ? "windows" : "");
                daemon->createCommandQueue();
                return installError;
            };
            c.hostWatcher = hostWatcher.get();
            c.sleepWatcher = sleepWatcher.get();
            c.countryName = [](const QString &code) {
                return QHash<QString, QString>{{"US", "United States"}, {"DE", "Germany"}}.value(
                    code);
            };
            c.countryImage = [](const QString &code) { return "alert_" + code; };
            if (holdAccount) {
                c.whenAccountReadable = [this](QObject *, std::function<void()> ready) {
                    heldReady = std::move(ready);
                };
            }
            return c;
        });
    }

    // Started and through applicationDidFinishLaunching.
    bool launched() { return start() && delegate->applicationDidFinishLaunching(); }

    void signIn()
    {
        world.account->setUsername("wisp@example.com");
        world.account->setPassword("secret");
        world.account->setAccountVerified(true);
    }
};

// The display's top-level windows, topmost first (there is no window manager in the
// throw-away session, so this is the order the X server keeps).
QStringList stackingTopmostFirst()
{
    QProcess query;
    query.start("xwininfo", {"-root", "-children"});
    query.waitForFinished();
    QStringList ids;
    static const QRegularExpression line(R"(^\s+(0x[0-9a-f]+) )");
    for (const QString &text : QString::fromLocal8Bit(query.readAllStandardOutput()).split('\n')) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch()) {
            ids << match.captured(1);
        }
    }
    return ids;
}

QString xid(quint64 id)
{
    return "0x" + QString::number(id, 16);
}

// Gives the focus to the X window `target` as a window manager would, from outside.
bool focusFromOutside(const QString &target)
{
    return QProcess::execute("xdotool", {"windowraise", target, "windowfocus", "--sync", target}) ==
           0;
}

QString readLogs(const QString &stateHome)
{
    QString all;
    const QDir dir(stateHome + "/Hollowmere");
    for (const QString &name : dir.entryList(QDir::Files)) {
        all += QString::fromUtf8(HMTestEnvironment::readFile(dir.filePath(name)));
    }
    return all;
}

} // namespace

class HMAppDelegateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void startUpRunsInOrder_data();
    void startUpRunsInOrder();
    void startUpWaitsForTheKeyringOnTheEventLoop();
    void connectionNotices_data();
    void connectionNotices();
    void sessionNotificationsDriveTheWindows();
    void focusFollowsTheApplication_data();
    void focusFollowsTheApplication();
    void reopenTogglesLikeATrayClick_data();
    void reopenTogglesLikeATrayClick();
    void quitAndWakeFollowTheTunnel_data();
    void quitAndWakeFollowTheTunnel();
    void nextLaunchReconnectsAfterTheTokenRequest();
    void sleepDisconnectsFirstAndWakeReconnects();
    void trayLessProgramIsSingleAndQuitsOnSignal();
    void regularExpressionsLeaveNoWritableCode();

private:
    std::unique_ptr<QTemporaryDir> m_home;
    QProcess m_dunst;
};

void HMAppDelegateTest::initTestCase()
{
    // As main() does, before anything in this process has matched a pattern.
    HMAppDelegate::prepareProcess();
    if (qEnvironmentVariableIsEmpty("HM_DESKTOP_SESSION")) {
        QSKIP("needs a throw-away desktop session: run through with-desktop-session.sh");
    }
    m_home = HMTestEnvironment::isolateUserDirectories();
    m_dunst.start("dunst", {});
    QVERIFY2(m_dunst.waitForStarted(), "dunst is missing (scripts/setup.sh installs it)");
}

void HMAppDelegateTest::cleanupTestCase()
{
    m_dunst.terminate();
    m_dunst.waitForFinished();
}

void HMAppDelegateTest::startUpRunsInOrder_data()
{
    QTest::addColumn<QJsonObject>("portCheck");
    QTest::addColumn<bool>("installFails");
    QTest::addColumn<bool>("supported");
    const QJsonObject ok{{"reply", QJsonObject{{"status", "ok"}}}};
    QTest::newRow("port free") << ok << false << true;
    QTest::newRow("port taken") << QJsonObject{{"reply", QJsonObject{{"status", "error"},
                                                                     {"error", "53 in use"}}}}
                                << false << false;
    QTest::newRow("helper repair fails") << ok << true << false;
}

void HMAppDelegateTest::startUpRunsInOrder()
{
    QFETCH(QJsonObject, portCheck);
    QFETCH(bool, installFails);
    QFETCH(bool, supported);
    Shell shell;
    shell.world.store->setValue("enabled", false); // a store left by the old generation
    QVERIFY(shell.start());
    shell.peer.setStep("checkDNSPortOpen", portCheck);
    if (installFails) {
        shell.installError = HMError::errorWithDescription("pkexec said no");
    }

    QCOMPARE(shell.delegate->applicationDidFinishLaunching(), !installFails);
    // Migration ran before the helper check, which ran before any window or request.
    QCOMPARE(shell.world.store->value("lastVersionRun").toString(), app_version());
    QCOMPARE(shell.world.store->value("notificationsEnabled"), QVariant(false));
    QVERIFY(!shell.world.store->contains("enabled"));
    QCOMPARE(shell.seenAtInstall, QStringList{""});
    if (installFails) {
        QVERIFY(!shell.delegate->utilityWindowController());
        QTRY_VERIFY(readLogs(qEnvironmentVariable("XDG_STATE_HOME")).contains("Quitting..."));
        QCOMPARE(shell.peer.actions(), QStringList());
        return;
    }
    QTRY_COMPARE(shell.peer.actions(), (QStringList{"stopDNSProxy", "checkDNSPortOpen"}));
    QTRY_COMPARE(shell.world.routing->isSupported(), supported);
    // Signed out: the launch screen, no tray item; the closest check was asked for.
    QVERIFY(shell.delegate->utilityWindowController()->isWindowVisible());
    QVERIFY(shell.delegate->utilityWindowController()->currentScreen());
    QVERIFY(!shell.delegate->menuBarItemController()->isItemShown());
    QCOMPARE(shell.closestRefreshes, 1);
    // The preferences window is built when first asked for, not at start.
    const auto preferencesWindows = [] {
        const QWidgetList windows = QApplication::topLevelWidgets();
        return std::count_if(windows.begin(), windows.end(), [](QWidget *w) {
            return w->objectName() == QLatin1String("preferencesWindow");
        });
    };
    QCOMPARE(preferencesWindows(), 0);
    shell.delegate->showPreferencesGeneral();
    QCOMPARE(preferencesWindows(), 1);
}

// While the keyring's unlock prompt is up, start-up waits without blocking the event loop,
// and nothing that needs the account has started.
void HMAppDelegateTest::startUpWaitsForTheKeyringOnTheEventLoop()
{
    Shell shell;
    shell.signIn();
    shell.holdAccount = true;
    QVERIFY(shell.launched());
    QVERIFY(shell.heldReady);
    QVERIFY(!shell.delegate->isLaunched());
    QVERIFY(!shell.delegate->menuBarItemController());
    shell.delegate->raise(); // a second launch meanwhile
    QCoreApplication::processEvents();
    QVERIFY(!shell.delegate->utilityWindowController());
    QCOMPARE(shell.peer.actions(), QStringList());

    shell.heldReady();
    QVERIFY(shell.delegate->isLaunched());
    QVERIFY(shell.delegate->menuBarItemController()->isItemShown());
    QTRY_COMPARE(shell.peer.actions(), (QStringList{"stopDNSProxy", "checkDNSPortOpen"}));
}

void HMAppDelegateTest::connectionNotices_data()
{
    QTest::addColumn<VPNState>("from");
    QTest::addColumn<VPNState>("to");
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("closest");
    QTest::addColumn<QString>("notice"); // title|text, "" for none
    QTest::addColumn<QString>("icon");

    using S = VPNState;
    const QString none, on = "icon_on_256x256", routed = "icon_wisproute_256x256";
    const QString privately = "Connection secure|Rawrrr! You are now browsing in private from ";
    const QString notSecure = "Connection not secure|Your traffic is currently not encrypted";
    QTest::newRow("connected") << S::Connecting << S::Connected << true << 0 << none
                               << privately + "United States" << on;
    QTest::newRow("connected, closest")
        << S::Connecting << S::Connected << true << 1 << "DE" << privately + "Germany" << routed;
    QTest::newRow("connected, inclusion list")
        << S::Connecting << S::Connected << true << 2 << none
        << "Connection secure|Rawrrr! You are tunneling select URLs to the United States" << routed;
    QTest::newRow("to disconnecting")
        << S::Connected << S::Disconnecting << true << 0 << none << notSecure << none;
    QTest::newRow("to disconnected")
        << S::Connected << S::Disconnected << true << 0 << none << notSecure << none;
    QTest::newRow("to error is silent")
        << S::Connected << S::Error << true << 0 << none << none << none;
    QTest::newRow("to out of data is silent")
        << S::Connected << S::OutOfData << true << 0 << none << none << none;
    QTest::newRow("failed attempt is silent")
        << S::Connecting << S::Disconnected << true << 0 << none << none << none;
    QTest::newRow("same state") << S::Connected << S::Connected << true << 0 << none << none << on;
    QTest::newRow("signed out") << S::Connected << S::Disconnected << false << 0 << none << none
                                << none;
}

void HMAppDelegateTest::connectionNotices()
{
    QFETCH(VPNState, from);
    QFETCH(VPNState, to);
    QFETCH(bool, signedIn);
    QFETCH(int, mode);
    QFETCH(QString, closest);
    QFETCH(QString, notice);
    QFETCH(QString, icon);
    Shell shell;
    QVERIFY(shell.start());
    shell.world.store->setValue("notificationsEnabled", true);
    shell.world.account->setCountries({QVariantMap{{"id", "7"}, {"code", "US"}}});
    shell.world.account->setCurrentClosestCountry(closest);
    shell.world.routing->setWisprouteMode(mode);
    shell.rig.vpn->setState(from);
    QVERIFY(shell.delegate->applicationDidFinishLaunching());
    if (signedIn) {
        shell.signIn();
    }
    shell.rig.vpn->setState(to);
    // A notice sent afterwards on the same connection arrives after any the change sent.
    shell.world.center.postNotificationName("HMAPIBlockedNotification");
    const QString blocked = "Hollowmere blocked|Hollowmere can't reach our servers, please "
                            "contact your internet provider.";
    QTRY_VERIFY(shell.delivered.contains(blocked));
    const QStringList expected =
        notice.isEmpty() ? QStringList{blocked} : QStringList{notice, blocked};
    QCOMPARE(shell.delivered, expected);
    QCOMPARE(shell.delegate->applicationIconName(), icon);
}

void HMAppDelegateTest::sessionNotificationsDriveTheWindows()
{
    Shell shell;
    QVERIFY(shell.launched());
    HMMainWindowController *main = shell.delegate->mainWindowController();
    HMUtilityWindowController *utility = shell.delegate->utilityWindowController();
    // No tray watcher on this bus: the main panel is an ordinary window.
    QVERIFY(main->isFallbackMode());
    QVERIFY(utility->isWindowVisible()); // signed out: the launch screen

    // Signed in elsewhere, as hollowmerectl does, with an account still to be verified: the
    // launch screen makes way for the screen that asks for the verification.
    shell.signIn();
    shell.world.account->setAccountVerified(false);
    shell.world.center.postNotificationName(HMAppDelegate::kDidLogInNotification);
    QTRY_VERIFY(qobject_cast<HMVerifyEmailViewController *>(utility->currentScreen()));
    QVERIFY(utility->isWindowVisible());
    QPointer<QWidget> verification = utility->currentScreen();
    shell.world.center.postNotificationName(HMAppDelegate::kDidLogInNotification);
    bool turned = false; // zero-delay timers run in order: this one after the delegate's
    QTimer::singleShot(0, [&turned] { turned = true; });
    QTRY_VERIFY(turned);
    QCOMPARE(utility->currentScreen(), verification.data());

    // Verified, the sign-in window goes away.
    shell.world.account->setAccountVerified(true);
    shell.world.center.postNotificationName(HMAppDelegate::kDidLogInNotification);
    QVERIFY(!utility->isWindowVisible());
    QVERIFY(shell.delegate->menuBarItemController()->isItemShown());
    QVERIFY(main->isWindowVisible());
    auto *hint = main->window()->findChild<QLabel *>();
    QVERIFY(hint && hint->isVisible() && hint->text().contains("tray"));
    QVERIFY(shell.world.store->value(HMAppDelegate::kTrayHintShownKey).toBool());
    QVERIFY(main->window()->grab().save(HMTestEnvironment::buildDir() +
                                        "/tests/gui/shell-tray-less-window.png"));

    shell.world.center.postNotificationName(HMMenuBarItemController::kDidClickNotification);
    QVERIFY(!main->isWindowVisible());
    shell.world.center.postNotificationName(HMMenuBarItemController::kDidClickNotification);
    QVERIFY(main->isWindowVisible());

    QPointer<QWidget> before = utility->currentScreen();
    shell.world.account->logout(); // posts HMDidLogOutNotification
    QVERIFY(!shell.delegate->menuBarItemController()->isItemShown());
    QVERIFY(!main->isWindowVisible());
    QVERIFY(utility->isWindowVisible());
    QVERIFY(utility->currentScreen() && utility->currentScreen() != before);
    QVERIFY(!utility->isAnimating()); // the window was closed: no slide into a new window

    // A screen presented while the window is open slides in: it starts just right of the
    // stage while the old one still fills it, and ends filling it with the old one gone.
    QPointer<QWidget> leaving = utility->currentScreen();
    QSignalSpy slid(utility, &HMUtilityWindowController::slideFinished);
    QPointer<QWidget> next = new QWidget;
    utility->presentViewController(next, HMScreenPresenter::Animation::Slide);
    const QRect stage = utility->stage()->rect();
    QVERIFY(!stage.isEmpty());
    QVERIFY(utility->isAnimating());
    QCOMPARE(next->geometry(), stage.translated(stage.width(), 0));
    QVERIFY(leaving && leaving->geometry() == stage);
    QTRY_COMPARE(slid.count(), 1);
    QVERIFY(!utility->isAnimating());
    QCOMPARE(utility->currentScreen(), next.data());
    QCOMPARE(next->geometry(), stage);
    QVERIFY(next->isVisible());
    QVERIFY(!leaving);
}

void HMAppDelegateTest::focusFollowsTheApplication_data()
{
    QTest::addColumn<bool>("trayLess");
    QTest::newRow("popup panel closes") << false;
    QTest::newRow("tray-less window stays") << true;
}

void HMAppDelegateTest::focusFollowsTheApplication()
{
    QFETCH(bool, trayLess);
    Shell shell;
    QVERIFY(shell.launched());
    shell.signIn();
    shell.world.account->setAccountVerified(false); // the utility window stays, to verify
    shell.world.center.postNotificationName(HMAppDelegate::kDidLogInNotification);
    HMMainWindowController *main = shell.delegate->mainWindowController();
    QWidget *utility = shell.delegate->utilityWindowController()->window();
    QWidget *preferences = shell.delegate->preferenceWindowController()->window();
    main->setFallbackMode(trayLess); // as the tray watcher would when a host appears
    shell.delegate->showPreferencesWisproute();
    QVERIFY(QTest::qWaitForWindowActive(preferences));
    shell.delegate->showMainWindow();
    QVERIFY(QTest::qWaitForWindowActive(main->window()));

    // Another program's window takes the focus, over all of ours.
    QProcess other;
    const QString title = QString("hm-other-%1").arg(QCoreApplication::applicationPid());
    other.start("xmessage", {"-title", title, "-geometry", "1280x800+0+0", "another program"});
    QVERIFY2(other.waitForStarted(), "xmessage is missing (scripts/setup.sh installs it)");
    const auto closeOther = qScopeGuard([&other] {
        other.kill();
        other.waitForFinished();
    });
    QProcess find;
    find.start("xdotool", {"search", "--sync", "--name", "^" + title + "$"});
    QVERIFY2(find.waitForFinished(10000), "xdotool is missing (scripts/setup.sh installs it)");
    const QString otherId =
        xid(QString::fromLatin1(find.readAllStandardOutput()).trimmed().toULongLong());
    QVERIFY(focusFromOutside(otherId));
    QTRY_COMPARE(QGuiApplication::applicationState(), Qt::ApplicationInactive);
    QCOMPARE(main->isWindowVisible(), trayLess);
    QVERIFY(utility->isVisible() && preferences->isVisible());
    QCOMPARE(stackingTopmostFirst().first(), otherId);

    // The user clicks the preferences window: the utility window comes forward with it
    // but the focus stays where the user put it.
    QVERIFY(focusFromOutside(xid(preferences->winId())));
    QTRY_COMPARE(QGuiApplication::applicationState(), Qt::ApplicationActive);
    // The click itself already put the preferences window on top; the utility window's
    // raise follows once the application has seen itself become active.
    const QString utilityId = xid(utility->winId());
    const QString preferencesId = xid(preferences->winId());
    QTRY_VERIFY2(
        [&] {
            const QStringList stack = stackingTopmostFirst();
            return stack.indexOf(preferencesId) == 0 &&
                   stack.indexOf(utilityId) < stack.indexOf(otherId);
        }(),
        qPrintable(stackingTopmostFirst().join(' ')));
    QCOMPARE(QApplication::activeWindow(), preferences);
}

void HMAppDelegateTest::reopenTogglesLikeATrayClick_data()
{
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<bool>("trayLess");
    QTest::addColumn<QString>("panelBefore"); // hidden, shown, minimised
    QTest::addColumn<bool>("panelAfter");
    QTest::newRow("closed panel opens") << true << false << "hidden" << true;
    QTest::newRow("open panel closes") << true << false << "shown" << false;
    QTest::newRow("minimised window is restored") << true << true << "minimised" << true;
    QTest::newRow("window in front is minimised") << true << true << "shown" << false;
    QTest::newRow("signed out: utility window") << false << false << "hidden" << false;
}

void HMAppDelegateTest::reopenTogglesLikeATrayClick()
{
    QFETCH(bool, signedIn);
    QFETCH(bool, trayLess);
    QFETCH(QString, panelBefore);
    QFETCH(bool, panelAfter);
    Shell shell;
    QVERIFY(shell.launched());
    HMMainWindowController *main = shell.delegate->mainWindowController();
    HMUtilityWindowController *utility = shell.delegate->utilityWindowController();
    if (signedIn) {
        shell.signIn();
        shell.world.center.postNotificationName(HMAppDelegate::kDidLogInNotification);
    }
    main->setFallbackMode(trayLess);
    utility->closeWindow();
    main->window()->hide();
    if (panelBefore != "hidden") {
        shell.delegate->showMainWindow();
        QVERIFY(QTest::qWaitForWindowActive(main->window()));
    }
    if (panelBefore == "minimised") {
        main->closeWindow();
        QTRY_VERIFY(!main->isWindowVisible());
    }

    shell.delegate->raise();
    QTRY_COMPARE(main->isWindowVisible(), panelAfter);
    QCOMPARE(utility->isWindowVisible(), !signedIn);
    if (panelAfter) {
        QVERIFY(main->content()); // the real panel, not an empty frame
    }
}

void HMAppDelegateTest::quitAndWakeFollowTheTunnel_data()
{
    QTest::addColumn<VPNState>("state");
    QTest::addColumn<bool>("reachable");
    QTest::addColumn<bool>("reconnects");
    QTest::newRow("connected, network") << VPNState::Connected << true << true;
    QTest::newRow("connected, no network") << VPNState::Connected << false << false;
    QTest::newRow("connecting") << VPNState::Connecting << true << false;
}

void HMAppDelegateTest::quitAndWakeFollowTheTunnel()
{
    QFETCH(VPNState, state);
    QFETCH(bool, reachable);
    QFETCH(bool, reconnects);
    Shell shell;
    shell.reachable = reachable;
    QVERIFY(shell.launched());
    shell.rig.vpn->setState(state);

    shell.delegate->quitHandler();
    const bool wasConnected = state == VPNState::Connected;
    QCOMPARE(shell.world.account->shouldReconnect(), wasConnected);
    QVERIFY(!shell.rig.helper.requests.isEmpty());
    QCOMPARE(shell.rig.helper.requests.first().action, QString("stopVPN"));
    // Written through: a fresh store on the same file sees the flag.
    HMPreferenceStore reread(shell.world.dir.filePath("prefs.json"));
    QCOMPARE(reread.value("shouldReconnect").toBool(), wasConnected);

    shell.rig.states.clear();
    shell.delegate->wakeHandler();
    QCOMPARE(shell.rig.states.contains(VPNState::Connecting), reconnects);
}

void HMAppDelegateTest::nextLaunchReconnectsAfterTheTokenRequest()
{
    Shell shell;
    shell.signIn();
    QVERIFY(shell.launched());
    shell.rig.vpn->setState(VPNState::Connected);
    shell.delegate->quitHandler();

    // The next launch over the same store and keychain. Its token request fails at once (no
    // network as far as the API client knows) without saying "Unknown", so the verified
    // account reconnects once the request has answered.
    shell.rig.vpn->setState(VPNState::Disconnected);
    HMAPIClient api(
        HMDeploymentValues::builtIn(), [] { return false; }, shell.rig.clock, shell.world.center);
    shell.world.account->setAPIClient(&api);
    HMLogCapture log;
    bool answeredBeforeConnecting = false;
    QObject::connect(shell.rig.vpn.get(), &HMVPNManager::stateChanged, [&](VPNState, VPNState now) {
        if (now == VPNState::Connecting) {
            answeredBeforeConnecting = log.contains("No internet connection");
        }
    });
    shell.delegate.reset();
    shell.launch();
    QVERIFY(shell.delegate->applicationDidFinishLaunching());
    QVERIFY(shell.delegate->menuBarItemController()->isItemShown());
    QTRY_VERIFY(shell.rig.states.contains(VPNState::Connecting));
    QVERIFY(answeredBeforeConnecting);
    QVERIFY(shell.world.account->isLoggedIn());
}

void HMAppDelegateTest::sleepDisconnectsFirstAndWakeReconnects()
{
    QProcess logind;
    logind.start(HMTestEnvironment::buildDir() + "/tests/gui/hm-fake-logind", {});
    QVERIFY(logind.waitForStarted());
    QTRY_VERIFY(
        QDBusConnection::sessionBus().interface()->isServiceRegistered("org.freedesktop.login1"));
    QDBusInterface manager("org.freedesktop.login1", "/org/freedesktop/login1",
                           "org.freedesktop.login1.Manager");
    auto held = [&] { return QDBusReply<bool>(manager.call("InhibitorHeld")).value(); };

    Shell shell;
    shell.sleepWatcher = std::make_unique<HMSleepWatcher>(QDBusConnection::sessionBus());
    QVERIFY(shell.launched());
    QTRY_VERIFY(shell.sleepWatcher->holdsInhibitor());
    QVERIFY(held());
    shell.rig.vpn->setState(VPNState::Connected);
    shell.rig.helper.held << "stopVPN"; // the helper takes its time with it

    // Start-up's own requests (the orphaned-tunnel stop among them) are not the sleep's.
    const qsizetype before = shell.rig.helper.requests.size();
    manager.call("Sleep", true);
    QTRY_VERIFY(shell.rig.helper.requests.size() > before);
    QCOMPARE(shell.rig.helper.requests.at(before).action, QString("stopVPN"));
    QVERIFY(shell.world.account->shouldReconnect());
    QVERIFY(held()); // sleep waits for the disconnect
    shell.rig.helper.release("stopVPN");
    QTRY_VERIFY(!held());

    shell.rig.states.clear();
    manager.call("Sleep", false);
    QTRY_VERIFY(shell.rig.states.contains(VPNState::Connecting));
    QTRY_VERIFY(held()); // taken again for the next sleep

    shell.delegate.reset();
    logind.kill();
    logind.waitForFinished();
}

void HMAppDelegateTest::trayLessProgramIsSingleAndQuitsOnSignal()
{
    HMHelperPeerProcess peer;
    QVERIFY2(peer.start(), qPrintable(peer.errorString()));
    peer.setStep("*", QJsonObject{{"reply", QJsonObject{{"status", "ok"}}}});
    const QString program = HMTestEnvironment::buildDir() + "/tests/gui/hm-shell-testapp";
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *folder : {"CONFIG", "STATE", "DATA", "CACHE"}) {
        env.insert(QString("XDG_%1_HOME").arg(folder), home.filePath(folder));
    }
    QProcess first;
    first.setProcessEnvironment(env);
    first.start(program, {peer.socketPath()});
    QVERIFY(first.waitForStarted());
    // Start-up ends with the port check: the helper stand-in has seen it.
    QTRY_VERIFY_WITH_TIMEOUT(peer.actions().contains("checkDNSPortOpen"), 20000);

    QProcess second;
    second.setProcessEnvironment(env);
    second.start(program, {peer.socketPath()});
    QVERIFY(second.waitForFinished(10000));
    QCOMPARE(second.exitCode(), 0);
    QCOMPARE(first.state(), QProcess::Running);
    QVERIFY(QGuiApplication::primaryScreen()->grabWindow(0).save(
        HMTestEnvironment::buildDir() + "/tests/gui/shell-signed-out-desktop.png"));

    ::kill(pid_t(first.processId()), SIGTERM);
    QVERIFY(first.waitForFinished(10000));
    QCOMPARE(first.exitStatus(), QProcess::NormalExit);
    QCOMPARE(first.exitCode(), 0);
    const QString logs = readLogs(home.filePath("STATE"));
    QVERIFY(logs.contains("Raised by a second launch"));
    QVERIFY(logs.contains("Quitting..."));
}

void HMAppDelegateTest::regularExpressionsLeaveNoWritableCode()
{
    // Nor do the programs the application opens inherit the setting.
    QVERIFY(!qEnvironmentVariableIsSet("QT_ENABLE_REGEXP_JIT"));
    const QRegularExpression pattern("^[0-9a-f]{8}\\.[0-9]$");
    for (int i = 0; i < 20; ++i) {
        QVERIFY(pattern.match(QString("%1.0").arg(0x5f0a3c1d + i, 8, 16)).hasMatch());
    }
    const QByteArray maps = HMTestEnvironment::readFile("/proc/self/maps");
    for (const QByteArray &line : maps.split('\n')) {
        QVERIFY2(line.split(' ').value(1) != "rwxp", line.constData());
    }
}

QTEST_MAIN(HMAppDelegateTest)
#include "HMAppDelegateTest.moc"
