// The privacy filter end to end in the VPN lab (testing/lab/vpn-lab.sh run): the real
// client signs in over TLS, brings the tunnel up through the helper and a real OpenVPN 2.6
// server, and with privacy on listens to the lab service's block stream over HTTPS. What the
// service blocks shows in the Privacy tab; the dial switched off resets it; disconnecting
// stops the stream.
#include "HMAPIClient.h"
#include "HMAccountManager.h"
#include "HMClock.h"
#include "HMClosestServerManager.h"
#include "HMDaemonManager.h"
#include "HMDeploymentValues.h"
#include "HMNetlinkReachabilitySource.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMPrivacyManager.h"
#include "HMPrivacyViewController.h"
#include "HMReachabilityManager.h"
#include "HMRefService.h"
#include "HMSecretServiceKeychain.h"
#include "HMTestEnvironment.h"
#include "HMVPNAccountAdapter.h"
#include "HMVPNDaemonAdapter.h"
#include "HMVPNManager.h"
#include "HMVPNReachabilityAdapter.h"
#include "HMVPNRoutingAdapter.h"
#include "HMWisprouteManager.h"

#include <QCheckBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QLabel>
#include <QTreeWidget>
#include <QtTest>
#include <memory>

class HMPrivacyLabTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMPreferenceStore> m_store;
    HMNotificationCenter m_center;
    std::unique_ptr<HMWisprouteManager> m_routing;
    std::unique_ptr<HMAccountManager> m_account;
    std::unique_ptr<HMReachabilityManager> m_reachability;
    std::unique_ptr<HMAPIClient> m_api;
    std::unique_ptr<HMDaemonManager> m_daemon;
    std::unique_ptr<HMVPNAccountAdapter> m_accountAdapter;
    std::unique_ptr<HMVPNReachabilityAdapter> m_reachabilityAdapter;
    std::unique_ptr<HMVPNDaemonAdapter> m_helper;
    std::unique_ptr<HMVPNRoutingAdapter> m_routingAdapter;
    std::unique_ptr<HMClosestServerManager> m_closest;
    std::unique_ptr<HMVPNManager> m_vpn;
    std::unique_ptr<HMPrivacyManager> m_privacy;
    std::unique_ptr<HMPrivacyViewController> m_pane;
    HMRefService m_service;
    QString m_user;

    static QString lab(const char *fact) { return qEnvironmentVariable(fact); }
    int openStreams() { return m_service.call("GET", "/test/state").value("streams").toInt(); }
    QString shown(const char *label)
    {
        return m_pane->findChild<QLabel *>(QLatin1String(label))->text();
    }
    void push(const QJsonObject &block)
    {
        m_service.call("POST", "/test/blocks",
                       {{"username", m_user}, {"events", QJsonArray{block}}});
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsSet("HM_LAB_UNAVAILABLE")) {
            QSKIP(qPrintable(qEnvironmentVariable("HM_LAB_UNAVAILABLE")));
        }
        if (lab("LAB_HELPER_SOCKET").isEmpty() || lab("LAB_SERVICE_CONTROL").isEmpty()) {
            QSKIP("runs inside the VPN lab: testing/lab/vpn-lab.sh run --service ... --helper ... "
                  "-- <this test> (ctest does that)");
        }
        QVERIFY2(qEnvironmentVariable("HM_SECRET_SERVICE") == QLatin1String("keyring"),
                 "runs on a private Secret Service (tests/support/with-secret-service.sh)");
        m_user = lab("LAB_USER");
        m_home = HMTestEnvironment::isolateUserDirectories();
        const QString deployment = qEnvironmentVariable("XDG_CONFIG_HOME") + QLatin1Char('/') +
                                   HMDeploymentValues::kFileName;
        QDir().mkpath(QFileInfo(deployment).path());
        QVERIFY(QFile::copy(lab("LAB_SERVICE_DEPLOYMENT"), deployment));
        const QString control = lab("LAB_SERVICE_CONTROL");
        m_service.attach(control.section(QLatin1Char(':'), 0, 0),
                         control.section(QLatin1Char(':'), 1).toInt());

        m_store =
            std::make_unique<HMPreferenceStore>(m_home->filePath(QStringLiteral("prefs.json")));
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
        m_account = std::make_unique<HMAccountManager>(*m_store, HMSecretServiceKeychain::shared(),
                                                       m_routing.get(), m_center);
        m_reachability = std::make_unique<HMReachabilityManager>(
            std::make_unique<HMNetlinkReachabilitySource>());
        m_api = std::make_unique<HMAPIClient>(
            HMDeploymentValues::loadFromSearchPath(),
            [this] { return m_reachability->isReachable(); }, HMClock::system(), m_center);
        m_account->setAPIClient(m_api.get());
        m_account->setClosestEnabledQuery([] { return false; });

        HMDaemonManager::Paths paths;
        paths.socketPath = lab("LAB_HELPER_SOCKET");
        paths.executableDirectory = lab("LAB_HELPER_APP_DIR");
        paths.resourceDirectory = lab("LAB_HELPER_RESOURCES");
        m_daemon =
            std::make_unique<HMDaemonManager>(*m_store, m_account.get(), m_routing.get(), paths);
        m_daemon->createCommandQueue();
        m_accountAdapter = std::make_unique<HMVPNAccountAdapter>(*m_account);
        m_reachabilityAdapter = std::make_unique<HMVPNReachabilityAdapter>(*m_reachability);
        m_helper = std::make_unique<HMVPNDaemonAdapter>(*m_daemon);
        m_routingAdapter = std::make_unique<HMVPNRoutingAdapter>(*m_routing);
        m_closest = std::make_unique<HMClosestServerManager>(m_account.get(), HMClock::system(),
                                                             lab("LAB_SERVICE_DOMAIN"));
        HMVPNManager::Collaborators c;
        c.account = m_accountAdapter.get();
        c.reachability = m_reachabilityAdapter.get();
        c.helper = m_helper.get();
        c.routing = m_routingAdapter.get();
        c.closest = m_closest.get();
        c.notifications = &m_center;
        m_vpn = std::make_unique<HMVPNManager>(c);
        HMVPNManager *vpn = m_vpn.get();
        m_daemon->setTunnelInfo([vpn] { return vpn->connectedIp(); },
                                [vpn] { return vpn->tapAdapter(); });

        HMPrivacyManager::Collaborators p;
        p.store = m_store.get();
        p.api = m_api.get();
        p.account = m_account.get();
        p.notifications = &m_center;
        p.isVPNConnected = [vpn] { return vpn->isConnected(); };
        m_privacy = std::make_unique<HMPrivacyManager>(p);
        m_privacy->startKVO(*vpn);
        m_pane = std::make_unique<HMPrivacyViewController>(*m_privacy, *m_routing, vpn);
        m_pane->show();

        QTRY_VERIFY_WITH_TIMEOUT(m_reachability->isReachable(), 5000);
        bool signedIn = false;
        m_account->loginWithUsername(m_user, lab("LAB_PASSWORD"), false,
                                     [&](const HMMaybeError &error) { signedIn = !error; });
        QTRY_VERIFY_WITH_TIMEOUT(signedIn, 20000);
        bool checked = false;
        m_daemon->checkDNSPortOpen([&](const QVariantMap &, const HMMaybeError &error) {
            m_routing->setSupported(!error);
            checked = true;
        });
        QTRY_VERIFY_WITH_TIMEOUT(checked, 10000);
    }

    void cleanupTestCase()
    {
        if (m_vpn && m_vpn->state() != VPNState::Disconnected) {
            bool done = false;
            m_vpn->disconnectWithCompletion([&done](const HMMaybeError &) { done = true; });
            QTRY_VERIFY_WITH_TIMEOUT(done, 20000);
        }
    }

    void countersFollowTheServiceWhileConnected()
    {
        // The service has privacy on for this account; the tunnel coming up synchronises it.
        m_service.updateAccount(
            {{"username", m_user},
             {"privacy",
              QJsonObject{{"globalSwitch", true}, {"filters", QJsonObject{{"facebook", true}}}}}});
        m_privacy->setValueForPref(true, "privacyEnabled");
        QCheckBox *facebook = m_pane->findChild<QCheckBox *>("facebookSwitch");
        QVERIFY(!facebook->isEnabled());

        m_vpn->connect();
        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::Connected, 45000);
        QVERIFY(facebook->isEnabled());
        QTRY_VERIFY(facebook->isChecked());
        QTRY_COMPARE_WITH_TIMEOUT(openStreams(), 1, 10000);

        push({{"category", "social"}, {"text", "Facebook"}});
        QTRY_COMPARE_WITH_TIMEOUT(shown("facebookCount"), QStringLiteral("1"), 10000);
        push({{"category", "ads"}, {"text", "ads.example"}});
        QTreeWidget *tree = m_pane->findChild<QTreeWidget *>("blockedTree");
        QTRY_COMPARE_WITH_TIMEOUT(tree->topLevelItem(1)->childCount(), 1, 10000);
        QCOMPARE(tree->topLevelItem(1)->child(0)->text(0), QStringLiteral("ads.example"));

        // What the main panel does when the user switches off.
        bool done = false;
        m_vpn->disconnectWithCompletion([&done](const HMMaybeError &) { done = true; });
        m_center.postNotificationName(HMPrivacyManager::kDidSwitchDialOffNotification);
        QCOMPARE(shown("facebookCount"), QStringLiteral("0"));
        QCOMPARE(tree->topLevelItem(1)->childCount(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(done, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::Disconnected, 20000);
        QVERIFY(!m_privacy->eventSource());
        QVERIFY(!facebook->isEnabled());
        QTRY_COMPARE_WITH_TIMEOUT(openStreams(), 0, 10000);
    }
};

QTEST_MAIN(HMPrivacyLabTest)
#include "HMPrivacyLabTest.moc"
