#include "HMAppDelegate.h"

#include "HMBundleInfo.h"
#include "HMControlInterface.h"
#include "HMDaemonManager.h"
#include "HMLog.h"
#include "HMLogging.h"
#include "HMMenuBarItemController.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMSignalWatcher.h"
#include "HMVPNManager.h"
#include "HMWisprouteManager.h"

#include <QCoreApplication>
#include <syslog.h>

HMAppDelegate::HMAppDelegate(HMPreferenceStore &store, QObject *parent)
    : QObject(parent), m_store(store)
{}

HMAppDelegate::~HMAppDelegate() = default;

void HMAppDelegate::applicationDidFinishLaunching()
{
    // The banner goes to the system journal, not the application's own file.
    syslog(LOG_NOTICE, "Starting Hollowmere %s", app_version().toUtf8().constData());

    // Watch for SIGTERM before anything is written, so a stop request during start-up
    // still ends in a clean quit instead of the default kill.
    m_signalWatcher = new HMSignalWatcher(this);
    connect(m_signalWatcher, &HMSignalWatcher::quitRequested, this,
            [](int) { QCoreApplication::quit(); });
    const bool watching = m_signalWatcher->watchTerminationSignals();
    connect(qApp, &QCoreApplication::aboutToQuit, this, &HMAppDelegate::quitHandler);

    initializeLogging();
    if (!watching) {
        HMLogError(QStringLiteral("Could not watch for termination signals"));
    }
    migratePreferencesFromOlderVersions(m_store);

    initializeUI();
    startHelperClient();
    HMControlInterface::registerOnSessionBus();
}

// The helper's queue, the VPN manager and the DNS-port check that decides whether selective
// routing is supported; the last steps of the start-up order.
void HMAppDelegate::startHelperClient()
{
    HMDaemonManager &daemon = HMDaemonManager::instance();
    daemon.createCommandQueue();
    HMVPNManager::instance();
    daemon.stopDNSProxy([&daemon](const QVariantMap &, const HMMaybeError &error) {
        if (error) {
            HMLogError(error->description());
        }
        daemon.checkDNSPortOpen([](const QVariantMap &, const HMMaybeError &portError) {
            HMWisprouteManager::instance().setSupported(!portError);
            if (HMControlInterface *control = HMControlInterface::shared()) {
                control->refresh();
            }
        });
    });
}

void HMAppDelegate::initializeLogging()
{
    HMLogging::initializeLogging();
}

void HMAppDelegate::initializeUI()
{
    m_menuBarItem = new HMMenuBarItemController(this);
    m_menuBarItem->show();
}

void HMAppDelegate::quitHandler()
{
    HMLogError(QStringLiteral("Quitting..."));
    m_store.sync();
}
