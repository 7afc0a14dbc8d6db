// Switch-on to Connected: the whole client against a bare OpenVPN.
//
// Runs inside the VPN lab (testing/lab/vpn-lab.sh run --service ... --helper ...) on a private
// Secret Service. Each client round is the user's switch: the VPN manager's connect, which
// renews the token over TLS from the reference service, has the helper start OpenVPN and
// drives the management dialogue until OpenVPN reports CONNECTED; then a switch-off that
// waits until the helper has stopped OpenVPN. Each bare round starts OpenVPN directly with
// the very argument list the helper runs, answers the same management dialogue with the
// same token, and stops at CONNECTED. Prints both medians and their ratio.
//
//   hm-bench-tunnel [ROUNDS]     (default 25, at least 20)
#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMClock.h"
#include "HMClosestServerManager.h"
#include "HMDaemonManager.h"
#include "HMDeploymentValues.h"
#include "HMHelperConfig.h"
#include "HMNetlinkReachabilitySource.h"
#include "HMNotificationCenter.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMOpenVPNArguments.h"
#include "HMPreferenceStore.h"
#include "HMReachabilityManager.h"
#include "HMSecretServiceKeychain.h"
#include "HMVPNAccountAdapter.h"
#include "HMVPNDaemonAdapter.h"
#include "HMVPNManager.h"
#include "HMVPNReachabilityAdapter.h"
#include "HMVPNRoutingAdapter.h"
#include "HMWisprouteManager.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>
#include <QProcess>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <pwd.h>
#include <unistd.h>

namespace {

QString fact(const char *name)
{
    return qEnvironmentVariable(name);
}

// Runs the event loop until `done` holds or `ms` pass.
bool spinUntil(const std::function<bool()> &done, int ms)
{
    const QDeadlineTimer deadline(ms);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return true;
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    const qsizetype n = values.size();
    return n % 2 ? values.at(n / 2) : (values.at(n / 2 - 1) + values.at(n / 2)) / 2;
}

[[noreturn]] void fail(const QString &why)
{
    std::fprintf(stderr, "hm-bench-tunnel: %s\n", qPrintable(why));
    std::exit(1);
}

// The application's side of the management dialogue, for the bare OpenVPN.
bool driveToConnected(const QString &path, const QString &token, int timeoutMs)
{
    QLocalSocket socket;
    const QDeadlineTimer deadline(timeoutMs);
    // OpenVPN opens the socket a moment after it starts.
    for (;;) {
        socket.connectToServer(path);
        if (socket.waitForConnected(200)) {
            break;
        }
        socket.abort();
        if (deadline.hasExpired()) {
            return false;
        }
        QThread::msleep(5);
    }
    for (const char *command : {"state", "log on", "state on", "hold release", "bytecount 2"}) {
        socket.write(QByteArray(command) + '\n');
    }
    QByteArray buffer;
    while (!deadline.hasExpired()) {
        if (!socket.waitForReadyRead(static_cast<int>(deadline.remainingTime()))) {
            return false;
        }
        buffer += socket.readAll();
        qsizetype end;
        while ((end = buffer.indexOf("\r\n")) >= 0) {
            const QByteArray line = buffer.left(end);
            buffer.remove(0, end + 2);
            if (line.contains(">PASSWORD")) {
                socket.write("username \"Auth\" " + token.toUtf8() + "\npassword \"Auth\" " +
                             token.toUtf8() + '\n');
            } else if (line.contains(">HOLD")) {
                socket.write("hold release\n");
            } else if (line.contains(">STATE") && line.contains("CONNECTED,SUCCESS")) {
                socket.write("signal SIGTERM\n");
                socket.waitForBytesWritten(1000);
                return true;
            }
        }
    }
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::max(20, QString::fromLocal8Bit(argv[1]).toInt()) : 25;
    if (fact("LAB_HELPER_SOCKET").isEmpty() || fact("LAB_SERVICE_DEPLOYMENT").isEmpty()) {
        fail(QStringLiteral("run me inside the VPN lab: testing/lab/vpn-lab.sh run --service "
                            "<hm-refservice> --helper <hmwispd> -- "
                            "tests/support/with-secret-service.sh <this program>"));
    }

    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    const QString deployment =
        home.filePath(QStringLiteral("config/") + HMDeploymentValues::kFileName);
    QDir().mkpath(QFileInfo(deployment).path());
    QFile::copy(fact("LAB_SERVICE_DEPLOYMENT"), deployment);

    // The lab's service authority stands in for one the system trusts.
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(fact("LAB_SERVICE_CA"));
    QSslConfiguration::setDefaultConfiguration(tls);
    HMPreferenceStore store(home.filePath(QStringLiteral("prefs.json")));
    HMNotificationCenter center;
    HMWisprouteManager routing(store);
    HMAccountManager account(store, HMSecretServiceKeychain::shared(), &routing, center);
    HMReachabilityManager reachability(std::make_unique<HMNetlinkReachabilitySource>());
    HMAPIClient api(
        HMDeploymentValues::loadFromSearchPath(), [&] { return reachability.isReachable(); },
        HMClock::system(), center);
    account.setAPIClient(&api);
    account.setClosestEnabledQuery([] { return false; });
    HMDaemonManager::Paths paths;
    paths.socketPath = fact("LAB_HELPER_SOCKET");
    paths.executableDirectory = fact("LAB_HELPER_APP_DIR");
    paths.resourceDirectory = fact("LAB_HELPER_RESOURCES");
    HMDaemonManager daemon(store, &account, &routing, paths);
    daemon.createCommandQueue();
    HMClosestServerManager closest(&account, HMClock::system(), fact("LAB_SERVICE_DOMAIN"));

    HMVPNAccountAdapter accountAdapter(account);
    HMVPNReachabilityAdapter reachabilityAdapter(reachability);
    HMVPNDaemonAdapter helper(daemon);
    HMVPNRoutingAdapter routingAdapter(routing);
    HMVPNManager::Collaborators c;
    c.account = &accountAdapter;
    c.reachability = &reachabilityAdapter;
    c.helper = &helper;
    c.routing = &routingAdapter;
    c.closest = &closest;
    c.notifications = &center;
    c.managementSocket =
        HMOpenVPNArgumentForms::managementSocketPath(fact("LAB_HELPER_MANAGEMENT"), ::getuid());
    HMVPNManager vpn(c);
    daemon.setTunnelInfo([&] { return vpn.connectedIp(); }, [&] { return vpn.tapAdapter(); });

    if (!spinUntil([&] { return reachability.isReachable(); }, 5000)) {
        fail(QStringLiteral("the lab's network is not reachable"));
    }
    bool signedIn = false;
    HMMaybeError signInError;
    account.loginWithUsername(fact("LAB_USER"), fact("LAB_PASSWORD"), false,
                              [&](const HMMaybeError &e) {
                                  signInError = e;
                                  signedIn = true;
                              });
    if (!spinUntil([&] { return signedIn; }, 20000) || signInError) {
        fail(QStringLiteral("sign-in failed"));
    }
    // As at start-up: the helper's port check picks the argument form.
    bool checked = false;
    daemon.checkDNSPortOpen([&](const QVariantMap &, const HMMaybeError &error) {
        routing.setSupported(!error);
        checked = true;
    });
    spinUntil([&] { return checked; }, 10000);

    QList<double> client;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        vpn.connect();
        if (!spinUntil([&] { return vpn.state() == VPNState::Connected; }, 60000)) {
            fail(QStringLiteral("round %1: the client did not reach Connected").arg(i + 1));
        }
        client.append(timer.nsecsElapsed() / 1e6);
        bool stopped = false;
        vpn.disconnectWithCompletion([&](const HMMaybeError &) { stopped = true; });
        spinUntil([&] { return stopped; }, 30000);
    }

    // Two of the client's steps on their own, to show where its time goes.
    QList<double> tokenRefresh;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        bool answered = false;
        account.loginGetToken(true, [&](const HMMaybeError &) { answered = true; });
        if (!spinUntil([&] { return answered; }, 20000)) {
            fail(QStringLiteral("the token refresh did not answer"));
        }
        tokenRefresh.append(timer.nsecsElapsed() / 1e6);
    }
    QList<double> helperStart;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        bool answered = false;
        HMMaybeError startError;
        daemon.startVPN([&](const QVariantMap &, const HMMaybeError &e) {
            startError = e;
            answered = true;
        });
        if (!spinUntil([&] { return answered; }, 30000) || startError) {
            fail(QStringLiteral("the helper did not start OpenVPN"));
        }
        helperStart.append(timer.nsecsElapsed() / 1e6);
        bool stopped = false;
        daemon.stopVPN([&](const QVariantMap &, const HMMaybeError &) { stopped = true; });
        spinUntil([&] { return stopped; }, 30000);
    }

    // The list the helper ran in the client rounds, rebuilt the helper's way.
    QTemporaryDir bareDir(QStringLiteral("/tmp/hm-bench-bare-XXXXXX"));
    HMHelperConfig config = HMHelperConfig::defaults();
    config.openVPNPath =
        QFileInfo(paths.executableDirectory + QStringLiteral("/openvpn")).canonicalFilePath();
    config.resourceDir = paths.resourceDirectory;
    config.logDir = bareDir.path();
    config.runDir = bareDir.path();
    QString why;
    const std::optional<HMOpenVPNArguments::Launch> launch =
        HMOpenVPNArguments::parse(daemon.getVPNConfig(), config.resourceDir, &why);
    if (!launch) {
        fail(QStringLiteral("the application's list does not parse: ") + why);
    }
    const QString bareManagement = bareDir.filePath(QStringLiteral("management"));
    const QStringList arguments = HMOpenVPNArguments::build(
        *launch, config, {bareManagement, QString::fromLocal8Bit(::getpwuid(::getuid())->pw_name)});
    const QString token = account.vpnToken();

    QList<double> bare;
    for (int i = 0; i < rounds; ++i) {
        QProcess openvpn;
        openvpn.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        openvpn.setStandardOutputFile(QProcess::nullDevice());
        QElapsedTimer timer;
        timer.start();
        openvpn.start(config.openVPNPath, arguments);
        if (!openvpn.waitForStarted(5000) || !driveToConnected(bareManagement, token, 60000)) {
            openvpn.kill();
            openvpn.waitForFinished(5000);
            fail(QStringLiteral("round %1: the bare OpenVPN did not reach CONNECTED").arg(i + 1));
        }
        bare.append(timer.nsecsElapsed() / 1e6);
        if (!openvpn.waitForFinished(15000)) {
            openvpn.kill();
            openvpn.waitForFinished(5000);
        }
    }

    const double clientMedian = median(client);
    const double bareMedian = median(bare);
    std::printf("rounds: %d\n", rounds);
    std::printf("switch-on to Connected, whole client: median %.1f ms (min %.1f, max %.1f)\n",
                clientMedian, *std::min_element(client.begin(), client.end()),
                *std::max_element(client.begin(), client.end()));
    std::printf("bare openvpn to CONNECTED:            median %.1f ms (min %.1f, max %.1f)\n",
                bareMedian, *std::min_element(bare.begin(), bare.end()),
                *std::max_element(bare.begin(), bare.end()));
    std::printf("ratio client / bare: %.2f\n", clientMedian / bareMedian);
    std::printf(
        "of the client's steps: token refresh median %.1f ms, helper's startVPN median %.1f ms\n",
        median(tokenRefresh), median(helperStart));
    return 0;
}
