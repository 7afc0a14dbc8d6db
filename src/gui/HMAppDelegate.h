// The application controller: brings the client up in a fixed order, reacts to the
// tunnel's state, and takes it down cleanly.
//
// Start-up: banner to the system journal, logging, preference migration, the helper check
// and repair (a failure quits), a wait on the event loop until a signed-in user's password
// can be read (a locked keyring shows its unlock prompt meanwhile), the observers (quit,
// sleep, wake, sign-in and sign-out, tray click, service blocked), the tray item (first,
// for a signed-in user: it is what the user waits for), the window controllers, the restore
// of a signed-in account (a token request whose answer signs out, reconnects or asks for
// the e-mail verification), the closest-server check, observation of "state" and
// "wisprouteMode", and last the helper's "stopDNSProxy" then "checkDNSPortOpen", whose
// answer decides whether selective routing is supported. The update framework, crash
// reporter and move-to-Applications steps have no Linux counterpart and are skipped; the
// order of the rest is kept. SIGTERM, SIGINT and the session's end quit through the same
// handler as the tray's Quit entry; nothing at quit waits for the helper.
//
// Collaborators are injected (production() wires the process-wide managers), so a test
// runs the whole start-up against its own store, helper and notification server.
#pragma once

#include "HMError.h"
#include "HMVPNState.h"

#include <QObject>
#include <QString>
#include <functional>

class HMAccountManager;
class HMClock;
class HMControlInterface;
class HMDaemonManager;
class HMInstanceGuard;
class HMMainWindowController;
class HMMenuBarItemController;
class HMNotificationCenter;
class HMNotificationManager;
class HMPreferenceStore;
class HMPreferenceWindowController;
class HMSignalWatcher;
class HMSleepWatcher;
class HMTrayHostWatcher;
class HMUtilityWindowController;
class HMVPNManager;
class HMWisprouteManager;

class HMAppDelegate : public QObject
{
    Q_OBJECT
public:
    static const QString kDidLogInNotification; // "HMDidLogInNotification"
    static const QString kTrayHintShownKey;     // "trayHintShown"

    struct Collaborators
    {
        HMPreferenceStore *store = nullptr;
        HMAccountManager *account = nullptr;
        HMVPNManager *vpn = nullptr;
        HMDaemonManager *daemon = nullptr;
        HMWisprouteManager *routing = nullptr;
        HMNotificationManager *notifications = nullptr;
        HMNotificationCenter *center = nullptr;
        HMClock *clock = nullptr;
        std::function<bool()> reachable;
        std::function<void()> refreshClosest;
        // The helper check and repair; nothing when the helper is fine.
        std::function<HMMaybeError()> initializeDaemons;
        // Optional: without them there is no tray (the window serves) and no sleep notice.
        HMTrayHostWatcher *hostWatcher = nullptr;
        HMSleepWatcher *sleepWatcher = nullptr;
        // Country names and pictures; the code itself and "alert_happy" without them.
        std::function<QString(const QString &code)> countryName;
        std::function<QString(const QString &code)> countryImage;
        // Optional: calls ready (not if context is gone) once the account's password can be
        // read without waiting; without it start-up goes on at once.
        std::function<void(QObject *context, std::function<void()> ready)> whenAccountReadable;
    };

    static Collaborators production();

    // Process-wide settings that must be in place before the QApplication is made.
    static void prepareProcess();

    // The collaborators are asked for once logging is set up, so that nothing they do at
    // construction escapes the log.
    explicit HMAppDelegate(std::function<Collaborators()> collaborators, QObject *parent = nullptr);
    ~HMAppDelegate() override;

    // False when start-up ended in "Quitting..." (the helper could not be installed). The
    // rest of start-up may still be waiting for the account (isLaunched()).
    bool applicationDidFinishLaunching();
    bool isLaunched() const { return m_launched; }

    // Handlers of the notification table.
    void quitHandler();
    void sleepHandler();
    void wakeHandler();
    void doLogin();
    void doLogout();
    void didClickMenuBarIcon();
    void showHMBlockedError();
    void reconnectIfNecessary();

    // Window commands for menus and screens.
    void showMainWindow();
    void hideMainWindow();
    void hideUtilWindow();
    void hidePreferenceWindow();
    void showPreferencesGeneral();
    void showPreferencesWisproute();
    void showPreferencesAccount();
    void showDiagnostics();
    // A second launch of the application (single instance): logged, then reopen().
    void raise();
    // The desktop asks for the application again: toggles the main panel as a tray click
    // does (signed out, shows the utility window instead).
    void reopen();

    HMMenuBarItemController *menuBarItemController() const { return m_menuBarItem; }
    HMMainWindowController *mainWindowController() const { return m_mainWindow; }
    HMUtilityWindowController *utilityWindowController() const { return m_utilityWindow; }
    // Built on first use: its panes lay out text and read the autostart folder, costs an
    // idle tray application should not carry.
    HMPreferenceWindowController *preferenceWindowController();
    // The name of the window icon the tunnel's state chose ("" for the default).
    QString applicationIconName() const { return m_iconName; }

private:
    void initializeLogging();
    bool initializeDaemon();
    void finishLaunching();
    void registerForNotifications();
    void initializeUI();
    void startKVO();
    void checkSelectiveRouting();
    void wireControlInterface(HMControlInterface &control);
    void restoreSignedInAccount();
    void tokenRequestDidFinish(const HMMaybeError &error);
    void updateTrayFallback();
    void applicationStateChanged(Qt::ApplicationState state);

    void vpnStateDidChange(VPNState oldState, VPNState newState);
    void updateApplicationIcon();
    void sendNotification(const QString &title, const QString &text, const QString &image);

    std::function<Collaborators()> m_provider;
    Collaborators m_c;
    HMSignalWatcher *m_signalWatcher = nullptr;
    HMMenuBarItemController *m_menuBarItem = nullptr;
    HMMainWindowController *m_mainWindow = nullptr;
    HMUtilityWindowController *m_utilityWindow = nullptr;
    HMPreferenceWindowController *m_preferences = nullptr;
    QList<quint64> m_observers;
    QString m_iconName;
    bool m_quitHandled = false;
    bool m_launched = false;
};
