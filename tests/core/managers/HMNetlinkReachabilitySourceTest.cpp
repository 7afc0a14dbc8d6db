#include "HMNetlinkReachabilitySource.h"
#include "HMReachability.h"
#include "HMReachabilityManager.h"
#include "HMTestEnvironment.h"
#include "HMTestNamespace.h"

#include <QSignalSpy>
#include <QtTest>
#include <memory>

class HMNetlinkReachabilitySourceTest : public QObject
{
    Q_OBJECT

public:
    ~HMNetlinkReachabilitySourceTest() override { removeNamespace(); }

private:
    QString m_namespace;
    std::unique_ptr<HMReachabilityManager> m_manager;
    HMReachabilitySource *m_source = nullptr;
    int m_sentinel = 0;

    bool ip(const QStringList &arguments) { return HMTestNamespace::ip(m_namespace, arguments); }

    void removeNamespace()
    {
        if (!m_namespace.isEmpty()) {
            m_manager.reset();
            HMTestNamespace::remove(m_namespace);
            m_namespace.clear();
        }
    }

    // Returns once the source has looked at everything the kernel announced so far: an
    // unrelated change goes in last, and a report after it covers all that came before.
    bool settle()
    {
        QSignalSpy reports(m_source, &HMReachabilitySource::flagsReported);
        if (!ip({"addr", "add", QStringLiteral("192.0.2.%1/32").arg(++m_sentinel), "dev", "lo"})) {
            return false;
        }
        return reports.wait(5000) || reports.count() > 0;
    }

    bool reachable() const { return m_manager->isReachable(); }
    quint32 flags() const { return m_manager->reachability()->flags(); }

private Q_SLOTS:
    void initTestCase()
    {
        HMTestEnvironment::isolateUserDirectories();
        if (!HMTestEnvironment::canUseNetworkNamespaces()) {
            QSKIP(
                "needs root and network namespaces (ip netns); run as root to exercise the kernel");
        }
        QString error;
        m_namespace = HMTestNamespace::create(QStringLiteral("hmreach-"), QString(), &error);
        QVERIFY2(!m_namespace.isEmpty(), qPrintable(error));
        HMTestNamespace::Scope scope(m_namespace);
        QVERIFY(scope.entered());
        auto source = std::make_unique<HMNetlinkReachabilitySource>();
        m_source = source.get();
        m_manager = std::make_unique<HMReachabilityManager>(std::move(source));
    }

    void cleanupTestCase() { removeNamespace(); }

    void noRouteIsUnreachable()
    {
        QVERIFY(!reachable());
        QTRY_VERIFY(m_manager->reachability()->isInitialized());
        QVERIFY(!reachable());
        QCOMPARE(flags(), quint32(0));
    }

    void upLinkWithDefaultRouteIsReachable()
    {
        QSignalSpy changes(m_manager.get(), &HMReachabilityManager::reachableChanged);
        QVERIFY(ip({"link", "add", "hmv0", "type", "veth", "peer", "name", "hmv1"}));
        QVERIFY(ip({"link", "set", "hmv1", "up"}));
        QVERIFY(ip({"addr", "add", "10.77.0.1/24", "dev", "hmv0"}));
        QVERIFY(ip({"link", "set", "hmv0", "up"}));
        QVERIFY(ip({"route", "add", "default", "via", "10.77.0.2", "dev", "hmv0"}));
        QTRY_VERIFY(reachable());
        QVERIFY(settle());
        QCOMPARE(changes.count(), 1);
        QCOMPARE(changes.at(0).at(0).toBool(), true);
        QVERIFY(flags() & HMReachability::Reachable);
        QVERIFY(!(flags() & HMReachability::IsDirect)); // through a gateway
    }

    void directRouteIsDirect()
    {
        QVERIFY(ip({"route", "add", "169.254.0.0/16", "dev", "hmv0"}));
        QTRY_VERIFY(flags() & HMReachability::IsDirect);
        QVERIFY(reachable());
        QVERIFY(ip({"route", "del", "169.254.0.0/16", "dev", "hmv0"}));
        QTRY_VERIFY(!(flags() & HMReachability::IsDirect));
    }

    // The kernel's verdict counts, not the mere presence of a default route.
    void prohibitedDestinationIsUnreachable()
    {
        QVERIFY(ip({"route", "add", "prohibit", "169.254.0.0/16"}));
        QTRY_VERIFY(!reachable());
        QVERIFY(ip({"route", "del", "prohibit", "169.254.0.0/16"}));
        QTRY_VERIFY(reachable());
    }

    void lostCarrierIsUnreachable()
    {
        QSignalSpy changes(m_manager.get(), &HMReachabilityManager::reachableChanged);
        QVERIFY(ip({"link", "set", "hmv1", "down"})); // the far end goes away; the route stays
        QTRY_VERIFY(!reachable());
        QVERIFY(settle());
        QCOMPARE(changes.count(), 1);
        QVERIFY(ip({"link", "set", "hmv1", "up"}));
        QTRY_VERIFY(reachable());
    }

    void linkDownIsUnreachable()
    {
        QSignalSpy changes(m_manager.get(), &HMReachabilityManager::reachableChanged);
        QVERIFY(ip({"link", "set", "hmv0", "down"}));
        QTRY_VERIFY(!reachable());
        QVERIFY(settle());
        QCOMPARE(changes.count(), 1);
        QCOMPARE(changes.at(0).at(0).toBool(), false);
        QCOMPARE(flags(), quint32(0));
    }
};

QTEST_GUILESS_MAIN(HMNetlinkReachabilitySourceTest)
#include "HMNetlinkReachabilitySourceTest.moc"
