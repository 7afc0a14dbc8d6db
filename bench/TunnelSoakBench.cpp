// Soak: connect/disconnect cycles through the whole client in the VPN lab, then what was
// left behind.
//
// Runs inside the VPN lab (testing/lab/vpn-lab.sh run --service ... --helper ...) on a private
// Secret Service, like hm-bench-tunnel. One warm-up cycle first (libraries, TLS session,
// caches), then CYCLES switch-on/switch-off cycles. Compared before and after: OpenVPN
// processes in the namespace, this process's open file descriptors, tun devices, the
// namespace's IPv4 routes, and this process's resident memory.
//
//   hm-bench-soak [CYCLES]     (default 100)
#include "HMProcFile.h"
#include "HMVPNLabClient.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <cstdio>

namespace {

struct Snapshot
{
    int openVPNs = 0;
    int descriptors = 0;
    int tunDevices = 0;
    int routes = 0;
    qint64 residentKiB = 0;
};

qint64 residentKiB()
{
    return HMProcFile::fieldKiB(QStringLiteral("/proc/self/status"), "VmRSS:");
}

Snapshot snapshot()
{
    Snapshot s;
    s.openVPNs = int(HMVPNLabClient::openVPNProcesses().size());
    s.descriptors = int(QDir(QStringLiteral("/proc/self/fd"))
                            .entryList(QDir::NoDotAndDotDot | QDir::System)
                            .size());
    s.tunDevices = int(HMVPNLabClient::tunDevices().size());
    QProcess ip;
    ip.start(QStringLiteral("ip"),
             {QStringLiteral("-4"), QStringLiteral("route"), QStringLiteral("show"),
              QStringLiteral("table"), QStringLiteral("all")});
    ip.waitForFinished(5000);
    s.routes = int(ip.readAllStandardOutput().count('\n'));
    s.residentKiB = residentKiB();
    return s;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int cycles = argc > 1 ? std::max(1, QString::fromLocal8Bit(argv[1]).toInt()) : 100;
    HMVPNLabClient lab;
    lab.startOrExit("hm-bench-soak");

    if (!lab.connectAndWait() || !lab.disconnectAndWait()) {
        std::fprintf(stderr, "hm-bench-soak: the warm-up cycle failed\n");
        return 1;
    }
    const Snapshot before = snapshot();
    int failures = 0;
    for (int i = 0; i < cycles; ++i) {
        const bool on = lab.connectAndWait();
        const bool off = lab.disconnectAndWait();
        if (!on || !off || lab.vpn->state() != VPNState::Disconnected) {
            ++failures;
            std::fprintf(stderr, "cycle %d: %s\n", i + 1,
                         !on ? "did not reach Connected" : "did not reach Disconnected");
        }
    }
    // The helper's answer to stopVPN comes once OpenVPN has exited; the device and routes go
    // with it.
    // Not reaching it within the time is itself the finding, reported below.
    (void)QTest::qWaitFor([] { return snapshot().tunDevices == 0; }, 10000);
    const Snapshot after = snapshot();

    std::printf("cycles: %d, failed: %d\n", cycles, failures);
    std::printf("leaked OpenVPN processes: %d\n", after.openVPNs - before.openVPNs);
    std::printf("leaked file descriptors:  %d (%d before, %d after)\n",
                after.descriptors - before.descriptors, before.descriptors, after.descriptors);
    std::printf("leaked tun devices:       %d\n", after.tunDevices - before.tunDevices);
    std::printf("leaked routes:            %d (%d before, %d after)\n",
                after.routes - before.routes, before.routes, after.routes);
    std::printf("resident memory growth:   %lld KiB (%lld KiB before, %lld KiB after)\n",
                after.residentKiB - before.residentKiB, before.residentKiB, after.residentKiB);
    return failures == 0 ? 0 : 1;
}
