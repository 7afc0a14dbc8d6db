// The application's own requests as the real hmwispd (root, own network namespace) takes them.
#include "HMAccountManager.h"
#include "HMAccountWorld.h"
#include "HMDaemonManager.h"
#include "HMDeflatedLog.h"
#include "HMHelperInstance.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {

struct Outcome
{
    bool called = false;
    QVariantMap reply;
    HMMaybeError error;

    QString status() const { return reply.value("status").toString(); }
    QByteArray describe() const { return error ? error->description().toUtf8() : "no error"; }
};

} // namespace

class HMDaemonManagerHelperTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMAccountWorld> m_world;
    std::unique_ptr<HMHelperInstance> m_helper;
    std::unique_ptr<HMDaemonManager> m_daemon;

    std::shared_ptr<Outcome>
    send(const std::function<void(HMDaemonManager &, HMDaemonManager::ReplyCompletion)> &request)
    {
        auto outcome = std::make_shared<Outcome>();
        request(*m_daemon, [outcome](const QVariantMap &reply, const HMMaybeError &error) {
            outcome->called = true;
            outcome->reply = reply;
            outcome->error = error;
        });
        return outcome;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!HMTestEnvironment::canUseNetworkNamespaces() ||
            HMTestEnvironment::findProgram(QStringLiteral("systemd-socket-activate")).isEmpty()) {
            QSKIP("needs root, network namespaces and systemd-socket-activate");
        }
        m_home = HMTestEnvironment::isolateUserDirectories();
        m_helper = std::make_unique<HMHelperInstance>();
        HMHelperInstance::Options options;
        options.openVPN = HMHelperInstance::testProgram(QStringLiteral("hm-test-fake-openvpn"));
        options.startTimeoutMs = 5000;
        QString error;
        QVERIFY2(m_helper->prepare(options, &error), qPrintable(error));
        m_helper->setFakeOpenVPNMode("serve"); // listens on its management socket until SIGTERM
        QVERIFY2(m_helper->start(&error), qPrintable(error));

        m_world = std::make_unique<HMAccountWorld>();
        m_world->account->setVpnServers(
            {QVariantMap{{"host", "vpn-a.example.net"}, {"port", "1194"}, {"isUdp", true}},
             QVariantMap{{"host", "198.51.100.7"}, {"port", 443}, {"isUdp", false}}});
        HMDaemonManager::Paths paths;
        paths.socketPath = m_helper->socketPath();
        paths.executableDirectory = m_helper->path("app");
        paths.resourceDirectory = m_helper->resourceDir();
        paths.unitDirectories = {m_world->dir.filePath("units")};
        m_daemon = std::make_unique<HMDaemonManager>(*m_world->store, m_world->account.get(),
                                                     m_world->routing.get(), paths);
        m_daemon->createCommandQueue();
        m_daemon->setTunnelInfo([] { return QStringLiteral("198.51.100.7"); },
                                [] { return QStringLiteral("tun0\r\n"); });
    }

    void cleanupTestCase()
    {
        m_daemon.reset();
        m_helper.reset(); // ends the helper, a left-over recorder and the namespace
    }

    void checkDNSPortOpenAndLogs()
    {
        auto check = send([](HMDaemonManager &d, auto c) { d.checkDNSPortOpen(c); });
        auto logs = send([](HMDaemonManager &d, auto c) { d.getLogs(c); });
        QTRY_VERIFY(logs->called);
        QVERIFY2(!check->error, check->describe());
        QVERIFY2(!logs->error, logs->describe());
        for (const char *key : {"vpnLog", "daemonLog", "dnsLog"}) {
            QString error;
            QVERIFY2(HMDeflatedLog::fromWire(logs->reply.value(QLatin1String(key)), &error),
                     qPrintable(QLatin1String(key) + ": " + error));
        }
    }

    // What the application really builds must pass, in every form it takes.
    void startAndStopVPN_data()
    {
        QTest::addColumn<bool>("selectiveRouting");
        QTest::addColumn<bool>("forceTCP");
        QTest::addColumn<QByteArray>("configFile"); // empty: none
        QTest::addColumn<QStringList>("protocols"); // empty: refused
        QTest::newRow("selective routing")
            << true << false << QByteArray() << QStringList{"udp", "tcp"};
        QTest::newRow("full tunnel") << false << false << QByteArray() << QStringList{"udp", "tcp"};
        QTest::newRow("forced TCP") << false << true << QByteArray() << QStringList{"tcp", "tcp"};
        QTest::newRow("operator's configuration file")
            << true << false << QByteArray("client\nverb 3\n") << QStringList{"udp", "tcp"};
        QTest::newRow("operator's file with a script")
            << true << false << QByteArray("client\nup /tmp/evil.sh\n") << QStringList();
    }

    void startAndStopVPN()
    {
        QFETCH(bool, selectiveRouting);
        QFETCH(bool, forceTCP);
        QFETCH(QByteArray, configFile);
        QFETCH(QStringList, protocols);
        m_world->routing->setSupported(selectiveRouting);
        m_world->store->setValue("vpnForceTCP", forceTCP);
        const QString file = m_world->dir.filePath("operator.ovpn");
        QVERIFY(HMTestEnvironment::writeFile(file, configFile));
        m_world->store->setValue("vpnConfigFile",
                                 configFile.isEmpty() ? QVariant() : QVariant(file));
        const qsizetype before = m_helper->invocations().size();

        auto started = send([](HMDaemonManager &d, auto c) { d.startVPN(c); });
        QTRY_VERIFY_WITH_TIMEOUT(started->called, 15000);
        m_world->store->setValue("vpnConfigFile", QVariant());
        if (protocols.isEmpty()) {
            QVERIFY(started->error.has_value());
            QCOMPARE(started->status(), QStringLiteral("error"));
            QCOMPARE(started->error->localizedDescription(),
                     started->reply.value("error").toString());
            QVERIFY2(started->error->localizedDescription().contains("directive 'up'"),
                     started->describe());
            QCOMPARE(m_helper->invocations().size(), before);
            return;
        }
        QVERIFY2(!started->error, started->describe());
        QCOMPARE(started->status(), QStringLiteral("ok"));
        QCOMPARE(m_helper->invocations().size(), before + 1);
        const QStringList ran = m_helper->lastInvocationArguments();
        QCOMPARE(ran.mid(ran.indexOf("--remote"), 8),
                 QStringList({"--remote", "vpn-a.example.net", "1194", protocols.at(0), "--remote",
                              "198.51.100.7", "443", protocols.at(1)}));
        QCOMPARE(ran.contains("--config"), !configFile.isEmpty());

        auto stopped = send([](HMDaemonManager &d, auto c) { d.stopVPN(c); });
        QTRY_VERIFY_WITH_TIMEOUT(stopped->called, 15000);
        QVERIFY2(!stopped->error, stopped->describe());
        QCOMPARE(stopped->status(), QStringLiteral("ok"));

        // Nothing runs any more: the synchronous stop is answered "ok" too.
        m_daemon->stopVPN();
        auto again = send([](HMDaemonManager &d, auto c) { d.stopVPN(c); });
        QTRY_VERIFY(again->called);
        QCOMPARE(again->status(), QStringLiteral("ok"));
    }

    void dnsProxyRequests()
    {
        const qsizetype before = m_helper->invocations().size();
        auto proxy =
            send([](HMDaemonManager &d, auto c) { d.startDNSProxyWithTap("tun0\r\n", 1, c); });
        auto stop = send([](HMDaemonManager &d, auto c) { d.stopDNSProxy(c); });
        QTRY_VERIFY(stop->called);
        // The request has the shape the helper accepts (the tap trimmed); with no tunnel up
        // there is nothing to steer, and the helper says so.
        QVERIFY(proxy->error.has_value());
        QVERIFY2(proxy->error->localizedDescription().contains("no tunnel is up"),
                 proxy->describe());
        QVERIFY2(!stop->error, stop->describe());
        QCOMPARE(m_helper->invocations().size(), before);
    }

    // Last: the helper exits.
    void oldHelperIsAskedToExitAndKeepsItsProgram()
    {
        const QString program = m_world->dir.filePath("hmwispd-old");
        QVERIFY(QFile::copy(HMHelperInstance::helperProgram(), program));
        QVERIFY(HMTestEnvironment::writeFile(
            m_world->dir.filePath("units/com.hollowmere.mac.hmwispd.service"),
            "[Service]\nExecStart=" + program.toLocal8Bit() + "\n"));
        m_daemon->removeOldDaemonIfPresent("com.hollowmere.mac.hmwispd");
        QTRY_VERIFY_WITH_TIMEOUT(!m_helper->isRunning(), 10000);
        QVERIFY(QFileInfo::exists(program));
        QVERIFY(QFileInfo::exists(HMHelperInstance::helperProgram()));
    }
};

QTEST_GUILESS_MAIN(HMDaemonManagerHelperTest)
#include "HMDaemonManagerHelperTest.moc"
