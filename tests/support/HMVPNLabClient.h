// The application's core as the VPN lab's tests and benchmarks run it (testing/lab/vpn-lab.sh
// run): every manager the real one, wired to the lab's reference service (sign-in over TLS,
// the block stream), its helper socket and the kernel's reachability, on the private Secret
// Service of tests/support/with-secret-service.sh. Members are made in dependency order and
// torn down in the reverse; tests read them directly. The static half looks at what the
// machine holds (OpenVPN processes, tun devices) for the checks after every lab case.
#pragma once

#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMClosestServerManager.h"
#include "HMDaemonManager.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMReachabilityManager.h"
#include "HMRefService.h"
#include "HMVPNAccountAdapter.h"
#include "HMVPNDaemonAdapter.h"
#include "HMVPNManager.h"
#include "HMVPNReachabilityAdapter.h"
#include "HMVPNRoutingAdapter.h"
#include "HMWisprouteManager.h"

#include <QTemporaryDir>
#include <QTest>
#include <memory>

// For initTestCase: skips outside the lab, then builds the client, waits for the network,
// signs in and runs the start-up DNS-port check, failing the suite where any step fails.
#define HM_START_VPN_LAB(client)                                                                   \
    do {                                                                                           \
        const QString hmSkip = HMVPNLabClient::skipReason();                                       \
        if (!hmSkip.isEmpty()) {                                                                   \
            QSKIP(qPrintable(hmSkip));                                                             \
        }                                                                                          \
        QString hmWhy = HMVPNLabClient::failReason();                                              \
        QVERIFY2(hmWhy.isEmpty() && (client).start(&hmWhy), qPrintable(hmWhy));                    \
    } while (false)

class HMVPNLabClient
{
public:
    // One of the lab's facts (LAB_USER, LAB_SERVER_IP, ...), from the environment.
    static QString lab(const char *fact);
    // Empty when this process runs inside the lab on a private Secret Service; else the
    // reason to skip (or, for a missing Secret Service, to fail).
    static QString skipReason();
    static QString failReason();

    // Isolates the user folders, installs the lab's deployment file and builds the managers.
    bool setUp(QString *why);
    // setUp, then the network, signIn and checkDNSPort.
    bool start(QString *why);
    // For a benchmark program: start() or the reason on stderr and exit status 1; then the
    // full-tunnel form, as the lab's tunnel cases run.
    void startOrExit(const char *program);
    // Signs in with the lab's account and waits for the answer.
    bool signIn(QString *why);
    // What start-up does: the helper's DNS-port check decides the OpenVPN argument form
    // (`proxyInstalled`).
    bool checkDNSPort(QString *why);
    // Switch-on until Connected; false when it was not reached in time.
    bool connectAndWait(int timeoutMs = kConnectTimeoutMs);
    // Takes the tunnel down (if anything is up) and waits for the helper's answer; false when
    // it did not come in time.
    bool disconnectAndWait(int timeoutMs = 20000);

    static constexpr int kConnectTimeoutMs = 45000;

    // Live OpenVPN processes in this network namespace (a zombie holds neither a tun device
    // nor a socket, so it does not count).
    static QList<int> openVPNProcesses();
    // The OpenVPN the helper records as running, while it still is that process; else 0.
    static int trackedOpenVPN();
    static QStringList tunDevices();

    bool proxyInstalled = false;

    std::unique_ptr<QTemporaryDir> home;
    std::unique_ptr<HMPreferenceStore> store;
    HMNotificationCenter center;
    std::unique_ptr<HMWisprouteManager> routing;
    std::unique_ptr<HMAccountManager> account;
    std::unique_ptr<HMReachabilityManager> reachability;
    std::unique_ptr<HMAPIClient> api;
    std::unique_ptr<HMDaemonManager> daemon;
    std::unique_ptr<HMVPNAccountAdapter> accountAdapter;
    std::unique_ptr<HMVPNReachabilityAdapter> reachabilityAdapter;
    std::unique_ptr<HMVPNDaemonAdapter> helper;
    std::unique_ptr<HMVPNRoutingAdapter> routingAdapter;
    std::unique_ptr<HMClosestServerManager> closest;
    std::unique_ptr<HMVPNManager> vpn;
    HMRefService service;
};
