// One VPN manager with every collaborator faked, a manual clock and a private notification
// centre, plus the fake management server it can be pointed at.
#pragma once

#include "HMManualClock.h"
#include "HMNotificationCenter.h"
#include "HMVPNManager.h"
#include "HMVPNTestDoubles.h"

#include <QTest>
#include <memory>

constexpr qint64 kMiB = 1024 * 1024;

struct HMVPNTestRig
{
    HMManualClock clock;
    HMNotificationCenter center;
    HMFakeAccount account;
    HMFakeReachability reachability;
    HMFakeHelper helper;
    HMFakeRouting routing;
    HMFakeClosest closest;
    HMFakeManagementServer server;
    std::unique_ptr<HMVPNManager> vpn;
    QList<VPNState> states; // every store after construction, in order
    int didStartConnecting = 0;
    int connectionDidFail = 0;
    int outOfData = 0;

    explicit HMVPNTestRig(qint64 accountAllowance = 100 * kMiB)
    {
        account.allowance = accountAllowance;
        HMVPNManager::Collaborators c;
        c.account = &account;
        c.reachability = &reachability;
        c.helper = &helper;
        c.routing = &routing;
        c.closest = &closest;
        c.clock = &clock;
        c.notifications = &center;
        c.managementSocket = server.path();
        vpn = std::make_unique<HMVPNManager>(c);
        QObject::connect(vpn.get(), &HMVPNManager::stateChanged,
                         [this](VPNState, VPNState now) { states.append(now); });
        center.addObserverForName(HMVPNManager::kDidStartConnectingNotification,
                                  [this] { ++didStartConnecting; });
        center.addObserverForName(HMVPNManager::kConnectionDidFailNotification,
                                  [this] { ++connectionDidFail; });
        center.addObserverForName(HMVPNManager::kOutOfDataNotification, [this] { ++outOfData; });
    }

    ~HMVPNTestRig() { vpn.reset(); }

    // Opens the management connection and plays OpenVPN's greeting; true once the manager
    // has sent its five opening commands.
    bool attach()
    {
        if (vpn->connectVPN()) {
            return false;
        }
        if (!QTest::qWaitFor([this] { return server.hasClient(); }, 5000)) {
            return false;
        }
        server.sendLines({QStringLiteral(
            ">INFO:OpenVPN Management Interface Version 5 -- type 'help' for more info")});
        return QTest::qWaitFor([this] { return server.commands().size() >= 5; }, 5000);
    }

    // Commands the manager sent after the opening five.
    QStringList laterCommands() const { return server.commands().mid(5); }

    // Sends a hold line behind whatever the test sent and waits for its "hold release": by
    // then every earlier line has been handled. False when the connection went away.
    bool sync()
    {
        const auto releases = [this] {
            return server.commands().count(QStringLiteral("hold release"));
        };
        const qsizetype before = releases();
        server.sendLines({QStringLiteral(">HOLD:Waiting for hold release:0")});
        return QTest::qWaitFor([&] { return releases() > before || !vpn->socket(); }, 5000) &&
               vpn->socket();
    }

    // Runs the answers the fakes queued (they arrive through the event loop).
    static void settle()
    {
        for (int i = 0; i < 20; ++i) {
            QCoreApplication::processEvents();
        }
    }
};
