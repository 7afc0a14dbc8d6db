#include "HMClosestServerManager.h"
#include "HMAccountManager.h"
#include "HMAccountWorld.h"
#include "HMEchoLab.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <iterator>

namespace {

// A probe the test answers by hand. Like a real one it reports at most once, and nothing
// once stopped.
struct FakeProbe
{
    QString host;
    QPointer<QObject> target;
    SimplePingHelper::SuccessCallback success;
    SimplePingHelper::FailureCallback failure;
    bool stopped = false;
    bool reported = false;

    void answer(float seconds = 0.01f)
    {
        report([&] { success(host, seconds); });
    }
    void fail()
    {
        report([&] { failure(host); });
    }
    void report(const std::function<void()> &callback)
    {
        if (!stopped && !reported && target) {
            reported = true;
            callback();
        }
    }
};

struct FakeProber
{
    std::vector<std::shared_ptr<FakeProbe>> probes;

    HMClosestServerManager::ProbeFactory factory()
    {
        return [this](const QString &host, QObject *target, SimplePingHelper::SuccessCallback s,
                      SimplePingHelper::FailureCallback f) {
            auto probe = std::make_shared<FakeProbe>();
            probe->host = host;
            probe->target = target;
            probe->success = std::move(s);
            probe->failure = std::move(f);
            probes.push_back(probe);
            return [probe] { probe->stopped = true; };
        };
    }
    QStringList hosts() const
    {
        QStringList list;
        for (const auto &probe : probes) {
            list << probe->host;
        }
        return list;
    }
    // The newest probe of `host`.
    FakeProbe &probe(const QString &host)
    {
        for (auto it = probes.rbegin(); it != probes.rend(); ++it) {
            if ((*it)->host == host) {
                return **it;
            }
        }
        qFatal("no probe of %s", qPrintable(host));
    }
};

// Every answer a test's completion received, as "key" or "error: text".
struct Results
{
    QStringList calls;
    QList<QVariantList> servers;

    HMVPNClosestSource::Completion completion()
    {
        return [this](const QString &key, const QVariantList &list, const HMMaybeError &error) {
            calls << (error ? QStringLiteral("error: ") + error->localizedDescription() : key);
            servers << list;
        };
    }
};

QVariantMap server(const QString &host)
{
    return {{QStringLiteral("host"), host},
            {QStringLiteral("port"), 1194},
            {QStringLiteral("isUdp"), true}};
}

QVariantMap groups(const QList<QPair<QString, QStringList>> &entries)
{
    QVariantMap map;
    for (const auto &entry : entries) {
        QVariantList list;
        for (const QString &host : entry.second) {
            list << server(host);
        }
        map.insert(entry.first, list);
    }
    return map;
}

} // namespace

class HMClosestServerManagerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMAccountWorld> m_world;
    std::unique_ptr<FakeProber> m_prober;
    std::unique_ptr<HMClosestServerManager> m_manager;
    std::unique_ptr<HMEchoLab> m_lab;

    // Three groups, enumerated as de, fr, us.
    const QVariantMap m_three =
        groups({{QStringLiteral("us"), {QStringLiteral("u1")}},
                {QStringLiteral("de"), {QStringLiteral("d1"), QStringLiteral("d2")}},
                {QStringLiteral("fr"), {QStringLiteral("f1")}}});

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        // Before anything opens a socket; without root the ICMP cases skip, saying why.
        if (HMEchoLab::enterPrivateNetwork()) {
            m_lab = std::make_unique<HMEchoLab>();
        }
    }
    void cleanupTestCase() { m_lab.reset(); }

    void init()
    {
        m_world = std::make_unique<HMAccountWorld>(false);
        m_prober = std::make_unique<FakeProber>();
        m_manager = std::make_unique<HMClosestServerManager>(
            m_world->account.get(), HMClock::system(), QStringLiteral("service.test"),
            m_prober->factory());
    }
    void cleanup()
    {
        m_manager.reset();
        m_prober.reset();
        m_world.reset();
    }

    void availability_data()
    {
        QTest::addColumn<bool>("answers");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");
        QTest::newRow("service answers") << true << 1 << QString();
        QTest::newRow("service silent") << false << 2 << QStringLiteral("Couldn't ping hollowmere");
    }
    void availability()
    {
        QFETCH(bool, answers);
        QFETCH(int, status);
        QFETCH(QString, error);
        QCOMPARE(m_manager->status(), HMClosestServerManager::HMClosestStatusUnknown);
        QVERIFY(!m_manager->isEnabled());
        QStringList first;
        QStringList second;
        const auto recorder = [](QStringList &into) {
            return [&into](bool enabled, const HMMaybeError &e) {
                into << QStringLiteral("%1 %2").arg(enabled).arg(e ? e->localizedDescription()
                                                                   : QString());
            };
        };
        m_manager->isClosestEnabledWithCompletion(recorder(first));
        QCOMPARE(m_prober->hosts(), QStringList{QStringLiteral("service.test")});
        QVERIFY(first.isEmpty());

        QSignalSpy statusSpy(m_manager.get(), &HMClosestServerManager::statusChanged);
        answers ? m_prober->probes[0]->answer() : m_prober->probes[0]->fail();
        QCOMPARE(first, QStringList{QStringLiteral("%1 %2").arg(answers).arg(error)});
        QCOMPARE(int(m_manager->status()), status);
        QCOMPARE(m_manager->isEnabled(), answers);
        QCOMPARE(statusSpy.size(), 1);

        // Later calls answer through the first caller's callback, without pinging again.
        m_manager->isClosestEnabledWithCompletion(recorder(second));
        QVERIFY(second.isEmpty());
        QCOMPARE(first.size(), 2);
        QCOMPARE(first.last(), QStringLiteral("%1 ").arg(answers));
        QCOMPARE(m_prober->probes.size(), size_t(1));
    }

    void closestTest_data()
    {
        QTest::addColumn<QStringList>("events"); // "answer <host>" or "fail <host>", in order
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("failed");
        QTest::newRow("first answer wins, later smaller time ignored")
            << QStringList{"answer u1", "answer f1"} << QStringList{"us"} << 0 << 0;
        QTest::newRow("answer after two failures")
            << QStringList{"fail d1", "fail f1", "answer u1"} << QStringList{"us"} << 0 << 2;
        QTest::newRow("failures after a success still counted")
            << QStringList{"answer f1", "fail d1", "fail u1"} << QStringList{"fr"} << 0 << 2;
        QTest::newRow("all fail") << QStringList{"fail d1", "fail f1", "fail u1"}
                                  << QStringList{"error: Couldn't ping servers"} << 2 << 3;
    }
    void closestTest()
    {
        QFETCH(QStringList, events);
        QFETCH(QStringList, calls);
        QFETCH(int, status);
        QFETCH(int, failed);
        Results results;
        m_manager->initClosestTest(m_three, results.completion());
        // The first host of every group, all at once, in enumeration order.
        QCOMPARE(m_prober->hosts(), (QStringList{"d1", "f1", "u1"}));
        QCOMPARE(m_manager->status(), HMClosestServerManager::HMClosestStatusTesting);
        QVERIFY(m_manager->isEnabled());

        float seconds = 0.9f; // each answer faster than the one before: times never count
        for (const QString &event : events) {
            const QStringList parts = event.split(QLatin1Char(' '));
            FakeProbe &probe = m_prober->probe(parts.at(1));
            if (parts.at(0) == QLatin1String("answer")) {
                probe.answer(seconds);
                seconds /= 100;
            } else {
                probe.fail();
            }
        }
        QCOMPARE(results.calls, calls);
        QCOMPARE(int(m_manager->status()), status);
        QCOMPARE(m_manager->nbFailedCalls(), failed);
        QCOMPARE(m_manager->isEnabled(), status != 2);
        if (status == 0) {
            const QString key = calls.first();
            QCOMPARE(results.servers.first(), m_three.value(key).toList());
            QCOMPARE(m_world->account->currentClosestCountry(), key);
            QCOMPARE(m_world->account->selectedClosestServer(),
                     m_three.value(key).toList().first());
            QCOMPARE(m_manager->currentPingCount(), 0);
        } else {
            QVERIFY(results.servers.first().isEmpty());
            QVERIFY(m_world->account->currentClosestCountry().isEmpty());
        }
        // The others are only forgotten, never stopped.
        for (const auto &probe : m_prober->probes) {
            QVERIFY(!probe->stopped);
        }
    }

    void failedTestTurnsClosestOff()
    {
        QStringList availability;
        m_manager->isClosestEnabledWithCompletion(
            [&availability](bool enabled, const HMMaybeError &) {
                availability << QString::number(enabled);
            });
        m_prober->probes[0]->answer();
        Results results;
        m_manager->initClosestTest(groups({{"a", {"ha"}}}), results.completion());
        m_prober->probe(QStringLiteral("ha")).fail();
        QVERIFY(!m_manager->isEnabled());
        m_manager->isClosestEnabledWithCompletion({});
        QCOMPARE(availability, (QStringList{"1", "0"}));
    }

    void sharedHostPicksFirstGroup()
    {
        Results results;
        m_manager->initClosestTest(groups({{"b", {"same"}}, {"a", {"same", "other"}}}),
                                   results.completion());
        m_prober->probes.back()->answer();
        QCOMPARE(results.calls, QStringList{"a"});
        QCOMPARE(results.servers.first().size(), 2);
    }

    void secondTestStopsRunningProbes()
    {
        Results first;
        Results second;
        m_manager->initClosestTest(groups({{"a", {"ha"}}, {"b", {"hb"}}}), first.completion());
        m_manager->initClosestTest(groups({{"c", {"hc"}}}), second.completion());
        QVERIFY(m_prober->probe(QStringLiteral("ha")).stopped);
        QVERIFY(m_prober->probe(QStringLiteral("hb")).stopped);
        QCOMPARE(m_manager->currentPingCount(), 1);
        m_prober->probe(QStringLiteral("hc")).answer();
        QVERIFY(first.calls.isEmpty());
        QCOMPARE(second.calls, QStringList{"c"});
    }

    void probesOfDecidedTestOutliveIt_data()
    {
        QTest::addColumn<QVariantMap>("next");
        QTest::addColumn<QString>("staleEvent");
        QTest::addColumn<QStringList>("nextCalls");
        QTest::addColumn<int>("status");
        // hb belongs to the first test, decided by ha; its probe is still out.
        QTest::newRow("late answer decides the new test")
            << groups({{"x", {"hb"}}, {"y", {"hy"}}}) << "answer" << QStringList{"x"} << 0;
        QTest::newRow("late answer of a host the new test lacks decides nothing")
            << groups({{"c", {"hc"}}}) << "answer" << QStringList{} << 0;
        QTest::newRow("late failure counts against the new test")
            << groups({{"x", {"hx"}}, {"y", {"hy"}}}) << "fail"
            << QStringList{"error: Couldn't ping servers"} << 2;
    }
    void probesOfDecidedTestOutliveIt()
    {
        QFETCH(QVariantMap, next);
        QFETCH(QString, staleEvent);
        QFETCH(QStringList, nextCalls);
        QFETCH(int, status);
        Results first;
        Results second;
        m_manager->initClosestTest(groups({{"a", {"ha"}}, {"b", {"hb"}}}), first.completion());
        FakeProbe &stale = *m_prober->probes.at(1);
        m_prober->probe(QStringLiteral("ha")).answer();
        m_manager->initClosestTest(next, second.completion());
        QVERIFY(!stale.stopped);

        if (staleEvent == QLatin1String("answer")) {
            stale.answer();
            // Whatever the new test's own probes say now comes too late.
            for (auto &probe : m_prober->probes) {
                probe->answer();
            }
        } else {
            stale.fail();
            m_prober->probes.at(2)->fail(); // one of the new test's two probes
        }
        QCOMPARE(first.calls, QStringList{"a"});
        QCOMPARE(second.calls, nextCalls);
        QCOMPARE(int(m_manager->status()), status);
    }

    void emptyOrMalformedGroups()
    {
        Results results;
        m_manager->initClosestTest({}, results.completion());
        QVERIFY(m_prober->probes.empty());
        QCOMPARE(m_manager->status(), HMClosestServerManager::HMClosestStatusTesting);

        // Whatever the service sent, a group without a usable first host is probed as no
        // host, which fails; nothing here may crash.
        QVariantMap odd{{"list of text", QVariantList{QStringLiteral("h")}},
                        {"no host", QVariantList{QVariantMap{{"port", 1}}}},
                        {"nothing", QVariantList{}},
                        {"text", QStringLiteral("h")}};
        m_manager->initClosestTest(odd, results.completion());
        QCOMPARE(m_prober->hosts(), (QStringList{"", "", "", ""}));
        for (const auto &probe : m_prober->probes) {
            probe->fail();
        }
        QCOMPARE(results.calls, QStringList{"error: Couldn't ping servers"});
    }

    void realProbes_data()
    {
        QTest::addColumn<QList<int>>("delays"); // per group, in enumeration order; -1 black hole
        QTest::addColumn<QString>("expected");
        QTest::newRow("fastest of four") << QList<int>{450, 60, -1, 800} << QStringLiteral("g1");
        QTest::newRow("only one answers") << QList<int>{-1, -1, 600} << QStringLiteral("g2");
        QTest::newRow("all silent")
            << QList<int>{-1, -1, -1} << QStringLiteral("error: Couldn't ping servers");
    }
    void realProbes()
    {
        HM_REQUIRE_PRIVATE_NETWORK();
        QFETCH(QList<int>, delays);
        QFETCH(QString, expected);
        QList<int> answering;
        std::copy_if(delays.cbegin(), delays.cend(), std::back_inserter(answering),
                     [](int delay) { return delay >= 0; });
        QString error;
        QStringList hosts = m_lab->addHosts(answering, false, &error);
        QVERIFY2(hosts.size() == answering.size(), qPrintable(error));
        QVariantMap blocks;
        for (int i = 0; i < delays.size(); ++i) {
            const QString host = delays[i] < 0 ? m_lab->addBlackHole(&error) : hosts.takeFirst();
            QVERIFY2(!host.isEmpty(), qPrintable(error));
            blocks.insert(QStringLiteral("g%1").arg(i), QVariantList{server(host)});
        }
        // Real probes, watched so the test knows when every one of them is gone.
        QList<QPointer<SimplePingHelper>> probes;
        HMClosestServerManager manager(
            m_world->account.get(), HMClock::system(), QStringLiteral("unused.test"),
            [&probes](const QString &host, QObject *target, SimplePingHelper::SuccessCallback s,
                      SimplePingHelper::FailureCallback f) {
                QPointer<SimplePingHelper> probe =
                    SimplePingHelper::ping(host, target, std::move(s), std::move(f));
                probes << probe;
                return [probe] {
                    if (probe) {
                        probe->killPing();
                    }
                };
            });
        Results results;
        QElapsedTimer sinceStart;
        sinceStart.start();
        manager.initClosestTest(blocks, results.completion());
        QTRY_VERIFY_WITH_TIMEOUT(!results.calls.isEmpty(), 5000);
        const qint64 decidedMs = sinceStart.elapsed();
        QTRY_VERIFY_WITH_TIMEOUT(
            std::all_of(probes.cbegin(), probes.cend(),
                        [](const QPointer<SimplePingHelper> &p) { return p.isNull(); }),
            5000);
        QCOMPARE(results.calls, QStringList{expected});
        // Never before the fastest answer (or the time-out) can have come. How soon after is
        // the scheduler's business on a busy machine; the fake probes above pin that the
        // first answer decides at once, and the prober's own suite the exact time-out.
        const bool failed = expected.startsWith(QLatin1String("error"));
        const qint64 earliest = failed ? SimplePingHelper::kTimeoutMs - 10
                                       : *std::min_element(answering.cbegin(), answering.cend());
        QVERIFY2(decidedMs >= earliest, qPrintable(QString::number(decidedMs)));
        if (!failed) {
            QCOMPARE(m_world->account->currentClosestCountry(), expected);
        }
    }

    void realServiceHost_data()
    {
        QTest::addColumn<bool>("answers");
        QTest::newRow("loopback answers") << true;
        QTest::newRow("black hole") << false;
    }
    void realServiceHost()
    {
        HM_REQUIRE_PRIVATE_NETWORK();
        QFETCH(bool, answers);
        QString error;
        const QString host = answers ? QStringLiteral("127.0.0.1") : m_lab->addBlackHole(&error);
        QVERIFY2(!host.isEmpty(), qPrintable(error));
        HMClosestServerManager manager(m_world->account.get(), HMClock::system(), host);
        QStringList calls;
        manager.isClosestEnabledWithCompletion([&calls](bool enabled, const HMMaybeError &e) {
            calls << QStringLiteral("%1 %2").arg(enabled).arg(e ? e->localizedDescription()
                                                                : QString());
        });
        QTRY_VERIFY_WITH_TIMEOUT(!calls.isEmpty(), 5000);
        QCOMPARE(calls, QStringList{answers ? QStringLiteral("1 ")
                                            : QStringLiteral("0 Couldn't ping hollowmere")});
        QCOMPARE(manager.isEnabled(), answers);
    }
};

QTEST_GUILESS_MAIN(HMClosestServerManagerTest)
#include "HMClosestServerManagerTest.moc"
