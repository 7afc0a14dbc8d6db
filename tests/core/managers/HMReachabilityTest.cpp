#include "HMReachability.h"
#include "HMKeyChangeLog.h"
#include "HMReachabilityManager.h"
#include "HMReachabilitySource.h"
#include "HMTestEnvironment.h"

#include <QSignalSpy>
#include <QtTest>
#include <memory>

namespace {

class ScriptedSource : public HMReachabilitySource
{
public:
    explicit ScriptedSource(quint32 initial) : m_flags(initial) {}
    quint32 currentFlags() override { return m_flags; }
    void change(quint32 flags)
    {
        m_flags = flags;
        Q_EMIT flagsReported(flags);
    }

private:
    quint32 m_flags;
};

using F = HMReachability;

} // namespace

class HMReachabilityTest : public QObject
{
    Q_OBJECT

private:
    ScriptedSource *m_source = nullptr;

    std::unique_ptr<HMReachability> makeMonitor(quint32 initial)
    {
        auto source = std::make_unique<ScriptedSource>(initial);
        m_source = source.get();
        return std::make_unique<HMReachability>(std::move(source));
    }

private Q_SLOTS:
    void initTestCase() { HMTestEnvironment::isolateUserDirectories(); }

    void verdictFromFlags_data()
    {
        QTest::addColumn<quint32>("flags");
        QTest::addColumn<bool>("reachable");
        QTest::newRow("nothing") << quint32(0) << false;
        QTest::newRow("reachable") << quint32(F::Reachable) << true;
        QTest::newRow("reachable, direct, local")
            << quint32(F::Reachable | F::IsDirect | F::IsLocalAddress) << true;
        QTest::newRow("reachable, intervention but no connection required")
            << quint32(F::Reachable | F::InterventionRequired) << true;
        QTest::newRow("connection required, neither on traffic nor on demand")
            << quint32(F::Reachable | F::ConnectionRequired) << false;
        QTest::newRow("connection required, on traffic")
            << quint32(F::Reachable | F::ConnectionRequired | F::ConnectionOnTraffic) << true;
        QTest::newRow("connection required, on demand")
            << quint32(F::Reachable | F::ConnectionRequired | F::ConnectionOnDemand) << true;
        QTest::newRow("connection required, on demand, intervention")
            << quint32(F::Reachable | F::ConnectionRequired | F::ConnectionOnDemand |
                       F::InterventionRequired)
            << false;
        QTest::newRow("connection required, on traffic, intervention")
            << quint32(F::Reachable | F::ConnectionRequired | F::ConnectionOnTraffic |
                       F::InterventionRequired)
            << false;
        QTest::newRow("everything but reachable")
            << quint32(F::ConnectionRequired | F::ConnectionOnTraffic | F::ConnectionOnDemand |
                       F::IsDirect)
            << false;
        QTest::newRow("transient, WWAN")
            << quint32(F::Reachable | F::TransientConnection | F::IsWWAN) << true;
    }

    void verdictFromFlags()
    {
        QFETCH(quint32, flags);
        QFETCH(bool, reachable);
        QCOMPARE(HMReachability::isReachableWithFlags(flags), reachable);
    }

    void firstReportArrivesOnALaterTurn_data()
    {
        QTest::addColumn<quint32>("flags");
        QTest::newRow("reachable") << quint32(F::Reachable);
        QTest::newRow("unreachable is still announced") << quint32(0);
    }
    void firstReportArrivesOnALaterTurn()
    {
        QFETCH(quint32, flags);
        auto monitor = makeMonitor(flags);
        HMKeyChangeLog<HMReachability> log(*monitor);
        QSignalSpy wwan(monitor.get(), &HMReachability::WWANOnlyChanged);
        QSignalSpy reachable(monitor.get(), &HMReachability::reachableChanged);
        // Asked before the first report, the initial reading answers.
        QCOMPARE(monitor->isReachable(), flags != 0);
        QVERIFY(!monitor->isInitialized());

        QTRY_VERIFY(monitor->isInitialized());
        // Everything is announced the first time, even values that did not change.
        QCOMPARE(log.entries, QStringList({"will:flags", "will:reachable", "will:WWANOnly",
                                           "did:flags", "did:reachable", "did:WWANOnly"}));
        QCOMPARE(wwan.count(), 1);
        QCOMPARE(wwan.at(0).at(0).toBool(), false);
        QCOMPARE(reachable.count(), 1);
        QCOMPARE(reachable.at(0).at(0).toBool(), flags != 0);
        QCOMPARE(monitor->flags(), flags);
    }

    void onlyWhatChangedIsAnnounced_data()
    {
        QTest::addColumn<quint32>("from");
        QTest::addColumn<quint32>("to");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("repeated report is silent")
            << quint32(F::Reachable) << quint32(F::Reachable) << QStringList();
        QTest::newRow("verdict flips")
            << quint32(F::Reachable) << quint32(0)
            << QStringList{"will:flags", "will:reachable", "did:flags", "did:reachable"};
        QTest::newRow("flags change, verdict stays")
            << quint32(F::Reachable) << quint32(F::Reachable | F::IsDirect)
            << QStringList{"will:flags", "did:flags"};
        QTest::newRow("connection now required")
            << quint32(F::Reachable) << quint32(F::Reachable | F::ConnectionRequired)
            << QStringList{"will:flags", "will:reachable", "did:flags", "did:reachable"};
    }

    void onlyWhatChangedIsAnnounced()
    {
        QFETCH(quint32, from);
        QFETCH(quint32, to);
        QFETCH(QStringList, expected);
        auto monitor = makeMonitor(from);
        QTRY_VERIFY(monitor->isInitialized());
        HMKeyChangeLog<HMReachability> log(*monitor);
        m_source->change(to);
        m_source->change(to);
        QCOMPARE(log.entries, expected);
        QCOMPARE(monitor->flags(), to);
        QCOMPARE(monitor->isReachable(), HMReachability::isReachableWithFlags(to));
    }

    // A change reported before the first hop is newer than the reading taken at creation.
    void earlyChangeIsNotOverwrittenByTheFirstReading()
    {
        auto monitor = makeMonitor(0);
        m_source->change(F::Reachable);
        QVERIFY(monitor->isReachable());
        QCoreApplication::processEvents();
        QCoreApplication::processEvents();
        QVERIFY(monitor->isReachable());
        QCOMPARE(monitor->flags(), quint32(F::Reachable));
    }

    // Observers read the monitor while it announces; that must see the new values and not
    // dead-lock on the update lock.
    void observersReadTheNewValueInsideTheAnnouncement()
    {
        auto monitor = makeMonitor(0);
        QTRY_VERIFY(monitor->isInitialized());
        bool seen = false;
        connect(monitor.get(), &HMReachability::didChangeValueForKey, this,
                [&](const QString &key) {
                    if (key == QLatin1String("reachable")) {
                        seen = monitor->isReachable() && monitor->flags() == F::Reachable;
                    }
                });
        m_source->change(F::Reachable);
        QVERIFY(seen);
    }

    void managerMirrorsTheMonitor()
    {
        auto source = std::make_unique<ScriptedSource>(0);
        ScriptedSource *raw = source.get();
        HMReachabilityManager manager(std::move(source));
        QTRY_VERIFY(manager.reachability()->isInitialized());
        QSignalSpy changed(&manager, &HMReachabilityManager::reachableChanged);
        raw->change(F::Reachable);
        QCOMPARE(changed.count(), 1);
        QVERIFY(manager.isReachable());
        QCOMPARE(manager.property("reachable").toBool(), true);
    }
};

QTEST_GUILESS_MAIN(HMReachabilityTest)
#include "HMReachabilityTest.moc"
