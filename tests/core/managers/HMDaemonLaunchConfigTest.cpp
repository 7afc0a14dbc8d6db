// The argument lists of the helper's start requests.
#include "HMAccountManager.h"
#include "HMAccountWorld.h"
#include "HMDaemonManager.h"
#include "HMExpectedArguments.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {

const QString kResources = QStringLiteral("/usr/share/hollowmere");

QVariantMap server(const QString &host, const QVariant &port, const QVariant &isUdp)
{
    QVariantMap record{{"host", host}, {"port", port}};
    if (isUdp.isValid()) {
        record.insert("isUdp", isUdp);
    }
    return record;
}

} // namespace

class HMDaemonLaunchConfigTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMAccountWorld> m_world;
    std::unique_ptr<HMDaemonManager> m_daemon;

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        m_world = std::make_unique<HMAccountWorld>();
        HMDaemonManager::Paths paths;
        paths.socketPath = "/nonexistent/helper.socket";
        paths.executableDirectory = "/opt/hollowmere/bin";
        paths.resourceDirectory = kResources;
        m_daemon = std::make_unique<HMDaemonManager>(*m_world->store, m_world->account.get(),
                                                     m_world->routing.get(), paths);
    }

    void cleanup()
    {
        m_daemon.reset();
        m_world.reset();
    }

    void daemonConfigNamesTheCompanionsBesideTheExecutable()
    {
        const QVariantMap expected{{"openVPNPath", "/opt/hollowmere/bin/openvpn"},
                                   {"dnsProxyPath", "/opt/hollowmere/bin/wisproute"}};
        QCOMPARE(m_daemon->getDaemonConfig(), expected);
    }

    void remotesFollowTheBody_data()
    {
        QTest::addColumn<bool>("supported"); // selective routing: the body's two forms
        QTest::addColumn<QVariantList>("servers");
        QTest::addColumn<QVariant>("forceTCP");
        QTest::addColumn<QString>("tail");
        const QVariantList mixed{server("a.example.net", "1194", true),
                                 server("b.example.net", "443", false)};
        QTest::newRow("full tunnel, no servers") << false << QVariantList() << QVariant() << "";
        QTest::newRow("own protocol")
            << true << mixed << QVariant()
            << "--remote a.example.net 1194 udp --remote b.example.net 443 tcp";
        QTest::newRow("forced TCP")
            << true << mixed << QVariant(true)
            << "--remote a.example.net 1194 tcp --remote b.example.net 443 tcp";
        QTest::newRow("forced TCP switched off")
            << true << mixed << QVariant(false)
            << "--remote a.example.net 1194 udp --remote b.example.net 443 tcp";
        QTest::newRow("numeric port, missing flag")
            << true << QVariantList{server("198.51.100.7", 1194, QVariant())} << QVariant()
            << "--remote 198.51.100.7 1194 tcp";
    }
    void remotesFollowTheBody()
    {
        QFETCH(bool, supported);
        QFETCH(QVariantList, servers);
        QFETCH(QVariant, forceTCP);
        QFETCH(QString, tail);
        m_world->routing->setSupported(supported);
        m_world->account->setVpnServers(servers);
        m_world->store->setValue("vpnForceTCP", forceTCP);
        const QStringList config = m_daemon->getVPNConfig();
        const QStringList body = HMExpectedArguments::vpnConfig(kResources, supported);
        QCOMPARE(config.mid(0, body.size()), body);
        QCOMPARE(config.mid(body.size()), tail.split(' ', Qt::SkipEmptyParts));
    }

    void operatorConfigFileReplacesTheBodyOnlyWhenItExists()
    {
        m_world->routing->setSupported(true);
        m_world->account->setVpnServers({server("a.example.net", "1194", true)});
        const QString file = m_world->dir.filePath("operator.ovpn");
        m_world->store->setValue("vpnConfigFile", file);
        const QStringList remote{"--remote", "a.example.net", "1194", "udp"};

        // Missing: silently the built-in body.
        QCOMPARE(m_daemon->getVPNConfig(),
                 HMExpectedArguments::vpnConfig(kResources, true) + remote);
        QVERIFY(HMTestEnvironment::writeFile(file, QByteArray()));
        QCOMPARE(m_daemon->getVPNConfig(),
                 (HMExpectedArguments::head(kResources) + QStringList{"--config", file} + remote));
    }

    void dnsProxyConfigByMode_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("domains");
        QTest::addColumn<QStringList>("routing");
        const QString inclusion = HMWisprouteManager::getDomainsFilePathWithExlusion(false);
        QTest::newRow("off") << 0 << "nothing" << QStringList();
        QTest::newRow("exclusion") << 1 << HMWisprouteManager::getDomainsFilePathWithExlusion(true)
                                   << QStringList{"-wisproute", "wisprouteEx"};
        QTest::newRow("inclusion") << 2 << inclusion << QStringList{"-wisproute", "wisproute"};
        QTest::newRow("unknown mode acts as inclusion")
            << 3 << inclusion << QStringList{"-wisproute", "wisproute"};
    }
    void dnsProxyConfigByMode()
    {
        QFETCH(int, mode);
        QFETCH(QString, domains);
        QFETCH(QStringList, routing);
        m_daemon->setTunnelInfo([] { return QStringLiteral("10.99.0.1"); }, nullptr);
        const QStringList expected =
            QStringList{
                "-f",      domains,     "-s",   kResources, "-log", "/var/log/hmwispd/dns.log",
                "-server", "10.99.0.1", "-tap", "tun0"} +
            routing;
        QCOMPARE(m_daemon->getDNSProxyConfigWithWisproute(mode, "tun0"), expected);
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
        m_world->store->setValue("debugWisproute", stored);
        const QStringList config = m_daemon->getDNSProxyConfigWithWisproute(0, "tun3");
        QCOMPARE(config.mid(10), debug);
        // Without a VPN manager attached the server address is empty, not made up.
        QCOMPARE(config.at(7), QString());
    }
};

QTEST_GUILESS_MAIN(HMDaemonLaunchConfigTest)
#include "HMDaemonLaunchConfigTest.moc"
