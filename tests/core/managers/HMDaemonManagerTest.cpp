// The helper client against a scripted peer on a real socket (systemd-socket-activate).
#include "HMDaemonManager.h"
#include "HMAccountManager.h"
#include "HMAccountWorld.h"
#include "HMException.h"
#include "HMHelperPeerProcess.h"
#include "HMLogCapture.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWireError.h"
#include "HMWisprouteManager.h"

#include <QDir>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>
#include <cerrno>
#include <memory>

namespace {

struct Outcome
{
    bool called = false;
    int calls = 0;
    QVariantMap reply;
    HMMaybeError error;
    bool onMainThread = false;
    qint64 finishedAt = 0;
};

using Operation = std::function<void(HMDaemonManager &, HMDaemonManager::ReplyCompletion)>;

HMDaemonManager::ReplyCompletion recorder(std::shared_ptr<Outcome> outcome)
{
    return [outcome](const QVariantMap &reply, const HMMaybeError &error) {
        outcome->called = true;
        ++outcome->calls;
        outcome->reply = reply;
        outcome->error = error;
        outcome->onMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
        static qint64 sequence = 0;
        outcome->finishedAt = ++sequence;
    };
}

QMap<QString, Operation> operations()
{
    using C = HMDaemonManager::ReplyCompletion;
    return {
        {"startVPN", [](HMDaemonManager &d, C c) { d.startVPN(std::move(c)); }},
        {"stopVPN", [](HMDaemonManager &d, C c) { d.stopVPN(std::move(c)); }},
        {"getLogs", [](HMDaemonManager &d, C c) { d.getLogs(std::move(c)); }},
        {"startDNSProxy",
         [](HMDaemonManager &d, C c) { d.startDNSProxyWithTap("tun0", 0, std::move(c)); }},
        {"stopDNSProxy", [](HMDaemonManager &d, C c) { d.stopDNSProxy(std::move(c)); }},
        {"checkDNSPortOpen", [](HMDaemonManager &d, C c) { d.checkDNSPortOpen(std::move(c)); }},
    };
}

int openDescriptorCount()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

} // namespace

Q_DECLARE_METATYPE(Operation)

class HMDaemonManagerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMAccountWorld> m_world;
    std::unique_ptr<HMHelperPeerProcess> m_peer;
    std::unique_ptr<HMDaemonManager> m_daemon;

    HMDaemonManager::Paths paths(const QString &socketPath) const
    {
        HMDaemonManager::Paths paths;
        paths.socketPath = socketPath;
        paths.executableDirectory = QStringLiteral("/opt/hollowmere/bin");
        paths.resourceDirectory = QStringLiteral("/usr/share/hollowmere");
        paths.unitDirectories = {m_world->dir.filePath(QStringLiteral("units"))};
        return paths;
    }

    std::shared_ptr<Outcome> run(const Operation &operation)
    {
        auto outcome = std::make_shared<Outcome>();
        operation(*m_daemon, recorder(outcome));
        return outcome;
    }

    QJsonObject lastRequest() const
    {
        const QList<QJsonObject> all = m_peer->requests();
        return all.isEmpty() ? QJsonObject()
                             : all.last().value(QStringLiteral("request")).toObject();
    }

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        m_world = std::make_unique<HMAccountWorld>();
        m_peer = std::make_unique<HMHelperPeerProcess>();
        QVERIFY2(m_peer->start(), qPrintable(m_peer->errorString()));
        m_daemon =
            std::make_unique<HMDaemonManager>(*m_world->store, m_world->account.get(),
                                              m_world->routing.get(), paths(m_peer->socketPath()));
        m_daemon->createCommandQueue();
    }

    void cleanup()
    {
        // The client first: its destruction wakes an exchange blocked on a silent peer.
        m_daemon.reset();
        m_peer.reset();
        m_world.reset();
    }

    void everyRequestAssertsBeforeTheQueueExists_data()
    {
        QTest::addColumn<Operation>("operation");
        const QMap<QString, Operation> all = operations();
        for (auto it = all.begin(); it != all.end(); ++it) {
            QTest::newRow(qPrintable(it.key())) << it.value();
        }
        QTest::newRow("stopVPN, synchronous")
            << Operation([](HMDaemonManager &d, HMDaemonManager::ReplyCompletion) { d.stopVPN(); });
        QTest::newRow("executeRequest")
            << Operation([](HMDaemonManager &d, HMDaemonManager::ReplyCompletion c) {
                   d.executeRequest({{"action", "checkDNSPortOpen"}}, true, std::move(c));
               });
    }
    void everyRequestAssertsBeforeTheQueueExists()
    {
        QFETCH(Operation, operation);
        HMDaemonManager fresh(*m_world->store, m_world->account.get(), nullptr,
                              paths(m_peer->socketPath()));
        auto outcome = std::make_shared<Outcome>();
        QString reason;
        try {
            operation(fresh, recorder(outcome));
        } catch (const HMException &exception) {
            reason = exception.reason();
        }
        QCOMPARE(reason, QStringLiteral("Daemon should be initialized prior to use"));

        // Once the queue exists the same manager works, and the helper's first request is
        // this one: nothing was sent before.
        fresh.createCommandQueue();
        auto check = std::make_shared<Outcome>();
        fresh.checkDNSPortOpen(recorder(check));
        QTRY_VERIFY(check->called);
        QCOMPARE(m_peer->actions(), QStringList{"checkDNSPortOpen"});
        QVERIFY(!outcome->called);
    }

    void requestFrameIsByteExact()
    {
        auto outcome = run(operations().value("stopVPN"));
        QTRY_VERIFY(outcome->called);
        const QList<QJsonObject> requests = m_peer->requests();
        QCOMPARE(requests.size(), 1);
        // 16 as a little-endian 64-bit length, then the CBOR map {"action": "stopVPN"}.
        QCOMPARE(requests.first().value("frame").toString(),
                 QStringLiteral("1000000000000000a166616374696f6e6773746f7056504e"));
    }

    void replyHandling_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<QJsonObject>("step");
        QTest::addColumn<bool>("replyPassedOn");
        QTest::addColumn<QString>("errorDomain");
        QTest::addColumn<QString>("errorText");

        const QJsonObject ok{{"status", "ok"}};
        const QJsonObject logs{
            {"status", "ok"}, {"vpnLog", "vpn text"}, {"daemonLog", "daemon text"}, {"dnsLog", ""}};
        const QJsonObject failed{{"status", "error"}, {"error", "OpenVPN did not start"}};
        const QJsonObject noStatus{{"vpnLog", "x"}};
        for (const QString &action : operations().keys()) {
            const bool raw = action == QLatin1String("stopVPN"); // status never examined
            const QByteArray name = action.toLatin1();
            QTest::newRow(QByteArray(name + ", ok").constData())
                << action << QJsonObject{{"reply", action == "getLogs" ? logs : ok}} << true
                << QString() << QString();
            QTest::newRow(QByteArray(name + ", status error").constData())
                << action << QJsonObject{{"reply", failed}} << true << (raw ? QString() : "hmwisp")
                << (raw ? QString() : "OpenVPN did not start");
            QTest::newRow(QByteArray(name + ", no status").constData())
                << action << QJsonObject{{"reply", noStatus}} << true
                << (raw ? QString() : "hmwisp")
                << (raw ? QString() : "The helper answered \"\" without saying why");
        }
        // The transport fails alike for every action.
        QTest::newRow("not CBOR") << "getLogs" << QJsonObject{{"behaviour", "garbage"}} << false
                                  << "wire"
                                  << "payload is not valid CBOR: Invalid CBOR stream: unexpected "
                                     "'break' byte";
        QTest::newRow("closed without reply")
            << "stopVPN" << QJsonObject{{"behaviour", "close"}} << false << "sockets"
            << "read() size failed: Connection reset by peer";
    }
    void replyHandling()
    {
        QFETCH(QString, action);
        QFETCH(QJsonObject, step);
        QFETCH(bool, replyPassedOn);
        QFETCH(QString, errorDomain);
        QFETCH(QString, errorText);
        m_peer->setStep(action, step);

        auto outcome = run(operations().value(action));
        QTRY_VERIFY(outcome->called);
        QTRY_COMPARE(lastRequest().value("action").toString(), action);
        QVERIFY(outcome->onMainThread);
        QCOMPARE(outcome->calls, 1);
        if (replyPassedOn) {
            QCOMPARE(QJsonObject::fromVariantMap(outcome->reply), step.value("reply").toObject());
        } else {
            QVERIFY(outcome->reply.isEmpty());
        }
        if (errorDomain.isEmpty()) {
            QVERIFY2(!outcome->error,
                     qPrintable(outcome->error ? outcome->error->description() : QString()));
        } else {
            QVERIFY(outcome->error.has_value());
            QCOMPARE(outcome->error->domain(), errorDomain);
            QCOMPARE(outcome->error->localizedDescription(), errorText);
        }
    }

    void requestDictionaries()
    {
        m_peer->setStep("*", QJsonObject{{"reply", QJsonObject{{"status", "ok"}}}});
        m_world->routing->setSupported(true);
        m_world->account->setVpnServers(
            {QVariantMap{{"host", "vpn.example.net"}, {"port", "1194"}, {"isUdp", true}}});
        m_daemon->setTunnelInfo([] { return QStringLiteral("10.99.0.1"); }, nullptr);

        auto started = run(operations().value("startVPN"));
        QTRY_VERIFY(started->called);
        const QJsonObject startVPN = lastRequest();
        QCOMPARE(startVPN.keys(), (QStringList{"action", "params"}));
        const QJsonObject params = startVPN.value("params").toObject();
        QCOMPARE(params.value("daemonConfig").toObject().toVariantMap(),
                 m_daemon->getDaemonConfig());
        QCOMPARE(params.value("vpnConfig").toArray().toVariantList(),
                 QVariant(m_daemon->getVPNConfig()).toList());

        // The tap name arrives as OpenVPN logged it and goes out trimmed.
        auto proxy = std::make_shared<Outcome>();
        m_daemon->startDNSProxyWithTap(QStringLiteral(" tun7\r\n"), 1, recorder(proxy));
        QTRY_VERIFY(proxy->called);
        const QJsonObject startDNS = lastRequest();
        QCOMPARE(startDNS.value("daemon").toString(), QStringLiteral("dns"));
        QCOMPARE(
            startDNS.value("params").toObject().value("proxyConfig").toArray().toVariantList(),
            QVariant(m_daemon->getDNSProxyConfigWithWisproute(1, QStringLiteral("tun7"))).toList());

        auto stopped = run(operations().value("stopDNSProxy"));
        QTRY_VERIFY(stopped->called);
        QCOMPARE(lastRequest(), (QJsonObject{{"action", "stopDNSProxy"}, {"daemon", "dns"}}));

        auto checked = run(operations().value("checkDNSPortOpen"));
        QTRY_VERIFY(checked->called);
        QCOMPARE(lastRequest(), (QJsonObject{{"action", "checkDNSPortOpen"}}));
    }

    void completionsArriveInSubmissionOrder()
    {
        m_peer->setStep("*", QJsonObject{{"reply", QJsonObject{{"status", "ok"}}}});
        QStringList finished;
        const QStringList sent{"getLogs", "checkDNSPortOpen", "stopDNSProxy", "stopVPN", "getLogs"};
        for (const QString &action : sent) {
            operations().value(action)(
                *m_daemon, [&finished, action](const QVariantMap &, const HMMaybeError &) {
                    finished.append(action);
                });
        }
        QTRY_COMPARE(finished.size(), sent.size());
        QCOMPARE(finished, sent);
        QCOMPARE(m_peer->actions(), sent);
    }

    void helperThatNeverAnswersHoldsOnlyTheQueue()
    {
        m_peer->setStep("checkDNSPortOpen", QJsonObject{{"behaviour", "silent"}});
        m_peer->setReply("getLogs", QJsonObject{{"status", "ok"}});
        auto blocked = run(operations().value("checkDNSPortOpen"));
        auto waiting = run(operations().value("getLogs"));

        // The calls returned, so the application keeps running while the exchange hangs.
        // Absence can only be shown over time: longer than one of the reader's 1,000 ms polls.
        QTest::qWait(1200);
        QVERIFY(!blocked->called);
        QVERIFY(!waiting->called);
        QCOMPARE(m_peer->actions(), QStringList{"checkDNSPortOpen"});

        // When the helper goes away, the hung exchange fails and only then the next one runs
        // (and fails too: whether it still reaches a closing socket or none is a race).
        m_peer->stop();
        QTRY_VERIFY(waiting->called);
        QVERIFY(blocked->called);
        QVERIFY(blocked->finishedAt < waiting->finishedAt);
        QCOMPARE(blocked->error->localizedDescription(),
                 QStringLiteral("read() size failed: Connection reset by peer"));
        QVERIFY(waiting->error.has_value());
        QCOMPARE(waiting->error->domain(), QStringLiteral("sockets"));
    }

    void destroyingTheClientEndsAHungExchange()
    {
        m_peer->setStep("getLogs", QJsonObject{{"behaviour", "silent"}});
        auto blocked = run(operations().value("getLogs"));
        QTRY_COMPARE(m_peer->actions(), QStringList{"getLogs"});
        m_daemon.reset();
        QTRY_VERIFY(blocked->called);
        QVERIFY(blocked->error.has_value());
    }

    void missingHelperIsAnErrorForTheCaller()
    {
        HMLogCapture log;
        HMDaemonManager absent(*m_world->store, m_world->account.get(), nullptr,
                               paths(m_world->dir.filePath("no-such.socket")));
        absent.createCommandQueue();
        auto outcome = std::make_shared<Outcome>();
        absent.getLogs(recorder(outcome));
        QTRY_VERIFY(outcome->called);
        QVERIFY(outcome->onMainThread);
        QCOMPARE(outcome->error->domain(), QStringLiteral("sockets"));
        QCOMPARE(outcome->error->code(), long(ENOENT));
        QCOMPARE(outcome->error->localizedDescription(),
                 QStringLiteral("socket connect() failed: No such file or directory"));
        QVERIFY(log.contains(QStringLiteral(
            "error: socket connect() failed: No such file or directory [sockets](2)")));
    }

    void socketIsClosedOnEveryPath()
    {
        HMDaemonManager absent(*m_world->store, m_world->account.get(), nullptr,
                               paths(m_world->dir.filePath("no-such.socket")));
        absent.createCommandQueue();
        m_peer->setReply("checkDNSPortOpen", QJsonObject{{"status", "ok"}});
        m_peer->setReply("stopDNSProxy", QJsonObject{{"status", "error"}, {"error", "no"}});
        m_peer->setStep("getLogs", QJsonObject{{"behaviour", "garbage"}});
        m_peer->setStep("stopVPN", QJsonObject{{"behaviour", "close"}});
        // Wide enough to hold an announced length with no payload behind it.
        m_peer->setStep("startVPN", QJsonObject{{"rawHex", "ff00000000000000abcd"}});

        // Warm up once so lazily opened descriptors (logging, the queue) are not counted.
        auto warm = run(operations().value("checkDNSPortOpen"));
        QTRY_VERIFY(warm->called);
        const int before = openDescriptorCount();
        QList<std::shared_ptr<Outcome>> outcomes;
        for (int round = 0; round < 3; ++round) {
            for (const char *action :
                 {"checkDNSPortOpen", "stopDNSProxy", "getLogs", "stopVPN", "startVPN"}) {
                outcomes.append(run(operations().value(QString::fromLatin1(action))));
            }
            auto failed = std::make_shared<Outcome>();
            absent.checkDNSPortOpen(recorder(failed));
            outcomes.append(failed);
        }
        for (const auto &outcome : outcomes) {
            QTRY_VERIFY(outcome->called);
        }
        QCOMPARE(openDescriptorCount(), before);
    }

    void removeOldDaemon_data()
    {
        QTest::addColumn<QByteArray>("unitText"); // %1: an installed program
        QTest::addColumn<bool>("asked");
        QTest::newRow("installed program")
            << QByteArray("[Unit]\nDescription=old helper\nExecStart=/not/this\n\n"
                          "[Service]\nType=simple\nExecStart=-%1 --serve\n")
            << true;
        QTest::newRow("no unit") << QByteArray() << false;
        QTest::newRow("program gone")
            << QByteArray("[Service]\nExecStart=/nonexistent/hmwispd\n") << false;
        QTest::newRow("no ExecStart") << QByteArray("[Service]\nType=simple\n") << false;
    }
    void removeOldDaemon()
    {
        QFETCH(QByteArray, unitText);
        QFETCH(bool, asked);
        HMLogCapture log;
        const QString program = m_world->dir.filePath("old-hmwispd");
        QVERIFY(HMTestEnvironment::writeFile(program, QByteArray()));
        if (!unitText.isEmpty()) {
            QVERIFY(HMTestEnvironment::writeFile(
                m_world->dir.filePath("units/com.hollowmere.mac.hmwispd.service"),
                unitText.replace("%1", program.toUtf8())));
        }
        m_peer->setReply("suicide",
                         QJsonObject{{"status", "error"}, {"error", "refusing to exit now"}});
        m_daemon->removeOldDaemonIfPresent("com.hollowmere.mac.hmwispd");
        if (asked) {
            QCOMPARE(m_daemon->getInstalledDaemonPath("com.hollowmere.mac.hmwispd"), program);
            // Synchronous: the helper has the request when the call returns.
            QCOMPARE(lastRequest(), (QJsonObject{{"action", "suicide"},
                                                 {"params", QJsonObject{{"path", program}}}}));
            QTRY_VERIFY(log.contains("refusing to exit now"));
        } else {
            auto check = run(operations().value("checkDNSPortOpen"));
            QTRY_VERIFY(check->called);
            QCOMPARE(m_peer->actions(), QStringList{"checkDNSPortOpen"});
        }
    }

    void modeChangeRestartsTheDnsProxyOnTheCurrentTunnel()
    {
        m_peer->setReply("startDNSProxy", QJsonObject{{"status", "ok"}});
        m_daemon->setTunnelInfo([] { return QStringLiteral("10.99.0.1"); },
                                [] { return QStringLiteral("tun0\r\n"); });
        m_world->routing->setWisprouteMode(HMWisprouteManager::ModeExclusion);

        std::optional<HMMaybeError> result;
        m_world->routing->restartDnsDaemonWithCompletion(
            [&result](const HMMaybeError &error) { result = error; });
        QTRY_VERIFY(result.has_value());
        QVERIFY(!result->has_value());
        const QJsonArray proxyConfig =
            lastRequest().value("params").toObject().value("proxyConfig").toArray();
        QCOMPARE(
            proxyConfig.toVariantList(),
            QVariant(m_daemon->getDNSProxyConfigWithWisproute(1, QStringLiteral("tun0"))).toList());

        // The helper's refusal reaches the callback as an error.
        m_peer->setReply("startDNSProxy",
                         QJsonObject{{"status", "error"}, {"error", "no DNS proxy here"}});
        result.reset();
        m_world->routing->restartDnsDaemonWithCompletion(
            [&result](const HMMaybeError &error) { result = error; });
        QTRY_VERIFY(result.has_value());
        QCOMPARE(result->value().localizedDescription(), QStringLiteral("no DNS proxy here"));
    }

    void restartWithoutAKnownTunnelIsRefused()
    {
        std::optional<HMMaybeError> result;
        m_world->routing->restartDnsDaemonWithCompletion(
            [&result](const HMMaybeError &error) { result = error; });
        QTRY_VERIFY(result.has_value());
        QCOMPARE(result->value().localizedDescription(),
                 QStringLiteral("Cannot restart the DNS proxy: the tunnel device is not known"));

        // Once the client is gone the routing manager no longer reaches it, and says so on a
        // later turn of the main loop.
        m_daemon.reset();
        result.reset();
        m_world->routing->restartDnsDaemonWithCompletion(
            [&result](const HMMaybeError &error) { result = error; });
        QVERIFY(!result.has_value());
        QTRY_VERIFY(result.has_value());
        QCOMPARE(result->value().localizedDescription(),
                 QStringLiteral("Cannot restart the DNS proxy: the helper is not available"));
        QVERIFY(m_peer->requests().isEmpty());
    }
};

QTEST_GUILESS_MAIN(HMDaemonManagerTest)
#include "HMDaemonManagerTest.moc"
