// Switch-on to Connected and switch-off to Disconnected: the whole client against a bare
// OpenVPN.
//
// Runs inside the VPN lab (testing/lab/vpn-lab.sh run --service ... --helper ...) on a private
// Secret Service. Each client round is the user's switch: the VPN manager's connect, which
// renews the token over TLS from the reference service, has the helper start OpenVPN and
// drives the management dialogue until OpenVPN reports CONNECTED; then the switch-off until
// the state is Disconnected (the helper has stopped OpenVPN). Each bare round starts OpenVPN
// directly with the very argument list the helper runs, answers the same management dialogue
// with the same token and stops at CONNECTED; its switch-off is "signal SIGTERM" until the
// process has exited. Client and bare rounds take turns. Every wait is on the event loop, as
// in the application (see HMEventWait). Prints the medians of every step and the ratios.
//
//   hm-bench-tunnel [ROUNDS]     (default 25, at least 20)
#include "HMEventWait.h"
#include "HMHelperConfig.h"
#include "HMOpenVPNArguments.h"
#include "HMVPNLabClient.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLocalSocket>
#include <QProcess>
#include <QTest>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <pwd.h>
#include <unistd.h>

namespace {

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

struct Figures
{
    QList<double> values;
    void add(const QElapsedTimer &timer) { values.append(timer.nsecsElapsed() / 1e6); }
    double median() const { return ::median(values); }
    void print(const char *label) const
    {
        std::printf("%-44s median %7.1f ms (min %.1f, max %.1f)\n", label, median(),
                    *std::min_element(values.begin(), values.end()),
                    *std::max_element(values.begin(), values.end()));
    }
};

// The application's side of the management dialogue, for the bare OpenVPN.
bool driveToConnected(QLocalSocket &socket, const QString &path, const QString &token,
                      int timeoutMs)
{
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
    HMVPNLabClient lab;
    lab.startOrExit("hm-bench-tunnel");

    // One client round first, uncounted: it gives the list the bare rounds run.
    auto clientRound = [&lab](int round, Figures *on, Figures *off) {
        QElapsedTimer timer;
        timer.start();
        if (!lab.connectAndWait()) {
            fail(QStringLiteral("round %1: the client did not reach Connected").arg(round));
        }
        if (on) {
            on->add(timer);
        }
        timer.start();
        if (!lab.disconnectAndWait(30000) || lab.vpn->state() != VPNState::Disconnected) {
            fail(QStringLiteral("round %1: the client did not reach Disconnected").arg(round));
        }
        if (off) {
            off->add(timer);
        }
    };
    clientRound(0, nullptr, nullptr);

    // The list the helper ran in the client round, rebuilt the helper's way.
    QTemporaryDir bareDir(QStringLiteral("/tmp/hm-bench-bare-XXXXXX"));
    HMHelperConfig config = HMHelperConfig::defaults();
    config.openVPNPath =
        QFileInfo(HMVPNLabClient::lab("LAB_HELPER_APP_DIR") + QStringLiteral("/openvpn"))
            .canonicalFilePath();
    config.resourceDir = HMVPNLabClient::lab("LAB_HELPER_RESOURCES");
    config.logDir = bareDir.path();
    config.runDir = bareDir.path();
    QString why;
    const std::optional<HMOpenVPNArguments::Launch> launch =
        HMOpenVPNArguments::parse(lab.daemon->getVPNConfig(), config.resourceDir, &why);
    if (!launch) {
        fail(QStringLiteral("the application's list does not parse: ") + why);
    }
    const QString bareManagement = bareDir.filePath(QStringLiteral("management"));
    const QStringList arguments = HMOpenVPNArguments::build(
        *launch, config, {bareManagement, QString::fromLocal8Bit(::getpwuid(::getuid())->pw_name)});

    // Client and bare rounds take turns, so that both meet the same load on the machine.
    Figures clientOn, clientOff, bareOn, bareOff;
    for (int i = 0; i < rounds; ++i) {
        clientRound(i + 1, &clientOn, &clientOff);
        const QString token = lab.account->vpnToken(); // the one that round renewed
        QProcess openvpn;
        openvpn.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        openvpn.setStandardOutputFile(QProcess::nullDevice());
        QLocalSocket management;
        QElapsedTimer timer;
        timer.start();
        openvpn.start(config.openVPNPath, arguments);
        if (!openvpn.waitForStarted(5000) ||
            !driveToConnected(management, bareManagement, token, 60000)) {
            openvpn.kill();
            openvpn.waitForFinished(5000);
            fail(QStringLiteral("round %1: the bare OpenVPN did not reach CONNECTED").arg(i + 1));
        }
        bareOn.add(timer);
        timer.start();
        management.write("signal SIGTERM\n");
        management.waitForBytesWritten(1000);
        if (!openvpn.waitForFinished(15000)) {
            openvpn.kill();
            openvpn.waitForFinished(5000);
            fail(QStringLiteral("round %1: the bare OpenVPN did not stop").arg(i + 1));
        }
        bareOff.add(timer);
    }

    // Two of the client's steps on their own, to show where its time goes.
    Figures tokenRefresh, helperStart;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        HMEventWait answered;
        lab.account->loginGetToken(true,
                                   [done = answered.done()](const HMMaybeError &) { done(); });
        if (!answered.wait(20000)) {
            fail(QStringLiteral("the token refresh did not answer"));
        }
        tokenRefresh.add(timer);
    }
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        HMEventWait answered;
        auto startError = std::make_shared<HMMaybeError>();
        lab.daemon->startVPN(
            [startError, done = answered.done()](const QVariantMap &, const HMMaybeError &e) {
                *startError = e;
                done();
            });
        if (!answered.wait(30000) || *startError) {
            fail(QStringLiteral("the helper did not start OpenVPN"));
        }
        helperStart.add(timer);
        HMEventWait stopped;
        lab.daemon->stopVPN(
            [done = stopped.done()](const QVariantMap &, const HMMaybeError &) { done(); });
        if (!stopped.wait(30000)) {
            fail(QStringLiteral("the helper did not stop OpenVPN"));
        }
    }

    std::printf("rounds: %d\n", rounds);
    clientOn.print("switch-on to Connected, whole client:");
    bareOn.print("bare openvpn to CONNECTED:");
    std::printf("switch-on ratio client / bare: %.2f\n", clientOn.median() / bareOn.median());
    clientOff.print("switch-off to Disconnected, whole client:");
    bareOff.print("bare openvpn SIGTERM to exit:");
    std::printf("switch-off ratio client / bare: %.2f\n", clientOff.median() / bareOff.median());
    tokenRefresh.print("of the client's steps: token refresh");
    helperStart.print("of the client's steps: helper's startVPN");
    return 0;
}
