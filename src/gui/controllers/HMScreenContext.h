// What the screens work with: the managers they show and drive, the notification centre
// they post to, and the window commands that belong to the application controller.
//
// shared() wires the process-wide instances; tests build a context of their own over
// managers they constructed. The window commands are empty until the application
// controller fills them in; a screen hides the control for a command it was not given.
#pragma once

#include <functional>

class HMAPIClient;
class HMAccountManager;
class HMNotificationCenter;
class HMPreferenceStore;
class HMVPNManager;
class HMWisprouteManager;

struct HMScreenContext
{
    HMAccountManager *account = nullptr;
    HMVPNManager *vpn = nullptr;
    HMAPIClient *api = nullptr;
    HMWisprouteManager *routing = nullptr;
    HMNotificationCenter *center = nullptr;
    HMPreferenceStore *store = nullptr;

    // Window commands of the application controller.
    std::function<void()> showPreferencesGeneral;
    std::function<void()> showPreferencesWisproute;
    std::function<void()> showDiagnostics;

    // Launch at login lives with the session's autostart entries, not in the preferences.
    std::function<bool()> launchOnStartup;
    std::function<void(bool)> setLaunchOnStartup;

    // Every manager's process-wide instance; window commands and launch at login empty.
    static HMScreenContext shared();
};

// Posted by the sign-in and create-account screens after a successful sign-in, and by
// the main panel when the user switches the tunnel off.
extern const char *const kHMDidLogInNotification;         // "HMDidLogInNotification"
extern const char *const kHMDidSwitchDialOffNotification; // "HMDidSwitchDialOffNotification"
