// Tunnel control on the VPN lab (testing/lab/vpn-lab.sh run) with every manager the real one.
// The management-line rules themselves are HMVPNManagerTest's; these cases are the parts only
// a real OpenVPN, helper, kernel and service show.
#include "HMDomainListEditor.h"
#include "HMLogCapture.h"
#include "HMTestEnvironment.h"
#include "HMVPNLabClient.h"
#include "HMVPNState.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>
#include <QUdpSocket>

#include <csignal>
#include <memory>
#include <unistd.h>

namespace {

constexpr int kConnectTimeoutMs = HMVPNLabClient::kConnectTimeoutMs;

QString lab(const char *fact)
{
    return HMVPNLabClient::lab(fact);
}

bool runIp(const QString &arguments)
{
    return QProcess::execute(HMTestEnvironment::findProgram(QStringLiteral("ip")),
                             arguments.split(QLatin1Char(' '))) == 0;
}

// The link comes back the way a network manager brings it: up, then the default route.
bool restoreLink()
{
    const bool up = runIp(QStringLiteral("link set lab0 up"));
    return runIp(QStringLiteral("route replace default via ") + lab("LAB_SERVER_IP")) && up;
}

QString run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(HMTestEnvironment::findProgram(program), arguments);
    process.waitForFinished(10000);
    return QString::fromUtf8(process.readAllStandardOutput());
}

// The addresses (or other data) of the answer the local DNS proxy gives.
QStringList resolve(const QString &name, const QString &type, bool tcp = false)
{
    QStringList arguments = {QStringLiteral("@127.0.0.1"), name, type};
    if (tcp) {
        arguments.prepend(QStringLiteral("-t"));
    }
    const QStringList lines = run(QStringLiteral("drill"), arguments).split('\n');
    QStringList data;
    bool inAnswer = false;
    for (const QString &line : lines) {
        if (line.startsWith(QLatin1String(";; ANSWER SECTION"))) {
            inAnswer = true;
        } else if (inAnswer && line.trimmed().isEmpty()) {
            break;
        } else if (inAnswer) {
            data << line.simplified().section(QLatin1Char(' '), -1);
        }
    }
    return data;
}

QString routeDevice(const QString &address)
{
    return run(QStringLiteral("ip"),
               {QStringLiteral("-4"), QStringLiteral("route"), QStringLiteral("get"), address})
        .section(QStringLiteral(" dev "), 1)
        .section(QLatin1Char(' '), 0, 0);
}

// The DNS proxy's own routes (its routing-protocol number).
QString proxyRoutes()
{
    return run(QStringLiteral("ip"),
               {QStringLiteral("-4"), QStringLiteral("route"), QStringLiteral("show"),
                QStringLiteral("proto"), QStringLiteral("211")});
}

int proxyPid()
{
    QFile file(lab("LAB_HELPER_RUN") + QStringLiteral("/wisproute.pid"));
    const int pid = file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt() : 0;
    return pid > 1 && QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).exists() ? pid : 0;
}

int proxyStarts()
{
    QFile log(lab("LAB_HELPER_LOGS") + QStringLiteral("/daemon.log"));
    return log.open(QIODevice::ReadOnly) ? int(log.readAll().count("started the DNS proxy")) : 0;
}

// How many OpenVPN processes the helper has started so far.
int openVPNStarts()
{
    QFile log(lab("LAB_HELPER_LOGS") + QStringLiteral("/daemon.log"));
    return log.open(QIODevice::ReadOnly) ? int(log.readAll().count("started OpenVPN (pid")) : -1;
}

} // namespace

class HMVPNEndToEndTest : public QObject
{
    Q_OBJECT

private:
    HMVPNLabClient m_lab;
    QList<VPNState> m_states;
    int m_outOfData = 0;

    // What the usage loop does every minute: sign in again without a new token.
    bool refreshAccount()
    {
        bool done = false;
        HMMaybeError result;
        m_lab.account->loginGetToken(false, [&](const HMMaybeError &error) {
            result = error;
            done = true;
        });
        return QTest::qWaitFor([&] { return done; }, 20000) && !result;
    }

    void setAccountField(const char *key, const QJsonValue &value)
    {
        m_lab.service.updateAccount({{QStringLiteral("username"), lab("LAB_USER")}, {key, value}});
    }

private Q_SLOTS:
    void initTestCase()
    {
        HM_START_VPN_LAB(m_lab);
        QObject::connect(m_lab.vpn.get(), &HMVPNManager::stateChanged,
                         [this](VPNState, VPNState now) { m_states.append(now); });
        m_lab.center.addObserverForName(HMVPNManager::kOutOfDataNotification,
                                        [this] { ++m_outOfData; });
        // The cases run on the full-tunnel form whatever the DNS-port check said (the form
        // it picks until the DNS proxy is installed): all traffic, 169.254.0.0 included, is
        // routed into the tunnel, so losing the link must be seen past OpenVPN's own routes.
        m_lab.routing->setSupported(false);
    }

    void init()
    {
        m_states.clear();
        m_outOfData = 0;
    }

    void cleanup()
    {
        // Whatever a case did or failed to do: the tunnel goes down and nothing stays behind.
        restoreLink();
        QTRY_VERIFY_WITH_TIMEOUT(m_lab.reachability->isReachable(), 5000);
        m_lab.disconnectAndWait();
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::tunDevices().isEmpty(), 10000);
        m_lab.account->setShouldReconnect(false);
    }

    void cleanupTestCase()
    {
        if (m_lab.vpn) {
            m_lab.disconnectAndWait();
        }
    }

    void connectsToTheLabServer()
    {
        QVERIFY(m_lab.connectAndWait());
        QCOMPARE(m_lab.vpn->connectedIp(), lab("LAB_SERVER_IP"));
        QCOMPARE(m_lab.vpn->tapAdapter(), QStringLiteral("tun0"));
        QVERIFY(m_states.contains(VPNState::Connecting));
        QCOMPARE(m_states.last(), VPNState::Connected);
        QCOMPARE(HMVPNLabClient::tunDevices(), QStringList{QStringLiteral("tun0")});
        QVERIFY(HMVPNLabClient::trackedOpenVPN() > 0);
        QVERIFY(QProcess::execute(HMTestEnvironment::findProgram(QStringLiteral("ip")),
                                  {"route", "show", "128.0.0.0/1", "dev", "tun0"}) == 0);

        // The token OpenVPN was answered with is the one the service handed out for this
        // connection, and the server accepted it.
        const QJsonObject account = m_lab.service.account(lab("LAB_USER"));
        QCOMPARE(account.value(QStringLiteral("vpnToken")).toString(), m_lab.account->vpnToken());
    }

    void byteCountsChargeTheAllowance()
    {
        QVERIFY(m_lab.connectAndWait());
        const qint64 allowance = m_lab.account->bandwidthAvailable();
        QCOMPARE(m_lab.vpn->bandwidthAvailable(), allowance);

        // Traffic into the tunnel: datagrams to the server's end of it.
        QUdpSocket socket;
        const QByteArray payload(1200, 'x');
        for (int i = 0; i < 200; ++i) {
            socket.writeDatagram(payload, QHostAddress(QStringLiteral("10.8.0.1")), 9);
        }
        QTRY_VERIFY_WITH_TIMEOUT(m_lab.vpn->bandwidthAvailable() < allowance - 200 * 1200, 15000);
        QVERIFY(m_lab.vpn->totalPrevious() > 200 * 1200);
        QCOMPARE(m_lab.vpn->state(), VPNState::Connected);
        QCOMPARE(m_lab.account->bandwidthAvailable(), allowance); // the service's figure stays
    }

    void allowanceGoneTakesTheTunnelDown()
    {
        QVERIFY(m_lab.connectAndWait());
        setAccountField("dataAllowed", 0);
        QVERIFY(refreshAccount());

        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::OutOfData, 20000);
        QCOMPARE(m_outOfData, 1);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::tunDevices().isEmpty(), 10000);
        QVERIFY(m_lab.vpn->socket() == nullptr);

        // A switch-on without allowance is refused before OpenVPN is started.
        HMMaybeError refused;
        int completions = 0;
        m_lab.vpn->connectWithCompletion([&](const HMMaybeError &error) {
            refused = error;
            ++completions;
        });
        QTRY_COMPARE_WITH_TIMEOUT(completions, 1, 20000);
        QCOMPARE(refused->localizedDescription(), QStringLiteral("Out of Data"));
        QVERIFY(HMVPNLabClient::openVPNProcesses().isEmpty());

        // A top-up brings the switch back.
        setAccountField("dataAllowed", 1073741824);
        QVERIFY(refreshAccount());
        QTRY_COMPARE(m_lab.vpn->state(), VPNState::Disconnected);
        QCOMPARE(m_outOfData, 1);
    }

    void rotatedTokenIsRenewedOnReconnect()
    {
        HMLogCapture log;
        QVERIFY(m_lab.connectAndWait());
        const QString oldToken = m_lab.account->vpnToken();
        const int firstOpenVPN = HMVPNLabClient::trackedOpenVPN();
        QVERIFY(firstOpenVPN > 0);

        const QString newToken =
            QStringLiteral("rotated%1").arg(QDateTime::currentMSecsSinceEpoch());
        setAccountField("vpnToken", newToken);
        // OpenVPN restarts its connection (as after a lost peer) and offers the token it holds,
        // which the server now refuses.
        m_states.clear();
        QCOMPARE(::kill(firstOpenVPN, SIGUSR1), 0);

        QTRY_VERIFY_WITH_TIMEOUT(m_states.contains(VPNState::Disconnecting), 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::Connected, kConnectTimeoutMs);
        QCOMPARE(m_lab.account->vpnToken(), newToken);
        QVERIFY(oldToken != newToken);
        const int secondOpenVPN = HMVPNLabClient::trackedOpenVPN();
        QVERIFY(secondOpenVPN > 0 && secondOpenVPN != firstOpenVPN);
        const int failed = m_states.indexOf(VPNState::Disconnecting);
        QVERIFY(m_states.indexOf(VPNState::Connecting, failed) > failed);
    }

    void secondRequestJoinsTheAttempt()
    {
        const int before = openVPNStarts();
        m_lab.vpn->connect();
        m_lab.vpn->connect();
        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::Connected, kConnectTimeoutMs);
        QCOMPARE(openVPNStarts(), before + 1);
        QCOMPARE(m_states.count(VPNState::Error), 0);
    }

    void switchOffWhileTheHelperStartsOpenVPN()
    {
        QFile log(lab("LAB_HELPER_LOGS") + QStringLiteral("/daemon.log"));
        QVERIFY(log.open(QIODevice::ReadOnly));
        const int requests = int(log.readAll().count("startVPN from"));
        m_lab.vpn->connect();
        QTRY_VERIFY_WITH_TIMEOUT(
            (log.seek(0), int(log.readAll().count("startVPN from")) > requests), 20000);
        m_lab.vpn->disconnect();
        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::Disconnected, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);
        // Nothing starts late either.
        QTest::qWait(1000);
        QVERIFY(HMVPNLabClient::openVPNProcesses().isEmpty());
    }

    void quitAndRestartLeaveNoTunnel()
    {
        // Quit while Connected: the stop request is on its way before the process would end.
        QVERIFY(m_lab.connectAndWait());
        m_lab.vpn->stopBeforeExit();
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::tunDevices().isEmpty(), 10000);
        m_lab.vpn->setDisconnectedState();

        // A killed run leaves OpenVPN behind; the next start stops it before anything else.
        bool started = false;
        m_lab.daemon->startVPN([&](const QVariantMap &, const HMMaybeError &) { started = true; });
        QTRY_VERIFY_WITH_TIMEOUT(started && HMVPNLabClient::trackedOpenVPN() > 0, 20000);
        bool recovered = false;
        m_lab.vpn->stopOrphanedTunnel([&] { recovered = true; });
        QTRY_VERIFY_WITH_TIMEOUT(recovered, 20000);
        QVERIFY(HMVPNLabClient::openVPNProcesses().isEmpty());
        QCOMPARE(m_lab.vpn->state(), VPNState::Disconnected);
    }

    void everyTokenRefusedEndsInError()
    {
        HMLogCapture log;
        // The sign-in hands out a token the OpenVPN server's check never accepts.
        setAccountField("replyOverrides", QJsonObject{{"vpnToken", "never-accepted"}});
        m_lab.vpn->connect();
        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::Error, 3 * kConnectTimeoutMs);
        setAccountField("replyOverrides", QJsonObject());
        QVERIFY(log.contains(QStringLiteral("refused 3 freshly renewed tokens")));
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);
        QCOMPARE(m_states.count(VPNState::Error), 1);
    }

    void linkLossDisconnectsAndReturnReconnects()
    {
        QVERIFY(m_lab.connectAndWait());
        m_states.clear();
        QVERIFY(runIp(QStringLiteral("link set lab0 down")));

        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::NoConnection, 20000);
        QVERIFY(m_lab.account->shouldReconnect());
        QCOMPARE(m_states.first(), VPNState::Disconnecting);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);

        QVERIFY(restoreLink());
        QTRY_COMPARE_WITH_TIMEOUT(m_lab.vpn->state(), VPNState::Connected, kConnectTimeoutMs);
        QVERIFY(!m_lab.account->shouldReconnect());
        QCOMPARE(m_lab.vpn->connectedIp(), lab("LAB_SERVER_IP"));
    }

    // The lab's two resolvers answer every *.lab.test name differently (77.7 through the
    // tunnel, 88.8 the original way), so each answer shows which way its query went.
    void selectiveRoutingSteersNamesInEveryMode()
    {
        if (lab("LAB_TUNNEL_RESOLVER").isEmpty() ||
            HMTestEnvironment::findProgram("drill").isEmpty() ||
            HMTestEnvironment::findProgram("tcpdump").isEmpty()) {
            QSKIP("needs the lab's resolvers (dnsmasq, --wisproute), drill and tcpdump");
        }
        const QString tunnel = QStringLiteral("10.231.77.7");
        const QString original = QStringLiteral("10.231.88.8");
        m_lab.routing->setArrayDomains({QStringLiteral("listed.lab.test")});
        m_lab.routing->saveDomainsInFileWithExclusion(false);
        m_lab.routing->setArrayDomainsExclusion({QStringLiteral("listed.lab.test")});
        m_lab.routing->saveDomainsInFileWithExclusion(true);
        // The one case on the selective form: the lab's helper has the DNS proxy installed.
        QVERIFY2(m_lab.proxyInstalled, "the helper reported the DNS proxy unusable");
        m_lab.routing->setSupported(true);
        const auto fullFormAgain = qScopeGuard([this] { m_lab.routing->setSupported(false); });
        HMDomainListEditor editor(*m_lab.routing, [this] { return m_lab.vpn->isConnected(); });
        editor.chooseTag(HMDomainListEditor::TagInclusion);

        // Every query that leaves over the physical link, for the whole case.
        QProcess capture;
        capture.start(HMTestEnvironment::findProgram("tcpdump"),
                      {"-i", "lab0", "-n", "-l", "udp", "port", "53"});
        capture.setReadChannel(QProcess::StandardError);
        QVERIFY(capture.waitForReadyRead(5000)); // "listening on lab0"
        capture.setReadChannel(QProcess::StandardOutput);

        QVERIFY(m_lab.connectAndWait());
        QTRY_VERIFY_WITH_TIMEOUT(proxyPid() > 0, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(resolve("www.listed.lab.test", "A"), QStringList{tunnel}, 5000);
        QCOMPARE(resolve("www.listed.lab.test", "AAAA"), QStringList());
        QCOMPARE(resolve("tcp.listed.lab.test", "A", true), QStringList{tunnel});
        QCOMPARE(resolve("other.lab.test", "A"), QStringList{original});
        QCOMPARE(resolve("other.lab.test", "AAAA"), QStringList{"fd00::88"});
        QCOMPARE(routeDevice(tunnel), QString("tun0"));
        QCOMPARE(routeDevice(original), QString("lab0"));

        // A mode change while connected restarts the proxy once and leaves no stale route.
        const int inclusionPid = proxyPid();
        const int starts = proxyStarts();
        editor.chooseTag(HMDomainListEditor::TagExclusion);
        QTRY_VERIFY_WITH_TIMEOUT(proxyPid() > 0 && proxyPid() != inclusionPid, 10000);
        QCOMPARE(proxyStarts(), starts + 1);
        QVERIFY2(!proxyRoutes().contains(tunnel), qPrintable(proxyRoutes()));
        QTRY_COMPARE_WITH_TIMEOUT(resolve("ex.listed.lab.test", "A"), QStringList{original}, 5000);
        QCOMPARE(resolve("ex-tunnel.lab.test", "A"), QStringList{tunnel});
        QCOMPARE(resolve("ex-tunnel.lab.test", "AAAA"), QStringList());
        QVERIFY2(proxyRoutes().contains(original + " via") ||
                     proxyRoutes().contains(original + " dev lab0"),
                 qPrintable(proxyRoutes()));
        QCOMPARE(routeDevice(original), QString("lab0"));
        QCOMPARE(routeDevice(tunnel), QString("tun0"));

        const int exclusionPid = proxyPid();
        editor.chooseTag(HMDomainListEditor::TagOff);
        QTRY_VERIFY_WITH_TIMEOUT(proxyPid() > 0 && proxyPid() != exclusionPid, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(resolve("off.listed.lab.test", "A"), QStringList{tunnel}, 5000);
        QCOMPARE(routeDevice(original), QString("tun0"));

        capture.terminate();
        QVERIFY(capture.waitForFinished(5000));
        const QString left = QString::fromUtf8(capture.readAllStandardOutput());
        QVERIFY2(left.contains("other.lab.test") && left.contains("ex.listed.lab.test"),
                 qPrintable(left));
        for (const char *tunnelled : {"www.listed", "tcp.listed", "ex-tunnel", "off.listed"}) {
            QVERIFY2(!left.contains(tunnelled), qPrintable(left));
        }

        // A proxy killed outright leaves its routes; the next start-up's stop removes them.
        QCOMPARE(::kill(proxyPid(), SIGKILL), 0);
        QVERIFY(!proxyRoutes().isEmpty());
        bool stopped = false;
        m_lab.daemon->stopDNSProxy(
            [&stopped](const QVariantMap &, const HMMaybeError &error) { stopped = !error; });
        QTRY_VERIFY_WITH_TIMEOUT(stopped, 10000);
        QCOMPARE(proxyRoutes(), QString());
        editor.chooseTag(HMDomainListEditor::TagOff);
    }
};

QTEST_GUILESS_MAIN(HMVPNEndToEndTest)
#include "HMVPNEndToEndTest.moc"
