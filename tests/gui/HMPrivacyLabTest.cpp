// The privacy filter end to end in the VPN lab: sign-in over TLS, the tunnel through the
// helper and a real OpenVPN server, and the block stream over HTTPS into the Privacy tab.
#include "HMPrivacyManager.h"
#include "HMPrivacyViewController.h"
#include "HMVPNLabClient.h"

#include <QCheckBox>
#include <QJsonArray>
#include <QLabel>
#include <QtTest>
#include <memory>

class HMPrivacyLabTest : public QObject
{
    Q_OBJECT

private:
    HMVPNLabClient m_lab;
    HMRefService &m_service = m_lab.service;
    HMVPNManager *m_vpn = nullptr;
    std::unique_ptr<HMPrivacyManager> m_privacy;
    std::unique_ptr<HMPrivacyViewController> m_pane;
    QString m_user = HMVPNLabClient::lab("LAB_USER");

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
        HM_START_VPN_LAB(m_lab);
        m_vpn = m_lab.vpn.get();

        HMPrivacyManager::Collaborators p;
        p.store = m_lab.store.get();
        p.api = m_lab.api.get();
        p.account = m_lab.account.get();
        p.notifications = &m_lab.center;
        HMVPNManager *vpn = m_vpn;
        p.isVPNConnected = [vpn] { return vpn->isConnected(); };
        m_privacy = std::make_unique<HMPrivacyManager>(p);
        m_privacy->startKVO(*vpn);
        m_pane = std::make_unique<HMPrivacyViewController>(*m_privacy, *m_lab.routing, vpn);
        m_pane->show();
    }

    void cleanupTestCase()
    {
        if (m_vpn) {
            m_lab.disconnectAndWait();
        }
        m_pane.reset();
        m_privacy.reset();
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

        // What the main panel does when the user switches off.
        bool done = false;
        m_vpn->disconnectWithCompletion([&done](const HMMaybeError &) { done = true; });
        m_lab.center.postNotificationName(HMPrivacyManager::kDidSwitchDialOffNotification);
        QCOMPARE(shown("facebookCount"), QStringLiteral("0"));
        QTRY_VERIFY_WITH_TIMEOUT(done, 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_vpn->state(), VPNState::Disconnected, 20000);
        QVERIFY(!m_privacy->eventSource());
        QVERIFY(!facebook->isEnabled());
        QTRY_COMPARE_WITH_TIMEOUT(openStreams(), 0, 10000);
    }
};

QTEST_MAIN(HMPrivacyLabTest)
#include "HMPrivacyLabTest.moc"
