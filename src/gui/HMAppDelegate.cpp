#include "HMAppDelegate.h"

#include "HMBundleInfo.h"
#include "HMLog.h"
#include "HMLogging.h"
#include "HMMenuBarItemController.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMSignalWatcher.h"

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

    initializeLogging();
    migratePreferencesFromOlderVersions(m_store);

    m_signalWatcher = new HMSignalWatcher(this);
    connect(m_signalWatcher, &HMSignalWatcher::quitRequested, this,
            [](int) { QCoreApplication::quit(); });
    if (!m_signalWatcher->watchTerminationSignals()) {
        HMLogError(QStringLiteral("Could not watch for termination signals"));
    }
    connect(qApp, &QCoreApplication::aboutToQuit, this, &HMAppDelegate::quitHandler);

    initializeUI();
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
