// hm-bench-diagnostics: time and peak memory to collect the diagnostics and zip them.
//
//   hm-bench-diagnostics [--runs N]      (default N = 20; needs systemd-socket-activate)
//
// Full-size inputs: an application log filled to its roll size (100 KiB), a helper stand-in
// (the scripted peer under systemd-socket-activate, on a real socket) answering "getLogs"
// with three logs at the helper's cap (128 KiB each) of OpenVPN-like lines, compressed as
// the helper sends them, a preference
// store of realistic size, and the real network reports of this machine. Each run times the
// collection (helper exchange, files, reports, each member deflated at level 9 as it comes)
// and the archive (the compressed members stored as they are), and reads
// the growth of the peak resident size over the run (VmHWM, reset before each run through
// /proc/self/clear_refs, with large buffers given back to the system when freed). The same members
// are zipped by the zip command at -9 in the same run as the reference the archive writer is
// compared against.
#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMDaemonManager.h"
#include "HMHelperPeerProcess.h"
#include "HMLog.h"
#include "HMLogDeflater.h"
#include "HMLogFileManager.h"
#include "HMLogging.h"
#include "HMProcFile.h"
#include "HMRollingFileSink.h"
#include "HMTestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QThreadPool>
#include <algorithm>
#include <cstdio>
#include <malloc.h>
#include <vector>

namespace {

qint64 statusKiB(const char *field)
{
    return HMProcFile::fieldKiB(QStringLiteral("/proc/self/status"), field);
}

void resetPeak()
{
    QFile refs(QStringLiteral("/proc/self/clear_refs"));
    if (refs.open(QIODevice::WriteOnly)) {
        refs.write("5");
    }
}

// Lines that vary the way real logs do (times, counters, addresses), so deflate works as
// hard as on a user's logs.
QString logText(qint64 bytes, const char *kind)
{
    auto *random = QRandomGenerator::global();
    QString text;
    int second = 0;
    while (text.size() < bytes) {
        ++second;
        text += QStringLiteral("2026-11-23 %1:%2:%3 %4 ")
                    .arg(10 + second / 3600, 2, 10, QLatin1Char('0'))
                    .arg(second / 60 % 60, 2, 10, QLatin1Char('0'))
                    .arg(second % 60, 2, 10, QLatin1Char('0'))
                    .arg(QLatin1String(kind));
        switch (random->bounded(4)) {
        case 0:
            text += QStringLiteral("TCP/UDP: Preserving recently used remote address: "
                                   "[AF_INET]198.51.100.%1:1194\n")
                        .arg(random->bounded(255));
            break;
        case 1:
            text += QStringLiteral("Data Channel: using negotiated cipher 'AES-256-GCM' "
                                   "(%1 bytes in, %2 bytes out)\n")
                        .arg(random->bounded(1 << 30))
                        .arg(random->bounded(1 << 30));
            break;
        case 2:
            text += QStringLiteral("MANAGEMENT: >STATE:%1,CONNECTED,SUCCESS,10.8.0.%2,"
                                   "198.51.100.7,1194,,\n")
                        .arg(1795224601 + second)
                        .arg(random->bounded(255));
            break;
        default:
            text += QStringLiteral("peer info: IV_VER=2.6.3 IV_PLAT=linux IV_TCPNL=1 "
                                   "IV_MTU=%1 IV_NCP=2\n")
                        .arg(1400 + random->bounded(100));
        }
    }
    text.truncate(bytes);
    return text;
}

struct Series
{
    std::vector<double> values;
    double quantile(double q) const
    {
        std::vector<double> sorted = values;
        std::sort(sorted.begin(), sorted.end());
        if (sorted.empty()) {
            return 0;
        }
        return sorted[static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5)];
    }
};

} // namespace

int main(int argc, char **argv)
{
    // Buffers above 64 KiB get pages of their own that go back to the system when freed, so
    // each run's peak growth counts what that run holds, not what earlier runs left cached.
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    mallopt(M_TRIM_THRESHOLD, 0);
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsEmpty("HM_BUILD_DIR")) {
        // Run straight from the build tree (ctest sets it): the helper stand-in lives there.
        qputenv("HM_BUILD_DIR",
                QFile::encodeName(
                    QDir(app.applicationDirPath() + QStringLiteral("/..")).canonicalPath()));
    }
    int runs = 20;
    const QStringList arguments = app.arguments();
    if (const qsizetype at = arguments.indexOf(QStringLiteral("--runs")); at > 0) {
        runs = std::max(1, arguments.value(at + 1).toInt());
    }
    if (HMTestEnvironment::findProgram(QStringLiteral("systemd-socket-activate")).isEmpty()) {
        std::fprintf(stderr, "hm-bench-diagnostics: needs systemd-socket-activate\n");
        return 2;
    }
    auto home = HMTestEnvironment::isolateUserDirectories();

    HMLogging::initializeLogging(home->filePath(QStringLiteral("logs")));
    const auto logger = HMLogging::fileLogger();
    const QString filler = logText(200, "app");
    while (QFileInfo(logger->currentLogFilePath()).size() <
           HMLogging::kMaximumFileSize - 2 * filler.size()) {
        HMLogError(filler.left(120 + QRandomGenerator::global()->bounded(80)));
        logger->flush();
    }

    constexpr qint64 kHelperLogBytes = 128 * 1024;
    HMHelperPeerProcess peer;
    if (!peer.start()) {
        std::fprintf(stderr, "hm-bench-diagnostics: %s\n", qPrintable(peer.errorString()));
        return 2;
    }
    const auto helperLog = [](const char *kind) {
        return HMLogDeflater::deflate(logText(kHelperLogBytes, kind).toUtf8()).toWire();
    };
    peer.setCborReply(QStringLiteral("getLogs"),
                      QCborMap{{QStringLiteral("status"), QStringLiteral("ok")},
                               {QStringLiteral("vpnLog"), helperLog("openvpn")},
                               {QStringLiteral("daemonLog"), helperLog("hmwispd")},
                               {QStringLiteral("dnsLog"), helperLog("wisproute")}});

    HMAccountWorld world;
    for (int i = 0; i < 40; ++i) {
        world.store->setValue(QStringLiteral("setting%1").arg(i),
                              QStringLiteral("value %1").arg(i));
    }
    world.store->setValue(QStringLiteral("domains"), QStringList{QStringLiteral("example.com"),
                                                                 QStringLiteral("example.net")});
    HMDaemonManager::Paths paths;
    paths.socketPath = peer.socketPath();
    HMDaemonManager daemon(*world.store, world.account.get(), world.routing.get(), paths);
    daemon.createCommandQueue();
    HMNotificationCenter center;
    HMAPIClient api(
        HMDeploymentValues::builtIn(), [] { return false; }, HMClock::system(), center);
    HMLogFileOptions options;
    options.temporaryDirectory = home->filePath(QStringLiteral("tmp"));
    HMLogFileManager manager(daemon, api, *world.account, *world.store, HMClock::system(), options);
    manager.setFileLogger(logger);

    const auto collect = [&manager] {
        HMLogCollection logs;
        QEventLoop loop;
        manager.collectLogFilesWithCompletion(
            [&](const std::optional<HMLogCollection> &result, const HMMaybeError &) {
                if (result) {
                    logs = *result;
                    loop.quit();
                }
            });
        loop.exec();
        return logs;
    };

    HMLogCollection logs = collect(); // warm-up: caches, the thread pool, the report tools
    qint64 rawBytes = 0;
    const QString membersDir = home->filePath(QStringLiteral("members"));
    QDir().mkpath(membersDir);
    QStringList memberFiles;
    for (auto it = logs.cbegin(); it != logs.cend(); ++it) {
        rawBytes += it.value().size();
        HMTestEnvironment::writeFile(membersDir + QLatin1Char('/') + it.key(),
                                     it.value().inflated());
        memberFiles << it.key();
    }

    Series collectMs, zipMs, totalMs, collectPeakKiB, zipPeakKiB, referenceMs;
    qint64 archiveBytes = 0;
    qint64 referenceBytes = 0;
    for (int run = 0; run < runs; ++run) {
        logs.clear();
        QThreadPool::globalInstance()->waitForDone();
        malloc_trim(0);
        resetPeak();
        const qint64 baseline = statusKiB("VmRSS:");
        QElapsedTimer timer;
        timer.start();
        logs = collect();
        const double collected = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        collectPeakKiB.values.push_back(static_cast<double>(statusKiB("VmHWM:") - baseline));
        resetPeak();
        const qint64 beforeZip = statusKiB("VmRSS:");
        HMMaybeError error;
        const QString path = manager.zipFiles(logs, &error);
        const double total = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (path.isEmpty()) {
            std::fprintf(stderr, "hm-bench-diagnostics: %s\n", qPrintable(error->description()));
            return 1;
        }
        zipPeakKiB.values.push_back(static_cast<double>(statusKiB("VmHWM:") - beforeZip));
        archiveBytes = QFileInfo(path).size();
        collectMs.values.push_back(collected);
        zipMs.values.push_back(total - collected);
        totalMs.values.push_back(total);

        QProcess zip;
        zip.setWorkingDirectory(membersDir);
        QFile::remove(membersDir + QStringLiteral("/../reference.zip"));
        timer.restart();
        zip.start(QStringLiteral("zip"),
                  QStringList{QStringLiteral("-9"), QStringLiteral("-q"), QStringLiteral("-X"),
                              QStringLiteral("../reference.zip")} +
                      memberFiles);
        if (zip.waitForFinished(-1) && zip.exitCode() == 0) {
            referenceMs.values.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
            referenceBytes = QFileInfo(membersDir + QStringLiteral("/../reference.zip")).size();
        }
    }

    std::printf("Diagnostics collection and archive, %d runs (p50 / p95)\n", runs);
    std::printf("  members: %lld, raw %.1f KiB, archive %.1f KiB (zip -9: %.1f KiB)\n",
                static_cast<long long>(logs.size()), static_cast<double>(rawBytes) / 1024.0,
                static_cast<double>(archiveBytes) / 1024.0,
                static_cast<double>(referenceBytes) / 1024.0);
    std::printf("  collect and deflate (level 9)      %8.1f / %8.1f ms\n", collectMs.quantile(0.5),
                collectMs.quantile(0.95));
    std::printf("  zip, members stored as compressed  %8.1f / %8.1f ms\n", zipMs.quantile(0.5),
                zipMs.quantile(0.95));
    std::printf("  collect + zip                      %8.1f / %8.1f ms\n", totalMs.quantile(0.5),
                totalMs.quantile(0.95));
    if (referenceMs.values.empty()) {
        std::printf("  reference: zip -9 (command)        not installed\n");
    } else {
        std::printf("  reference: zip -9 (command)        %8.1f / %8.1f ms\n",
                    referenceMs.quantile(0.5), referenceMs.quantile(0.95));
    }
    std::printf("  peak resident growth, collect      %8.0f / %8.0f KiB\n",
                collectPeakKiB.quantile(0.5), collectPeakKiB.quantile(0.95));
    std::printf("  peak resident growth, zip          %8.0f / %8.0f KiB (collection held)\n",
                zipPeakKiB.quantile(0.5), zipPeakKiB.quantile(0.95));
    return 0;
}
