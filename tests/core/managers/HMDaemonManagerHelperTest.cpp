// The helper client against the real hmwispd (root, in a network namespace of its own),
// with a recorder standing in for OpenVPN: the application's own requests, built from its
// own launch configuration, as the helper accepts, refuses and answers them.
#include "HMAccountManager.h"
#include "HMDaemonManager.h"
#include "HMHelperInstance.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {

struct Outcome
{
    bool called = false;
    QVariantMap reply;
    HMMaybeError error;
};

HMDaemonManager::ReplyCompletion recorder(const std::shared_ptr<Outcome> &outcome)
{
    return [outcome](const QVariantMap &reply, const HMMaybeError &error) {
        outcome->called = true;
        outcome->reply = reply;
        outcome->error = error;
    };
}

QString describe(const HMMaybeError &error)
{
    return error ? error->description() : QStringLiteral("no error");
}

} // namespace

class HMDaemonManagerHelperTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    QTemporaryDir m_dir;
    std::unique_ptr<HMPreferenceStore> m_store;
    HMMemoryKeychain m_keychain;
    HMNotificationCenter m_center;
    std::unique_ptr<HMWisprouteManager> m_routing;
    std::unique_ptr<HMAccountManager> m_account;
    std::unique_ptr<HMHelperInstance> m_helper;
    std::unique_ptr<HMDaemonManager> m_daemon;

    QList<QJsonObject> invocations() const
    {
        QList<QJsonObject> all;
        QFile file(m_helper->path(QStringLiteral("bin/invocations.jsonl")));
        if (file.open(QIODevice::ReadOnly)) {
            for (const QByteArray &line : file.readAll().split('\n')) {
                if (!line.trimmed().isEmpty()) {
                    all.append(QJsonDocument::fromJson(line).object());
                }
            }
        }
        return all;
    }

    std::shared_ptr<Outcome>
    send(const std::function<void(HMDaemonManager::ReplyCompletion)> &request)
    {
        auto outcome = std::make_shared<Outcome>();
        request(recorder(outcome));
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
        QFile mode(m_helper->path(QStringLiteral("bin/mode")));
        QVERIFY(mode.open(QIODevice::WriteOnly));
        mode.write("serve"); // listens on the namespace's 127.0.0.1:5678 until SIGTERM
        mode.close();
        QVERIFY2(m_helper->start(&error), qPrintable(error));

        m_store = std::make_unique<HMPreferenceStore>(m_dir.filePath(QStringLiteral("prefs.json")));
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
        m_account =
            std::make_unique<HMAccountManager>(*m_store, m_keychain, m_routing.get(), m_center);
        m_account->setVpnServers(
            {QVariantMap{{"host", "vpn-a.example.net"}, {"port", "1194"}, {"isUdp", true}},
             QVariantMap{{"host", "198.51.100.7"}, {"port", 443}, {"isUdp", false}}});
        HMDaemonManager::Paths paths;
        paths.socketPath = m_helper->socketPath();
        paths.executableDirectory = m_helper->path(QStringLiteral("app"));
        paths.resourceDirectory = m_helper->resourceDir();
        paths.unitDirectories = {m_dir.filePath(QStringLiteral("units"))};
        m_daemon =
            std::make_unique<HMDaemonManager>(*m_store, m_account.get(), m_routing.get(), paths);
        m_daemon->createCommandQueue();
    }

    void cleanupTestCase()
    {
        m_daemon.reset();
        m_helper.reset(); // ends the helper, a left-over recorder and the namespace
    }

    void checkDNSPortOpenAndLogs()
    {
        auto check = send([this](auto c) { m_daemon->checkDNSPortOpen(c); });
        auto logs = send([this](auto c) { m_daemon->getLogs(c); });
        QTRY_VERIFY(logs->called);
        QVERIFY2(!check->error, qPrintable(describe(check->error)));
        QVERIFY2(!logs->error, qPrintable(describe(logs->error)));
        for (const char *key : {"vpnLog", "daemonLog", "dnsLog"}) {
            QVERIFY2(logs->reply.value(QLatin1String(key)).typeId() == QMetaType::QString, key);
        }
    }

    void startAndStopVPNWithTheApplicationsArguments()
    {
        const int before = int(invocations().size());
        auto started = send([this](auto c) { m_daemon->startVPN(c); });
        QTRY_VERIFY_WITH_TIMEOUT(started->called, 15000);
        QVERIFY2(!started->error, qPrintable(describe(started->error)));
        QCOMPARE(started->reply.value("status").toString(), QStringLiteral("ok"));

        const QList<QJsonObject> all = invocations();
        QCOMPARE(int(all.size()), before + 1);
        const QStringList arguments = all.last().value("arguments").toVariant().toStringList();
        const QString remotes = arguments.join(QLatin1Char(' '));
        QVERIFY2(
            remotes.contains("--remote vpn-a.example.net 1194 udp --remote 198.51.100.7 443 tcp"),
            qPrintable(remotes));

        auto stopped = send([this](auto c) { m_daemon->stopVPN(c); });
        QTRY_VERIFY_WITH_TIMEOUT(stopped->called, 15000);
        QVERIFY2(!stopped->error, qPrintable(describe(stopped->error)));
        QCOMPARE(stopped->reply.value("status").toString(), QStringLiteral("ok"));

        // Nothing runs any more: the synchronous stop is answered "ok" too.
        m_daemon->stopVPN();
        auto again = send([this](auto c) { m_daemon->stopVPN(c); });
        QTRY_VERIFY(again->called);
        QCOMPARE(again->reply.value("status").toString(), QStringLiteral("ok"));
    }

    void operatorFileWithAScriptIsRefusedAndNothingStarts()
    {
        const QString file = m_dir.filePath(QStringLiteral("operator.ovpn"));
        QFile config(file);
        QVERIFY(config.open(QIODevice::WriteOnly));
        config.write("client\nup /tmp/evil.sh\n");
        config.close();
        m_store->setValue(QStringLiteral("vpnConfigFile"), file);
        const int before = int(invocations().size());

        auto started = send([this](auto c) { m_daemon->startVPN(c); });
        QTRY_VERIFY_WITH_TIMEOUT(started->called, 15000);
        m_store->setValue(QStringLiteral("vpnConfigFile"), QVariant());
        QVERIFY(started->error.has_value());
        QCOMPARE(started->reply.value("status").toString(), QStringLiteral("error"));
        QCOMPARE(started->error->localizedDescription(), started->reply.value("error").toString());
        QVERIFY2(started->error->localizedDescription().contains(QLatin1String("up")),
                 qPrintable(started->error->localizedDescription()));
        QCOMPARE(int(invocations().size()), before);
    }

    void dnsProxyRequests()
    {
        auto proxy = send(
            [this](auto c) { m_daemon->startDNSProxyWithTap(QStringLiteral("tun0\r\n"), 1, c); });
        auto stop = send([this](auto c) { m_daemon->stopDNSProxy(c); });
        QTRY_VERIFY(stop->called);
        // No DNS proxy ships yet: the helper says so instead of pretending.
        QVERIFY(proxy->error.has_value());
        QVERIFY2(proxy->error->localizedDescription().contains(QLatin1String("DNS proxy")),
                 qPrintable(proxy->error->localizedDescription()));
        QVERIFY2(!stop->error, qPrintable(describe(stop->error)));
    }

    // Last: the helper exits.
    void oldHelperIsAskedToExitAndKeepsItsProgram()
    {
        const QString program = m_dir.filePath(QStringLiteral("hmwispd-old"));
        QVERIFY(QFile::copy(HMHelperInstance::helperProgram(), program));
        QVERIFY(QDir().mkpath(m_dir.filePath(QStringLiteral("units"))));
        QFile unit(m_dir.filePath(QStringLiteral("units/com.hollowmere.mac.hmwispd.service")));
        QVERIFY(unit.open(QIODevice::WriteOnly));
        unit.write("[Service]\nExecStart=" + program.toLocal8Bit() + "\n");
        unit.close();

        m_daemon->removeOldDaemonIfPresent(QStringLiteral("com.hollowmere.mac.hmwispd"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_helper->isRunning(), 10000);
        QVERIFY(QFileInfo::exists(program));
        QVERIFY(QFileInfo::exists(HMHelperInstance::helperProgram()));
    }
};

QTEST_GUILESS_MAIN(HMDaemonManagerHelperTest)
#include "HMDaemonManagerHelperTest.moc"
