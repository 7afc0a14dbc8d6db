// The argument lists the helper's start requests carry, built from the account's servers,
// the routing manager and the preferences.
#include "HMAccountManager.h"
#include "HMDaemonManager.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {

const QString kResources = QStringLiteral("/usr/share/hollowmere");

QStringList head()
{
    return {"--cd",
            kResources,
            "--management",
            "127.0.0.1",
            "5678",
            "--management-hold",
            "--management-query-passwords"};
}

// The built-in body with the local DNS proxy as the tunnel's name server.
QStringList proxyBody()
{
    return {"--auth-user-pass",
            "--ca",
            "ca.crt",
            "--cert",
            "key.crt",
            "--key",
            "key.key",
            "--client",
            "--comp-lzo",
            "--daemon",
            "--dev",
            "tun0",
            "--log",
            "/var/log/hmwispd/vpn.log",
            "--nobind",
            "--ns-cert-type",
            "server",
            "--persist-key",
            "--persist-tun",
            "--ping",
            "10",
            "--ping-restart",
            "30",
            "--dhcp-option",
            "DNS",
            "127.0.0.1",
            "--up",
            "client.up.tunnelblick.sh -m -w -d -aradsgnwADSGNW",
            "--down",
            "client.down.tunnelblick.sh -m -w -d -aradsgnwADSGNW",
            "--up-restart",
            "--hand-window",
            "20",
            "--resolv-retry",
            "infinite",
            "--script-security",
            "3",
            "system",
            "--verb",
            "3"};
}

// The built-in body that sends everything through the tunnel.
QStringList fullTunnelBody()
{
    return {"--auth-user-pass",
            "--ca",
            "ca.crt",
            "--cert",
            "key.crt",
            "--key",
            "key.key",
            "--client",
            "--comp-lzo",
            "--daemon",
            "--dev",
            "tun0",
            "--log",
            "/var/log/hmwispd/vpn.log",
            "--nobind",
            "--ns-cert-type",
            "server",
            "--persist-key",
            "--persist-tun",
            "--ping",
            "10",
            "--ping-restart",
            "30",
            "--dhcp-option",
            "DNS",
            "8.8.8.8",
            "--dhcp-option",
            "DNS",
            "8.8.4.4",
            "--redirect-gateway",
            "def1",
            "--up",
            "client.up.tunnelblick.sh -m -w -d -aradsgnwADSGNW",
            "--down",
            "client.down.tunnelblick.sh -m -w -d -aradsgnwADSGNW",
            "--up-restart",
            "--hand-window",
            "20",
            "--resolv-retry",
            "infinite",
            "--script-security",
            "3",
            "system",
            "--verb",
            "3"};
}

QVariantMap server(const QString &host, const QVariant &port, const QVariant &isUdp)
{
    QVariantMap record{{QStringLiteral("host"), host}, {QStringLiteral("port"), port}};
    if (isUdp.isValid()) {
        record.insert(QStringLiteral("isUdp"), isUdp);
    }
    return record;
}

} // namespace

class HMDaemonLaunchConfigTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<HMPreferenceStore> m_store;
    HMMemoryKeychain m_keychain;
    HMNotificationCenter m_center;
    std::unique_ptr<HMWisprouteManager> m_routing;
    std::unique_ptr<HMAccountManager> m_account;
    std::unique_ptr<HMDaemonManager> m_daemon;

    static HMDaemonManager::Paths paths()
    {
        HMDaemonManager::Paths paths;
        paths.socketPath = QStringLiteral("/nonexistent/helper.socket");
        paths.executableDirectory = QStringLiteral("/opt/hollowmere/bin");
        paths.resourceDirectory = kResources;
        return paths;
    }

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_store =
            std::make_unique<HMPreferenceStore>(m_dir->filePath(QStringLiteral("prefs.json")));
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
        m_account =
            std::make_unique<HMAccountManager>(*m_store, m_keychain, m_routing.get(), m_center);
        m_daemon =
            std::make_unique<HMDaemonManager>(*m_store, m_account.get(), m_routing.get(), paths());
    }

    void cleanup()
    {
        m_daemon.reset();
        m_account.reset();
        m_routing.reset();
        m_store.reset();
    }

    void daemonConfigNamesTheCompanionsBesideTheExecutable()
    {
        const QVariantMap expected{{"openVPNPath", "/opt/hollowmere/bin/openvpn"},
                                   {"dnsProxyPath", "/opt/hollowmere/bin/wisproute"}};
        QCOMPARE(m_daemon->getDaemonConfig(), expected);
    }

    void vpnConfigBodies_data()
    {
        QTest::addColumn<bool>("supported");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("selective routing available: 47 strings") << true << (head() + proxyBody());
        QTest::newRow("not available: 52 strings") << false << (head() + fullTunnelBody());
    }
    void vpnConfigBodies()
    {
        QFETCH(bool, supported);
        QFETCH(QStringList, expected);
        m_routing->setSupported(supported);
        const QStringList config = m_daemon->getVPNConfig();
        QCOMPARE(config, expected);
        QCOMPARE(config.size(), supported ? 47 : 52);
    }

    void remotesFollowTheBody_data()
    {
        QTest::addColumn<QVariantList>("servers");
        QTest::addColumn<QVariant>("forceTCP");
        QTest::addColumn<QStringList>("tail");
        const QVariantList mixed{server("a.example.net", "1194", true),
                                 server("b.example.net", "443", false)};
        QTest::newRow("own protocol")
            << mixed << QVariant() << QStringList{"--remote", "a.example.net", "1194", "udp",
                                                  "--remote", "b.example.net", "443",  "tcp"};
        QTest::newRow("forced TCP")
            << mixed << QVariant(true) << QStringList{"--remote", "a.example.net", "1194", "tcp",
                                                      "--remote", "b.example.net", "443",  "tcp"};
        QTest::newRow("forced TCP switched off")
            << mixed << QVariant(false) << QStringList{"--remote", "a.example.net", "1194", "udp",
                                                       "--remote", "b.example.net", "443",  "tcp"};
        QTest::newRow("numeric port, missing flag")
            << QVariantList{server("198.51.100.7", 1194, QVariant())} << QVariant()
            << QStringList{"--remote", "198.51.100.7", "1194", "tcp"};
    }
    void remotesFollowTheBody()
    {
        QFETCH(QVariantList, servers);
        QFETCH(QVariant, forceTCP);
        QFETCH(QStringList, tail);
        m_routing->setSupported(true);
        m_account->setVpnServers(servers);
        m_store->setValue(QStringLiteral("vpnForceTCP"), forceTCP);
        const QStringList config = m_daemon->getVPNConfig();
        QCOMPARE(config.mid(0, 47), head() + proxyBody());
        QCOMPARE(config.mid(47), tail);
    }

    void operatorConfigFileReplacesTheBodyOnlyWhenItExists()
    {
        m_account->setVpnServers({server("a.example.net", "1194", true)});
        const QString file = m_dir->filePath(QStringLiteral("operator.ovpn"));
        m_store->setValue(QStringLiteral("vpnConfigFile"), file);

        // Missing: silently the built-in body.
        QCOMPARE(m_daemon->getVPNConfig().mid(7, 3),
                 (QStringList{"--auth-user-pass", "--ca", "ca.crt"}));

        QFile create(file);
        QVERIFY(create.open(QIODevice::WriteOnly));
        create.close();
        const QStringList expected =
            head() + QStringList{"--config", file, "--remote", "a.example.net", "1194", "udp"};
        QCOMPARE(m_daemon->getVPNConfig(), expected);
    }

    void dnsProxyConfigByMode_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("domains");
        QTest::addColumn<QStringList>("routing");
        QTest::newRow("off") << 0 << "nothing" << QStringList();
        QTest::newRow("exclusion") << 1 << HMWisprouteManager::getDomainsFilePathWithExlusion(true)
                                   << QStringList{"-wisproute", "wisprouteEx"};
        QTest::newRow("inclusion") << 2 << HMWisprouteManager::getDomainsFilePathWithExlusion(false)
                                   << QStringList{"-wisproute", "wisproute"};
        QTest::newRow("unknown mode acts as inclusion")
            << 3 << HMWisprouteManager::getDomainsFilePathWithExlusion(false)
            << QStringList{"-wisproute", "wisproute"};
    }
    void dnsProxyConfigByMode()
    {
        QFETCH(int, mode);
        QFETCH(QString, domains);
        QFETCH(QStringList, routing);
        QVERIFY(!HMWisprouteManager::getDomainsFilePathWithExlusion(true).isEmpty());
        QVERIFY(HMWisprouteManager::getDomainsFilePathWithExlusion(true) !=
                HMWisprouteManager::getDomainsFilePathWithExlusion(false));
        m_daemon->setTunnelInfo([] { return QStringLiteral("10.99.0.1"); }, nullptr);
        const QStringList expected =
            QStringList{
                "-f",      domains,     "-s",   kResources, "-log", "/var/log/hmwispd/dns.log",
                "-server", "10.99.0.1", "-tap", "tun0"} +
            routing;
        QCOMPARE(m_daemon->getDNSProxyConfigWithWisproute(mode, QStringLiteral("tun0")), expected);
    }

    void dnsProxyDebugValueIsPassedOnAsStored_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QStringList>("debug");
        QTest::newRow("absent") << QVariant() << QStringList();
        QTest::newRow("text") << QVariant("verbose") << QStringList{"-debug", "verbose"};
        QTest::newRow("empty text still counts") << QVariant("") << QStringList{"-debug", ""};
        QTest::newRow("number") << QVariant(2) << QStringList{"-debug", "2"};
    }
    void dnsProxyDebugValueIsPassedOnAsStored()
    {
        QFETCH(QVariant, stored);
        QFETCH(QStringList, debug);
        m_store->setValue(QStringLiteral("debugWisproute"), stored);
        const QStringList config =
            m_daemon->getDNSProxyConfigWithWisproute(0, QStringLiteral("tun3"));
        QCOMPARE(config.mid(10), debug);
        // Without a VPN manager attached the server address is empty, not made up.
        QCOMPARE(config.at(7), QString());
    }
};

QTEST_GUILESS_MAIN(HMDaemonLaunchConfigTest)
#include "HMDaemonLaunchConfigTest.moc"
