#include "HMAppDelegate.h"

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMBundleInfo.h"
#include "HMClock.h"
#include "HMClosestServerManager.h"
#include "HMControlInterface.h"
#include "HMCountryNames.h"
#include "HMDaemonInstaller.h"
#include "HMDaemonManager.h"
#include "HMDomainListEditor.h"
#include "HMImageView.h"
#include "HMLaunchAtStartupManager.h"
#include "HMLog.h"
#include "HMLogFileManager.h"
#include "HMLogging.h"
#include "HMMainWindowController.h"
#include "HMMemoryRelease.h"
#include "HMMenuBarItemController.h"
#include "HMNotificationCenter.h"
#include "HMNotificationManager.h"
#include "HMPreferenceStore.h"
#include "HMPreferenceWindowController.h"
#include "HMPreferences.h"
#include "HMPrivacyManager.h"
#include "HMReachabilityManager.h"
#include "HMScreenContext.h"
#include "HMScreenFactory.h"
#include "HMSecretServiceKeychain.h"
#include "HMSignalWatcher.h"
#include "HMSleepWatcher.h"
#include "HMTrayHostWatcher.h"
#include "HMUtilityWindowController.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"

#include <QApplication>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <syslog.h>

const QString HMAppDelegate::kDidLogInNotification = QStringLiteral("HMDidLogInNotification");
const QString HMAppDelegate::kTrayHintShownKey = QStringLiteral("trayHintShown");

namespace {

// Every way out (SIGTERM, the session's end, the tray's Quit) ends the event loop with exit,
// not quit: Qt's quit first asks every window to close, and the tray-less window declines
// (closing it only minimises), which would leave the request unanswered.
void quitNow()
{
    QCoreApplication::exit(0);
}

// logind waits at most InhibitDelayMaxSec (5 s by default) anyway; give up a little earlier
// so a helper that does not answer never holds the machine awake until then.
constexpr qint64 kSleepDisconnectCapMs = 4000;
// By then the start-up's one-off work (token request, helper answers, first paints) is
// over and what it freed can go back to the system.
constexpr qint64 kStartupSettledMs = 10000;

bool showHelperRetryDialogDidPressGoBack()
{
    QMessageBox box;
    box.setIcon(QMessageBox::Warning);
    box.setWindowTitle(QStringLiteral("Hollowmere"));
    box.setText(HMDaemonInstaller::kRetryMessage);
    box.setInformativeText(HMDaemonInstaller::kRetryInformative);
    QPushButton *goBack = box.addButton(QStringLiteral("Go Back"), QMessageBox::AcceptRole);
    box.addButton(QStringLiteral("Quit"), QMessageBox::RejectRole);
    box.setDefaultButton(goBack);
    box.setWindowFlag(Qt::WindowStaysOnTopHint);
    box.exec();
    return box.clickedButton() == goBack;
}

} // namespace

void HMAppDelegate::prepareProcess()
{
    // Regular expressions run interpreted: the JIT would keep a writable and executable
    // mapping in a process that parses the network's answers, and its compiler stays
    // resident (0.3 MiB) although no pattern here runs often enough to gain from it. A
    // user's own setting wins.
    if (qEnvironmentVariableIsSet("QT_ENABLE_REGEXP_JIT")) {
        return;
    }
    qputenv("QT_ENABLE_REGEXP_JIT", "0");
    // Qt reads the setting once, when it compiles its first pattern: one is compiled here,
    // and the setting taken out again so that the programs we open (the browser, the file
    // manager) do not inherit it.
    static_cast<void>(QRegularExpression(QStringLiteral("x")).isValid());
    qunsetenv("QT_ENABLE_REGEXP_JIT");
}

HMAppDelegate::Collaborators HMAppDelegate::production()
{
    // A signed-in user's password is first needed when the tray item is made; asked now,
    // the Secret Service's round trips overlap the helper check.
    const QString user = HMPreferenceStore::instance().value(QStringLiteral("username")).toString();
    if (!user.isEmpty()) {
        HMSecretServiceKeychain::shared().prefetchPassword(app_bundle_identifier(), user);
    }
    Collaborators c;
    c.store = &HMPreferenceStore::instance();
    c.account = &HMAccountManager::instance();
    c.vpn = &HMVPNManager::instance();
    c.daemon = &HMDaemonManager::instance();
    c.routing = &HMWisprouteManager::instance();
    c.notifications = &HMNotificationManager::instance();
    c.center = &HMNotificationCenter::defaultCenter();
    c.clock = &HMClock::system();
    c.reachable = [] { return HMReachabilityManager::instance().isReachable(); };
    c.refreshClosest = [] {
        HMClosestServerManager::instance().isClosestEnabledWithCompletion(
            [](bool, const HMMaybeError &) {});
    };
    c.initializeDaemons = [] {
        // A helper of one's own (the demo's lab, a development tree) is not the installed
        // one and cannot pass the installation checks; it still checks every caller itself.
        if (!qEnvironmentVariableIsEmpty("HOLLOWMERE_HELPER_SOCKET")) {
            HMDaemonManager::instance().createCommandQueue();
            HMLogError(QStringLiteral("Using the helper at %1 as given; its installation is not "
                                      "checked")
                           .arg(qEnvironmentVariable("HOLLOWMERE_HELPER_SOCKET")));
            return HMMaybeError();
        }
        HMDaemonInstaller::Environment env = HMDaemonInstaller::Environment::production();
        env.retryDialog = showHelperRetryDialogDidPressGoBack;
        HMDaemonInstaller installer(HMDaemonManager::instance(), env);
        return installer.initializeDaemons();
    };
    c.whenAccountReadable = [](QObject *context, std::function<void()> ready) {
        HMSecretServiceKeychain::shared().whenPrefetched(context, std::move(ready));
    };
    c.countryName = [](const QString &code) { return HMCountryNames::getCountryForCode(code); };
    c.countryImage = [](const QString &code) { return HMCountryNames::imageNameForCountry(code); };
    c.hostWatcher = new HMTrayHostWatcher(QDBusConnection::sessionBus(), qApp);
    c.sleepWatcher = new HMSleepWatcher(QDBusConnection::systemBus(), qApp);
    c.notifications->setImageRenderer([](const QString &name) {
        return HMImageView::imageNamed(name).pixmap(128, 128).toImage();
    });
    return c;
}

HMAppDelegate::HMAppDelegate(std::function<Collaborators()> collaborators, QObject *parent)
    : QObject(parent), m_provider(std::move(collaborators))
{}

HMAppDelegate::~HMAppDelegate()
{
    if (m_c.center) {
        for (quint64 token : std::as_const(m_observers)) {
            m_c.center->removeObserver(token);
        }
    }
    delete m_menuBarItem;
    delete m_mainWindow;
    delete m_utilityWindow;
    delete m_preferences;
}

bool HMAppDelegate::applicationDidFinishLaunching()
{
    // The banner goes to the system journal, not the application's own file.
    syslog(LOG_NOTICE, "Starting Hollowmere %s", app_version().toUtf8().constData());

    // Watch for SIGTERM before anything is written, so a stop request during start-up
    // still ends in a clean quit instead of the default kill.
    m_signalWatcher = new HMSignalWatcher(this);
    connect(m_signalWatcher, &HMSignalWatcher::quitRequested, this, [](int) { quitNow(); });
    const bool watching = m_signalWatcher->watchTerminationSignals();

    initializeLogging();
    if (!watching) {
        HMLogError(QStringLiteral("Could not watch for termination signals"));
    }
    m_c = m_provider();
    migratePreferencesFromOlderVersions(*m_c.store);
    if (!initializeDaemon()) {
        return false;
    }
    if (m_c.whenAccountReadable) {
        m_c.whenAccountReadable(this, [this] { finishLaunching(); });
    } else {
        finishLaunching();
    }
    return true;
}

void HMAppDelegate::finishLaunching()
{
    registerForNotifications();
    initializeUI();
    startKVO();
    checkSelectiveRouting();
    // The privacy manager follows the tunnel from the start, whether or not its pane opens.
    HMPrivacyManager::instance();
    if (HMControlInterface::registerOnSessionBus()) {
        wireControlInterface(*HMControlInterface::shared());
    }
    (m_c.clock ? *m_c.clock : HMClock::system()).singleShot(kStartupSettledMs, this, [] {
        HMMemoryRelease::releaseUnusedMemory();
    });
    m_launched = true;
}

void HMAppDelegate::initializeLogging()
{
    HMLogging::initializeLogging();
}

bool HMAppDelegate::initializeDaemon()
{
    const HMMaybeError error = m_c.initializeDaemons ? m_c.initializeDaemons() : std::nullopt;
    if (error) {
        HMLogError(error->description());
        HMLogError(QStringLiteral("Quitting..."));
        return false;
    }
    return true;
}

void HMAppDelegate::registerForNotifications()
{
    connect(qApp, &QCoreApplication::aboutToQuit, this, &HMAppDelegate::quitHandler);
    // The session manager asks before the session ends; a tray application just quits.
    connect(qApp, &QGuiApplication::commitDataRequest, this, &quitNow);
    if (m_c.sleepWatcher) {
        connect(m_c.sleepWatcher, &HMSleepWatcher::willSleep, this, &HMAppDelegate::sleepHandler);
        connect(m_c.sleepWatcher, &HMSleepWatcher::didWake, this, &HMAppDelegate::wakeHandler);
        m_c.sleepWatcher->start();
    }
    const QList<QPair<QString, void (HMAppDelegate::*)()>> table = {
        {kDidLogInNotification, &HMAppDelegate::doLogin},
        {HMAccountManager::kDidLogOutNotification, &HMAppDelegate::doLogout},
        {HMMenuBarItemController::kDidClickNotification, &HMAppDelegate::didClickMenuBarIcon},
        {HMAPIClient::kBlockedNotification, &HMAppDelegate::showHMBlockedError},
    };
    for (const auto &[name, handler] : table) {
        m_observers << m_c.center->addObserverForName(
            name, [this, handler = handler] { (this->*handler)(); });
    }
    connect(qApp, &QGuiApplication::applicationStateChanged, this,
            &HMAppDelegate::applicationStateChanged);
}

void HMAppDelegate::initializeUI()
{
    HMScreenContext screens = HMScreenContext::shared();
    screens.account = m_c.account;
    screens.vpn = m_c.vpn;
    screens.routing = m_c.routing;
    screens.center = m_c.center;
    screens.store = m_c.store;
    screens.showPreferencesGeneral = [this] { showPreferencesGeneral(); };
    screens.showPreferencesWisproute = [this] { showPreferencesWisproute(); };
    screens.showDiagnostics = [this] { showDiagnostics(); };
    screens.launchOnStartup = [] { return HMLaunchAtStartupManager::instance().launchOnStartup(); };
    screens.setLaunchOnStartup = [](bool on) {
        HMLaunchAtStartupManager::instance().setLaunchOnStartup(on);
    };
    HMScreenFactory::setContext(screens);

    HMMenuBarItemController::Collaborators item;
    item.vpn = m_c.vpn;
    item.routing = m_c.routing;
    item.account = m_c.account;
    item.center = m_c.center;
    item.clock = m_c.clock;
    item.hostWatcher = m_c.hostWatcher;
    item.countryName = m_c.countryName;
    m_menuBarItem = new HMMenuBarItemController(item);
    // The tray icon comes before the windows are built: it is what the user waits for.
    // The fallback decision needs the main window and is taken once it exists (below).
    if (m_c.hostWatcher) {
        m_c.hostWatcher->start();
    }
    if (m_c.account->isLoggedIn()) {
        m_menuBarItem->showItem();
    }

    m_mainWindow = new HMMainWindowController;
    m_utilityWindow = new HMUtilityWindowController;

    connect(m_menuBarItem, &HMMenuBarItemController::openPanelRequested, this,
            &HMAppDelegate::showMainWindow);
    connect(m_menuBarItem, &HMMenuBarItemController::preferencesRequested, this,
            &HMAppDelegate::showPreferencesGeneral);
    connect(m_menuBarItem, &HMMenuBarItemController::diagnosticsRequested, this,
            &HMAppDelegate::showDiagnostics);
    connect(m_menuBarItem, &HMMenuBarItemController::quitRequested, this, &quitNow);
    if (m_c.hostWatcher) {
        connect(m_c.hostWatcher, &HMTrayHostWatcher::hostChanged, this,
                &HMAppDelegate::updateTrayFallback);
    }

    // Under auto-login the keyring is often still locked here and the account reads as
    // signed out; once it unlocks, the account is restored as if it had been there at start.
    connect(m_c.account, &HMAccountManager::accountRestoredFromKeychain, this,
            &HMAppDelegate::restoreSignedInAccount);
    if (m_c.account->isLoggedIn()) {
        restoreSignedInAccount();
    } else {
        m_c.vpn->stopOrphanedTunnel([] {});
        m_utilityWindow->presentViewController(
            HMScreenFactory::createLaunchScreen(*m_utilityWindow),
            HMScreenPresenter::Animation::None);
        m_utilityWindow->showWindow();
    }
    if (m_c.refreshClosest) {
        m_c.refreshClosest();
    }
    updateTrayFallback();
}

HMPreferenceWindowController *HMAppDelegate::preferenceWindowController()
{
    if (!m_preferences) {
        m_preferences = new HMPreferenceWindowController;
    }
    return m_preferences;
}

void HMAppDelegate::restoreSignedInAccount()
{
    m_menuBarItem->showItem();
    QPointer<HMAppDelegate> self(this);
    m_c.account->loginGetToken(false, [self](const HMMaybeError &error) {
        if (self) {
            self->tokenRequestDidFinish(error);
        }
    });
}

void HMAppDelegate::tokenRequestDidFinish(const HMMaybeError &error)
{
    if (error && error->description().contains(QLatin1String("Unknown"))) {
        m_c.account->logout();
    } else if (m_c.account->isAccountVerified()) {
        // A tunnel an earlier run left (crash, kill) is stopped before deciding to reconnect.
        QPointer<HMAppDelegate> self(this);
        m_c.vpn->stopOrphanedTunnel([self] {
            if (self) {
                self->reconnectIfNecessary();
            }
        });
    } else {
        m_utilityWindow->presentViewController(
            HMScreenFactory::createVerifyEmailScreen(*m_utilityWindow),
            HMScreenPresenter::Animation::None);
        m_utilityWindow->showWindow();
    }
}

void HMAppDelegate::updateTrayFallback()
{
    const bool fallback = m_c.hostWatcher && !m_c.hostWatcher->hasHost();
    const bool wasFallback = m_mainWindow->isFallbackMode();
    m_mainWindow->setFallbackMode(fallback);
    if (!fallback) {
        if (wasFallback) {
            m_mainWindow->window()->hide(); // the tray icon takes over
        }
        return;
    }
    if (!m_c.store->value(kTrayHintShownKey).toBool()) {
        m_c.store->setValue(kTrayHintShownKey, true);
        HMLogError(QStringLiteral("No system tray: Hollowmere shows its window instead"));
        m_mainWindow->showHint(
            tr("This desktop shows no tray icons, so Hollowmere lives in this window. To get "
               "the Hollowmere icon in the panel, turn on your desktop's tray "
               "(StatusNotifierItem) support; closing this window only minimises it."));
    }
    if (m_menuBarItem->isItemShown()) {
        m_mainWindow->showWindow();
    }
}

void HMAppDelegate::startKVO()
{
    connect(m_c.vpn, &HMVPNManager::stateChanged, this, &HMAppDelegate::vpnStateDidChange);
    connect(m_c.routing, &HMWisprouteManager::wisprouteModeChanged, this, [this] {
        if (m_c.vpn->isConnected()) {
            updateApplicationIcon();
        }
    });
}

void HMAppDelegate::checkSelectiveRouting()
{
    // Replies arrive later on the main thread; the controller may be gone by then in tests.
    QPointer<HMAppDelegate> self(this);
    m_c.daemon->stopDNSProxy([self](const QVariantMap &, const HMMaybeError &error) {
        if (error) {
            HMLogError(error->description());
        }
        if (!self) {
            return;
        }
        self->m_c.daemon->checkDNSPortOpen(
            [self](const QVariantMap &, const HMMaybeError &portError) {
                if (self) {
                    self->m_c.routing->setSupported(!portError);
                    if (HMControlInterface *control = HMControlInterface::shared()) {
                        control->refresh();
                    }
                }
            });
    });
}

void HMAppDelegate::quitHandler()
{
    if (m_quitHandled) {
        return;
    }
    m_quitHandled = true;
    HMLogError(QStringLiteral("Quitting..."));
    m_c.account->setShouldReconnect(m_c.vpn->state() == VPNState::Connected);
    m_c.vpn->disconnect();
    // The asynchronous disconnect would die with the process: write the helper's stop
    // requests now (bounded, no reply awaited) so no OpenVPN outlives the application.
    m_c.vpn->stopBeforeExit();
    m_c.account->synchronize();
    m_c.store->sync();
}

void HMAppDelegate::sleepHandler()
{
    m_c.account->setShouldReconnect(m_c.vpn->state() == VPNState::Connected);
    HMSleepWatcher *watcher = m_c.sleepWatcher;
    m_c.vpn->disconnectWithCompletion([watcher](const HMMaybeError &) {
        if (watcher) {
            watcher->releaseInhibitor();
        }
    });
    if (watcher) {
        (m_c.clock ? *m_c.clock : HMClock::system())
            .singleShot(kSleepDisconnectCapMs, watcher, [watcher] { watcher->releaseInhibitor(); });
    }
}

void HMAppDelegate::wakeHandler()
{
    reconnectIfNecessary();
}

void HMAppDelegate::reconnectIfNecessary()
{
    // shouldReconnect stays set: the VPN manager clears it on its own path.
    if (m_c.account->shouldReconnect() && m_c.reachable && m_c.reachable()) {
        m_c.vpn->connect();
    }
}

void HMAppDelegate::wireControlInterface(HMControlInterface &control)
{
    control.setDomainCleaner(&HMDomainListEditor::validateDomain);
    control.setDiagnosticsSender(
        [](const QString &feedback, const HMControlInterface::Completion &done) {
            // After a helper error the collection completes twice, the error first; the
            // caller on the bus gets one answer, the upload's.
            auto answered = std::make_shared<bool>(false);
            HMLogFileManager::instance().sendLogsWithFeedback(
                feedback, [done, answered](const HMMaybeError &error) {
                    if (!*answered) {
                        *answered = true;
                        done(error);
                    }
                });
        });
    HMPrivacyManager &privacy = HMPrivacyManager::instance();
    control.setPrivacyBackend(
        [&privacy] {
            QVariantMap blocked{{QStringLiteral("Facebook"), privacy.numFacebookBlocked()},
                                {QStringLiteral("Twitter"), privacy.numTwitterBlocked()},
                                {QStringLiteral("LinkedIn"), privacy.numLinkedinBlocked()}};
            for (const QVariant &category : privacy.blockedContent()) {
                const QVariantMap node = category.toMap();
                uint total = 0;
                for (const QVariant &item : node.value(QStringLiteral("children")).toList()) {
                    total += item.toMap().value(QStringLiteral("count")).toUInt();
                }
                blocked.insert(node.value(QStringLiteral("name")).toString(), total);
            }
            return QVariantMap{{QStringLiteral("enabled"), privacy.isEnabled()},
                               {QStringLiteral("facebook"), privacy.isFacebookEnabled()},
                               {QStringLiteral("twitter"), privacy.isTwitterEnabled()},
                               {QStringLiteral("linkedin"), privacy.isLinkedinEnabled()},
                               {QStringLiteral("blocked"), blocked}};
        },
        [&privacy](const QString &filter, bool on, const HMControlInterface::Completion &done) {
            // The service's answer is only logged, as for the pane's switches.
            if (filter.isEmpty()) {
                privacy.setEnabled(on);
            } else if (filter == QLatin1String("facebook")) {
                privacy.setFacebookEnabled(on);
            } else if (filter == QLatin1String("twitter")) {
                privacy.setTwitterEnabled(on);
            } else if (filter == QLatin1String("linkedin")) {
                privacy.setLinkedinEnabled(on);
            }
            done(HMMaybeError());
        });
    for (auto signal :
         {&HMPrivacyManager::enabledChanged, &HMPrivacyManager::facebookEnabledChanged,
          &HMPrivacyManager::twitterEnabledChanged, &HMPrivacyManager::linkedinEnabledChanged}) {
        connect(&privacy, signal, &control, &HMControlInterface::refresh);
    }
    connect(&privacy, &HMPrivacyManager::countersChanged, &control, &HMControlInterface::refresh);
    connect(&privacy, &HMPrivacyManager::blockedContentChanged, &control,
            &HMControlInterface::refresh);
}
