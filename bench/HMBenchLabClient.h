// The whole client as the application wires it, pointed at the VPN lab: preferences in a
// throw-away home, sign-in over TLS to the lab's reference service, the helper over its
// socket, the kernel's reachability. Shared by the lab's benchmark programs, which run inside
// "testing/lab/vpn-lab.sh run --service ... --helper ..." on a private Secret Service.
#pragma once

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMClosestServerManager.h"
#include "HMDaemonManager.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMReachabilityManager.h"
#include "HMVPNAccountAdapter.h"
#include "HMVPNDaemonAdapter.h"
#include "HMVPNManager.h"
#include "HMVPNReachabilityAdapter.h"
#include "HMVPNRoutingAdapter.h"
#include "HMWisprouteManager.h"

#include <QTemporaryDir>
#include <functional>
#include <memory>

namespace HMBench {

QString fact(const char *name);
// Runs the event loop until `done` holds or `ms` pass.
bool spinUntil(const std::function<bool()> &done, int ms);
[[noreturn]] void fail(const char *program, const QString &why);

} // namespace HMBench

class HMBenchLabClient
{
public:
    // Fails the program with a clear message outside the lab or when sign-in fails. The
    // tunnel uses the full-tunnel form, as the application does until the DNS proxy exists.
    explicit HMBenchLabClient(const char *program);

    // Switch-on until Connected, switch-off until the helper has stopped OpenVPN; false
    // when the state was not reached within the time.
    bool switchOn(int timeoutMs = 60000);
    bool switchOff(int timeoutMs = 30000);

    QTemporaryDir home;
    std::unique_ptr<HMPreferenceStore> store;
    HMNotificationCenter center;
    std::unique_ptr<HMWisprouteManager> routing;
    std::unique_ptr<HMAccountManager> account;
    std::unique_ptr<HMReachabilityManager> reachability;
    std::unique_ptr<HMAPIClient> api;
    std::unique_ptr<HMDaemonManager> daemon;
    std::unique_ptr<HMClosestServerManager> closest;
    std::unique_ptr<HMVPNAccountAdapter> accountAdapter;
    std::unique_ptr<HMVPNReachabilityAdapter> reachabilityAdapter;
    std::unique_ptr<HMVPNDaemonAdapter> helper;
    std::unique_ptr<HMVPNRoutingAdapter> routingAdapter;
    std::unique_ptr<HMVPNManager> vpn;
};
