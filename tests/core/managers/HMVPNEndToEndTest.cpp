// Tunnel control end to end on the VPN lab (testing/lab/vpn-lab.sh run): the reference
// service and a real OpenVPN 2.6 server in one namespace, the helper and this test (the
// application's core) in the other. Every manager is the real one: sign-in over TLS,
// the Secret Service, the kernel's reachability, the helper over its socket, OpenVPN's
// management interface.
#include "HMLogCapture.h"
#include "HMTestEnvironment.h"
#include "HMVPNLabClient.h"
#include "HMVPNState.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QNetworkInterface>
#include <QProcess>
#include <QTest>
#include <QUdpSocket>

#include <csignal>
#include <memory>
#include <unistd.h>

namespace {

constexpr int kConnectTimeoutMs = 45000;

QString lab(const char *fact)
{
    return qEnvironmentVariable(fact);
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

QString canonical(const QString &path)
{
    return QFileInfo(path).canonicalFilePath();
}

// The raw link text ("net:[4026532...]"): QFile::symLinkTarget would make it a path.
QByteArray linkText(const QString &path)
{
    char buffer[256];
    const ssize_t n = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof(buffer));
    return n > 0 ? QByteArray(buffer, n) : QByteArray();
}

// Live OpenVPN processes in this network namespace (a zombie has no executable any more
// and holds neither a tun device nor a socket, so it does not count).
QList<int> openVPNProcesses()
{
    QList<int> found;
    const QString openvpn = canonical(HMTestEnvironment::findProgram(QStringLiteral("openvpn")));
    const QByteArray ownNamespace = linkText(QStringLiteral("/proc/self/ns/net"));
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        const int pid = entry.toInt();
        const QString base = QStringLiteral("/proc/") + entry;
        if (pid > 0 && canonical(base + QStringLiteral("/exe")) == openvpn &&
            linkText(base + QStringLiteral("/ns/net")) == ownNamespace) {
            found.append(pid);
        }
    }
    return found;
}

QStringList tunDevices()
{
    QStringList names;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        if (interface.name().startsWith(QLatin1String("tun"))) {
            names.append(interface.name());
        }
    }
    return names;
}

// The helper records the OpenVPN it runs; only a process that still is that OpenVPN counts.
int trackedOpenVPN()
{
    QFile file(lab("LAB_HELPER_RUN") + QStringLiteral("/openvpn.pid"));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const int pid = file.readAll().trimmed().toInt();
    return openVPNProcesses().contains(pid) ? pid : 0;
}

} // namespace

class HMVPNEndToEndTest : public QObject
{
    Q_OBJECT

private:
    HMVPNLabClient m_lab;
    // Short names for the lab client's managers, set once it is built.
    HMNotificationCenter &m_center = m_lab.center;
    HMRefService &m_service = m_lab.service;
    HMWisprouteManager *m_routing = nullptr;
    HMAccountManager *m_account = nullptr;
    HMReachabilityManager *m_reachability = nullptr;
    HMVPNManager *m_vpn = nullptr;
    QList<VPNState> m_states;
    int m_outOfData = 0;

    // What the usage loop does every minute: sign in again without a new token.
    bool refreshAccount()
    {
        bool done = false;
        HMMaybeError result;
        m_account->loginGetToken(false, [&](const HMMaybeError &error) {
            result = error;
            done = true;
        });
        return QTest::qWaitFor([&] { return done; }, 20000) && !result;
    }

    void setAccountField(const char *key, const QJsonValue &value)
    {
        m_service.updateAccount({{QStringLiteral("username"), lab("LAB_USER")}, {key, value}});
    }

    bool connectAndWait()
    {
        m_vpn->connect();
        return QTest::qWaitFor([this] { return m_vpn->state() == VPNState::Connected; },
                               kConnectTimeoutMs);
    }

    void disconnectAndWait() { m_lab.disconnectAndWait(); }

private Q_SLOTS:
    void initTestCase()
    {
        // In the lab the DNS port is free, so the tunnel carries no default route and losing
        // the link shows in the kernel's route lookup.
        HM_START_VPN_LAB(m_lab);
        m_routing = m_lab.routing.get();
        m_account = m_lab.account.get();
        m_reachability = m_lab.reachability.get();
        m_vpn = m_lab.vpn.get();
        QObject::connect(m_vpn, &HMVPNManager::stateChanged,
                         [this](VPNState, VPNState now) { m_states.append(now); });
        m_center.addObserverForName(HMVPNManager::kOutOfDataNotification,
                                    [this] { ++m_outOfData; });
        QVERIFY(m_routing->isSupported());
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
        QTRY_VERIFY_WITH_TIMEOUT(m_reachability->isReachable(), 5000);
        disconnectAndWait();
        QTRY_VERIFY_WITH_TIMEOUT(openVPNProcesses().isEmpty(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(tunDevices().isEmpty(), 10000);
        m_account->setShouldReconnect(false);
    }

    void cleanupTestCase()
    {
        if (m_vpn) {
            m_lab.disconnectAndWait();
        }
    }

    void connectsToTheLabServer()
    {
        QVERIFY(connectAndWait());
        QCOMPARE(m_vpn->connectedIp(), lab("LAB_SERVER_IP"));
        QCOMPARE(m_vpn->tapAdapter(), QStringLiteral("tun0"));
        QVERIFY(m_states.contains(VPNState::Connecting));
        QCOMPARE(m_states.last(), VPNState::Connected);
        QCOMPARE(tunDevices(), QStringList{QStringLiteral("tun0")});
        QVERIFY(trackedOpenVPN() > 0);

        // The token OpenVPN was answered with is the one the service handed out for this
        // connection, and the server accepted it.
        const QJsonObject account = m_service.account(lab("LAB_USER"));
        QCOMPARE(account.value(QStringLiteral("vpnToken")).toString(), m_account->vpnToken());
    }

    void byteCountsChargeTheAllowance()
    {
        QVERIFY(connectAndWait());
        const qint64 allowance = m_account->bandwidthAvailable();
        QCOMPARE(m_vpn->bandwidthAvailable(), allowance);

        // Traffic into the tunnel: datagrams to the server's end of it.
        QUdpSocket socket;
        const QByteArray payload(1200, 'x');
        for (int i = 0; i < 200; ++i) {
            socket.writeDatagram(payload, QHostAddress(QStringLiteral("10.8.0.1")), 9);
        }
        QTRY_VERIFY_WITH_TIMEOUT(m_vpn->bandwidthAvailable() < allowance - 200 * 1200, 15000);
        QVERIFY(m_vpn->totalPrevious() > 200 * 1200);
        QCOMPARE(m_vpn->state(), VPNState::Connected);
        QCOMPARE(m_account->bandwidthAvailable(), allowance); // the service's figure stays
    }

    void allowanceGoneTakesTheTunnelDown()
    {
        QVERIFY(connectAndWait());
        setAccountField("dataAllowed", 0);
        QVERIFY(refreshAccount());

        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::OutOfData, 20000);
        QCOMPARE(m_outOfData, 1);
        QTRY_VERIFY_WITH_TIMEOUT(openVPNProcesses().isEmpty(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(tunDevices().isEmpty(), 10000);
        QVERIFY(m_vpn->socket() == nullptr);

        // A switch-on without allowance is refused before OpenVPN is started.
        HMMaybeError refused;
        int completions = 0;
        m_vpn->connectWithCompletion([&](const HMMaybeError &error) {
            refused = error;
            ++completions;
        });
        QTRY_COMPARE_WITH_TIMEOUT(completions, 1, 20000);
        QCOMPARE(refused->localizedDescription(), QStringLiteral("Out of Data"));
        QVERIFY(openVPNProcesses().isEmpty());

        // A top-up brings the switch back.
        setAccountField("dataAllowed", 1073741824);
        QVERIFY(refreshAccount());
        QTRY_COMPARE(m_vpn->state(), VPNState::Disconnected);
        QCOMPARE(m_outOfData, 1);
    }

    void rotatedTokenIsRenewedOnReconnect()
    {
        HMLogCapture log;
        QVERIFY(connectAndWait());
        const QString oldToken = m_account->vpnToken();
        const int firstOpenVPN = trackedOpenVPN();
        QVERIFY(firstOpenVPN > 0);

        const QString newToken =
            QStringLiteral("rotated%1").arg(QDateTime::currentMSecsSinceEpoch());
        setAccountField("vpnToken", newToken);
        // OpenVPN restarts its connection (as after a lost peer) and offers the token it holds,
        // which the server now refuses.
        m_states.clear();
        QCOMPARE(::kill(firstOpenVPN, SIGUSR1), 0);

        QTRY_VERIFY_WITH_TIMEOUT(m_states.contains(VPNState::Disconnecting), 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::Connected, kConnectTimeoutMs);
        QCOMPARE(m_account->vpnToken(), newToken);
        QVERIFY(oldToken != newToken);
        const int secondOpenVPN = trackedOpenVPN();
        QVERIFY(secondOpenVPN > 0 && secondOpenVPN != firstOpenVPN);
        const int failed = m_states.indexOf(VPNState::Disconnecting);
        QVERIFY(m_states.indexOf(VPNState::Connecting, failed) > failed);
    }

    void killedOpenVPNIsNoLongerConnected()
    {
        HMLogCapture log;
        m_account->setShouldReconnect(false);
        QVERIFY(connectAndWait());
        const int pid = trackedOpenVPN();
        QVERIFY(pid > 0);
        m_states.clear();
        QCOMPARE(::kill(pid, SIGKILL), 0);

        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::Disconnected, 20000);
        QCOMPARE(m_states.first(), VPNState::Disconnecting);
        QVERIFY(!m_account->shouldReconnect());
        QVERIFY(log.contains(QStringLiteral("Lost the connection to OpenVPN")));
        QTRY_VERIFY_WITH_TIMEOUT(tunDevices().isEmpty(), 10000);
    }

    void linkLossDisconnectsAndReturnReconnects()
    {
        QVERIFY(connectAndWait());
        m_states.clear();
        QVERIFY(runIp(QStringLiteral("link set lab0 down")));

        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::NoConnection, 20000);
        QVERIFY(m_account->shouldReconnect());
        QCOMPARE(m_states.first(), VPNState::Disconnecting);
        QTRY_VERIFY_WITH_TIMEOUT(openVPNProcesses().isEmpty(), 10000);

        QVERIFY(restoreLink());
        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::Connected, kConnectTimeoutMs);
        QVERIFY(!m_account->shouldReconnect());
        QCOMPARE(m_vpn->connectedIp(), lab("LAB_SERVER_IP"));
    }
};

QTEST_GUILESS_MAIN(HMVPNEndToEndTest)
#include "HMVPNEndToEndTest.moc"
