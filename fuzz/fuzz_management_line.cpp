// What OpenVPN's management interface says to the application: each input is one
// transcript, lines ending in "\r\n", fed to the tunnel manager's line handler as it stands,
// with stand-in collaborators. The first byte picks the state the dialogue starts in.
#include "HMVPNManager.h"
#include "HMVPNTestDoubles.h"

#include <QCoreApplication>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz_management_line";
    static char *argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    if (size == 0) {
        return 0;
    }
    HMFakeAccount account;
    account.allowance = 1 << 30;
    HMFakeReachability reachability;
    HMFakeHelper helper;
    HMFakeRouting routing;
    HMFakeClosest closest;
    HMVPNManager::Collaborators collaborators;
    collaborators.account = &account;
    collaborators.reachability = &reachability;
    collaborators.helper = &helper;
    collaborators.routing = &routing;
    collaborators.closest = &closest;
    HMVPNManager manager(collaborators);
    manager.setState(data[0] % 2 ? VPNState::Connected : VPNState::Connecting);

    const QByteArray transcript(reinterpret_cast<const char *>(data) + 1,
                                static_cast<qsizetype>(size - 1));
    for (const QByteArray &line : transcript.split('\n')) {
        manager.processVPNCommand(QString::fromUtf8(line + '\n'));
    }
    QCoreApplication::processEvents();
    return 0;
}
