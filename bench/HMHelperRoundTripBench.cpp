// hm-bench-helper-roundtrip: request round trips through the real helper.
//
//   hm-bench-helper-roundtrip [--requests N]      (root; default N = 1000)
//
// Starts hmwispd from the build tree under systemd-socket-activate, inside a network
// namespace of its own (checkDNSPortOpen binds 127.0.0.1:53 there, not on the host), and
// times N sequential exchanges of two requests: "checkDNSPortOpen", which the helper
// answers after binding the DNS port over UDP and TCP, and a "startVPN" whose
// "daemonConfig" names another executable, which the helper refuses and logs. Each is
// timed twice: through the application's client (HMDaemonManager: command queue, socket,
// reply delivered on the main thread) and as a bare socket exchange with the wire library,
// the floor the client is compared against. Prints p50/p99/mean in microseconds.
#include "HMDaemonManager.h"
#include "HMHelperInstance.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWireCodec.h"
#include "HMWireSocket.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace {

struct Summary
{
    double p50 = 0;
    double p99 = 0;
    double mean = 0;
    int failures = 0;
};

Summary summarise(std::vector<double> micros, int failures)
{
    Summary summary;
    summary.failures = failures;
    if (micros.empty()) {
        return summary;
    }
    std::sort(micros.begin(), micros.end());
    auto at = [&micros](double quantile) {
        const size_t index =
            static_cast<size_t>(quantile * static_cast<double>(micros.size() - 1) + 0.5);
        return micros[std::min(index, micros.size() - 1)];
    };
    summary.p50 = at(0.50);
    summary.p99 = at(0.99);
    double total = 0;
    for (double value : micros) {
        total += value;
    }
    summary.mean = total / static_cast<double>(micros.size());
    return summary;
}

// The reply's "status", or empty when the exchange failed.
QString bareExchange(const QString &socketPath, const QByteArray &payload)
{
    const int fd = unix_socket(socketPath, nullptr);
    if (fd < 0) {
        return QString();
    }
    QString status;
    if (!write_data(fd, payload)) {
        if (const std::optional<QByteArray> reply = read_data(fd, nullptr)) {
            if (const auto map = decode_variant_dictionary(*reply, nullptr)) {
                status = map->value(QStringLiteral("status")).toString();
            }
        }
    }
    ::close(fd);
    return status;
}

Summary timeBare(const QString &socketPath, const QVariantMap &request, const QString &expected,
                 int count)
{
    const QByteArray payload = encode_dictionary(request);
    std::vector<double> micros;
    int failures = 0;
    QElapsedTimer timer;
    for (int i = 0; i < count; ++i) {
        timer.start();
        const QString status = bareExchange(socketPath, payload);
        const double elapsed = static_cast<double>(timer.nsecsElapsed()) / 1000.0;
        if (status == expected) {
            micros.push_back(elapsed);
        } else {
            ++failures;
        }
    }
    return summarise(micros, failures);
}

// One request at a time, each sent from the main thread once the previous reply arrived
// there, as the application's callers do.
Summary timeClient(HMDaemonManager &daemon, const QVariantMap &request, const QString &expected,
                   int count)
{
    std::vector<double> micros;
    int failures = 0;
    QElapsedTimer timer;
    QEventLoop loop;
    int done = 0;
    std::function<void()> sendNext = [&] {
        timer.start();
        daemon.executeRequest(
            request, true, [&](const QVariantMap &reply, const HMMaybeError &error) {
                const double elapsed = static_cast<double>(timer.nsecsElapsed()) / 1000.0;
                if (!error && reply.value(QStringLiteral("status")).toString() == expected) {
                    micros.push_back(elapsed);
                } else {
                    ++failures;
                }
                if (++done == count) {
                    loop.quit();
                } else {
                    sendNext();
                }
            });
    };
    sendNext();
    loop.exec();
    return summarise(micros, failures);
}

void print(const char *request, const char *client, const Summary &summary)
{
    std::printf("| %-36s | %-22s | %8.1f | %8.1f | %8.1f | %5d |\n", request, client, summary.p50,
                summary.p99, summary.mean, summary.failures);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int count = 1000;
    const QStringList args = app.arguments();
    const qsizetype flag = args.indexOf(QStringLiteral("--requests"));
    if (flag > 0 && flag + 1 < args.size()) {
        count = std::max(1, args.at(flag + 1).toInt());
    }
    if (::geteuid() != 0) {
        std::fprintf(stderr,
                     "hm-bench-helper-roundtrip: the helper runs as root; run this as root\n");
        return 1;
    }
    // The helper's test harness finds the build and source trees through these.
    if (qEnvironmentVariableIsEmpty("HM_BUILD_DIR")) {
        qputenv("HM_BUILD_DIR", HM_BENCH_BUILD_DIR);
    }
    if (qEnvironmentVariableIsEmpty("HM_SOURCE_DIR")) {
        qputenv("HM_SOURCE_DIR", HM_BENCH_SOURCE_DIR);
    }

    HMHelperInstance helper;
    HMHelperInstance::Options options;
    options.openVPN = HMTestEnvironment::findProgram(QStringLiteral("openvpn"));
    QString error;
    if (!helper.prepare(options, &error) || !helper.start(&error)) {
        std::fprintf(stderr, "hm-bench-helper-roundtrip: cannot start the helper: %s\n",
                     qPrintable(error));
        return 1;
    }

    QTemporaryDir prefs;
    HMPreferenceStore store(prefs.filePath(QStringLiteral("prefs.json")));
    HMDaemonManager::Paths paths;
    paths.socketPath = helper.socketPath();
    paths.executableDirectory = helper.path(QStringLiteral("app"));
    paths.resourceDirectory = helper.resourceDir();
    HMDaemonManager daemon(store, nullptr, nullptr, paths);
    daemon.createCommandQueue();

    const QVariantMap check{{QStringLiteral("action"), QStringLiteral("checkDNSPortOpen")}};
    // A start request naming another executable than the helper's own OpenVPN.
    QVariantMap refused{{QStringLiteral("action"), QStringLiteral("startVPN")}};
    refused.insert(
        QStringLiteral("params"),
        QVariantMap{{QStringLiteral("daemonConfig"),
                     QVariantMap{{QStringLiteral("openVPNPath"), QStringLiteral("/bin/sh")},
                                 {QStringLiteral("dnsProxyPath"), QStringLiteral("/bin/sh")}}},
                    {QStringLiteral("vpnConfig"), daemon.getVPNConfig()}});

    // Warm-up: page in the helper and the client paths.
    timeBare(helper.socketPath(), check, QStringLiteral("ok"), 20);

    std::printf("%d sequential requests per row; microseconds from send to reply\n\n", count);
    std::printf("| %-36s | %-22s | %8s | %8s | %8s | %5s |\n", "request", "client", "p50", "p99",
                "mean", "fails");
    std::printf("|%s|%s|%s|%s|%s|%s|\n", "--------------------------------------",
                "------------------------", "----------", "----------", "----------", "-------");
    print("checkDNSPortOpen (ok)", "HMDaemonManager",
          timeClient(daemon, check, QStringLiteral("ok"), count));
    print("checkDNSPortOpen (ok)", "bare wire exchange",
          timeBare(helper.socketPath(), check, QStringLiteral("ok"), count));
    print("startVPN, foreign executable (error)", "HMDaemonManager",
          timeClient(daemon, refused, QStringLiteral("error"), count));
    print("startVPN, foreign executable (error)", "bare wire exchange",
          timeBare(helper.socketPath(), refused, QStringLiteral("error"), count));
    return 0;
}
