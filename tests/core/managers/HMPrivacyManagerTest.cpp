// The privacy manager's rules: block handling as a table of event sequences, the switches
// and their service calls, synchronising with the service, the reaction to the tunnel and
// the stream's lifecycle, all against the reference service on the loopback address.
#include "HMPrivacyManager.h"
#include "EventSource.h"
#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMKeyChangeLog.h"
#include "HMLogCapture.h"
#include "HMManualClock.h"
#include "HMRefService.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>
#include <memory>

namespace {

const QString kUser = QStringLiteral("ann@example.test");
const QString kPassword = QStringLiteral("p&ss word");

// "analytics*:a=2,b=1 | ads*: | shop:x=1" ('*' marks a node with an image).
QString render(const QVariantList &content)
{
    QStringList nodes;
    for (const QVariant &value : content) {
        const QVariantMap node = value.toMap();
        QStringList items;
        for (const QVariant &child : node.value("children").toList()) {
            items << child.toMap().value("name").toString() + "=" +
                         QString::number(child.toMap().value("count").toUInt());
        }
        nodes << node.value("name").toString() + (node.contains("image") ? "*" : "") + ":" +
                     items.join(",");
    }
    return nodes.join(" | ");
}

QString block(const QString &category, const QString &text)
{
    return QString::fromUtf8(QJsonDocument(QJsonObject{{"category", category}, {"text", text}})
                                 .toJson(QJsonDocument::Compact));
}

Event blockEvent(const QString &data)
{
    Event event;
    event.readyState = Event::Open;
    event.data = data;
    return event;
}

} // namespace

class HMPrivacyManagerTest : public QObject
{
    Q_OBJECT

private:
    HMRefService m_service;
    HMManualClock m_clock;
    std::unique_ptr<HMAccountWorld> m_world;
    std::unique_ptr<HMAPIClient> m_api;
    std::unique_ptr<HMPrivacyManager> m_privacy;
    bool m_connected = false;

    int requests(const QString &path) { return m_service.requestsTo(path).size(); }
    QJsonObject lastRequest(const QString &path)
    {
        const QJsonArray all = m_service.requestsTo(path);
        return all.isEmpty() ? QJsonObject() : all.last().toObject();
    }
    int openStreams() { return m_service.call("GET", "/test/state").value("streams").toInt(); }
    void push(const QJsonObject &block)
    {
        m_service.call("POST", "/test/blocks",
                       {{"username", kUser}, {"events", QJsonArray{block}}});
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        QVERIFY2(m_service.start(
                     QJsonObject{{"listeners",
                                  QJsonArray{QJsonObject{
                                      {"name", "api"}, {"address", "127.0.0.1"}, {"port", 0}}}}},
                     &error),
                 qPrintable(error));
    }

    void init()
    {
        m_service.putAccount({{"username", kUser}, {"password", kPassword}});
        m_world = std::make_unique<HMAccountWorld>();
        m_world->account->setUsername(kUser);
        m_world->account->setPassword(kPassword);
        m_api = std::make_unique<HMAPIClient>(
            HMDeploymentValues::builtIn(), [] { return true; }, m_clock, m_world->center);
        m_api->setStatus(HMAPIStatusHealthy);
        m_api->setAPIRoot(2, QStringLiteral("http://127.0.0.1:%1").arg(m_service.port("api")));
        HMPrivacyManager::Collaborators c;
        c.store = m_world->store.get();
        c.api = m_api.get();
        c.account = m_world->account.get();
        c.notifications = &m_world->center;
        c.clock = &m_clock;
        c.isVPNConnected = [this] { return m_connected; };
        m_privacy = std::make_unique<HMPrivacyManager>(c);
        m_connected = false;
    }

    void cleanup()
    {
        m_privacy.reset();
        m_api.reset();
        m_world.reset();
        m_service.call("POST", "/test/blocks/end");
        QTRY_COMPARE(openStreams(), 0);
        m_service.clearRequests();
    }

    void countsBlocks_data()
    {
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QList<uint>>("social");
        QTest::addColumn<QString>("content");
        const QString fresh = QStringLiteral("analytics*: | ads*:");
        QTest::newRow("social networks, exact names only")
            << QStringList{block("social", "Facebook"), block("social", "Twitter"),
                           block("social", "LinkedIn"), block("social", "Facebook"),
                           block("social", "linkedin"), block("social", "Myspace")}
            << QList<uint>{2, 1, 1} << fresh;
        QTest::newRow("ignored: not JSON, no category, no text, wrong types, too long")
            << QStringList{"{\"category\"",
                           "not json",
                           "{\"text\":\"Facebook\"}",
                           "{\"category\":\"ads\"}",
                           "{\"category\":1,\"text\":\"x\"}",
                           "{\"category\":\"ads\",\"text\":[\"x\"]}",
                           block("ads", QString(600, 'y')),
                           ""}
            << QList<uint>{0, 0, 0} << fresh;
        QTest::newRow("repeats counted, most recent first")
            << QStringList{block("ads", "x"), block("ads", "y"), block("ads", "x"),
                           block("analytics", "X")}
            << QList<uint>{0, 0, 0} << "analytics*:X=1 | ads*:x=2,y=1";
        QStringList twelve;
        for (int i = 1; i <= 12; ++i) {
            twelve << block("ads", QStringLiteral("a%1").arg(i));
        }
        QTest::newRow("ten most recent; the oldest left comes back to the front")
            << twelve + QStringList{block("ads", "a3")} << QList<uint>{0, 0, 0}
            << "analytics*: | ads*:a3=2,a12=1,a11=1,a10=1,a9=1,a8=1,a7=1,a6=1,a5=1,a4=1";
        QTest::newRow("a new category, without an image")
            << QStringList{block("shop", "cart")} << QList<uint>{0, 0, 0}
            << fresh + " | shop:cart=1";
        QStringList many;
        for (int i = 0; i < 40; ++i) {
            many << block(QStringLiteral("c%1").arg(i), "t");
        }
        QTest::newRow("categories are bounded") << many << QList<uint>{0, 0, 0} << QString();
    }

    void countsBlocks()
    {
        QFETCH(QStringList, events);
        QFETCH(QList<uint>, social);
        QFETCH(QString, content);
        QSignalSpy counters(m_privacy.get(), &HMPrivacyManager::countersChanged);
        for (const QString &data : events) {
            m_privacy->handleBlockEvent(blockEvent(data));
        }
        QCOMPARE((QList<uint>{m_privacy->numFacebookBlocked(), m_privacy->numTwitterBlocked(),
                              m_privacy->numLinkedinBlocked()}),
                 social);
        QCOMPARE(counters.size(), int(social[0] + social[1] + social[2]));
        if (content.isNull()) {
            QCOMPARE(m_privacy->blockedContent().size(), 32);
        } else {
            QCOMPARE(render(m_privacy->blockedContent()), content);
        }
    }

    void storesServiceValuesUnderPrefixedKeys()
    {
        HMKeyChangeLog<HMPrivacyManager> log(*m_privacy);
        QSignalSpy facebook(m_privacy.get(), &HMPrivacyManager::facebookEnabledChanged);
        m_privacy->updateValueForKey(true, "facebookEnabled");
        QCOMPARE(m_privacy->getPref("privacyFacebookEnabled"), QVariant(true));
        QVERIFY(m_privacy->isFacebookEnabled());
        m_privacy->updateValueForKey(QVariant(), "facebookEnabled");
        QVERIFY(!m_world->store->contains("privacyFacebookEnabled"));
        QVERIFY(!m_privacy->isFacebookEnabled());
        QCOMPARE(log.entries, (QStringList{"will:facebookEnabled", "did:facebookEnabled",
                                           "will:facebookEnabled", "did:facebookEnabled"}));
        QCOMPARE(facebook.size(), 2);
    }

    void syncAppliesTheServiceState_data()
    {
        QTest::addColumn<QJsonObject>("privacy");
        QTest::addColumn<QVariantList>("stored"); // enabled, facebook, twitter, linkedin
        QTest::newRow("all fields") << QJsonObject{{"globalSwitch", true},
                                                   {"filters", QJsonObject{{"facebook", true},
                                                                           {"twitter", false},
                                                                           {"linkedin", true}}}}
                                    << QVariantList{true, true, false, true};
        QTest::newRow("no filters removes the network keys")
            << QJsonObject{{"globalSwitch", false}}
            << QVariantList{false, QVariant(), QVariant(), QVariant()};
    }

    void syncAppliesTheServiceState()
    {
        QFETCH(QJsonObject, privacy);
        QFETCH(QVariantList, stored);
        for (const char *key : {"privacyEnabled", "privacyFacebookEnabled", "privacyTwitterEnabled",
                                "privacyLinkedinEnabled"}) {
            m_privacy->setValueForPref(true, key);
        }
        m_service.updateAccount({{"username", kUser}, {"privacy", privacy}});
        HMKeyChangeLog<HMPrivacyManager> log(*m_privacy);
        m_privacy->syncFilterSettings();
        QTRY_COMPARE(log.entries.size(), 8);
        QCOMPARE(log.entries.at(1), QStringLiteral("did:enabled"));
        QCOMPARE(log.entries.at(7), QStringLiteral("did:linkedinEnabled"));
        QCOMPARE((QVariantList{m_privacy->getPref("privacyEnabled"),
                               m_privacy->getPref("privacyFacebookEnabled"),
                               m_privacy->getPref("privacyTwitterEnabled"),
                               m_privacy->getPref("privacyLinkedinEnabled")}),
                 stored);
        QVERIFY(!m_privacy->eventSource());
    }

    void failedSyncAndFilterChangesAreOnlyLogged()
    {
        HMLogCapture log;
        m_privacy->setValueForPref(true, "privacyTwitterEnabled");
        m_world->account->setPassword("wrong");
        m_privacy->syncFilterSettings();
        m_privacy->setFacebookEnabled(true);
        QTRY_COMPARE(requests("/dashboard/setFilter"), 1);
        QTRY_VERIFY2(log.contains("error: "), qPrintable(log.lines().join("\n")));
        QVERIFY(log.contains("Incorrect password"));
        QVERIFY(m_privacy->isFacebookEnabled());
        QVERIFY(m_privacy->isTwitterEnabled());
    }

    void oneNetworkSwitchSendsOnlyItsFilter()
    {
        m_privacy->handleBlockEvent(blockEvent(block("social", "Facebook")));
        m_privacy->setFacebookEnabled(false);
        QTRY_COMPARE(requests("/dashboard/setFilter"), 1);
        const QJsonObject sent = lastRequest("/dashboard/setFilter").value("params").toObject();
        QCOMPARE(sent.value("filter").toString(), QStringLiteral("facebook"));
        QCOMPARE(sent.value("on").toString(), QStringLiteral("0"));
        QCOMPARE(sent.value("password").toString(), kPassword);
        QCOMPARE(m_privacy->numFacebookBlocked(), 1u);
        QVERIFY(!m_privacy->isTwitterEnabled() && !m_privacy->isLinkedinEnabled());
    }

    void featureSwitchResetsAndFollowsTheTunnel()
    {
        m_privacy->handleBlockEvent(blockEvent(block("ads", "x")));
        m_privacy->setEnabled(true); // not connected: no stream
        QVERIFY(!m_privacy->eventSource());
        QCOMPARE(render(m_privacy->blockedContent()), QStringLiteral("analytics*: | ads*:"));
        QTRY_COMPARE(requests("/dashboard/setFilter"), 1);
        QVERIFY(!lastRequest("/dashboard/setFilter").value("params").toObject().contains("filter"));
        QVERIFY(
            m_service.account(kUser).value("privacy").toObject().value("globalSwitch").toBool());

        m_connected = true;
        m_privacy->setEnabled(true);
        QVERIFY(m_privacy->eventSource());
        m_privacy->setEnabled(false);
        QVERIFY(!m_privacy->eventSource());
    }

    void dialOffResetsTheCounters()
    {
        m_privacy->handleBlockEvent(blockEvent(block("social", "Twitter")));
        m_privacy->handleBlockEvent(blockEvent(block("shop", "x")));
        m_world->center.postNotificationName(HMPrivacyManager::kDidSwitchDialOffNotification);
        QCOMPARE(m_privacy->numTwitterBlocked(), 0u);
        QCOMPARE(render(m_privacy->blockedContent()), QStringLiteral("analytics*: | ads*:"));
    }

    // Connected with the feature on: the stream opens a second later, counts what the service
    // blocks for this account, and ends with the tunnel or with the stream itself.
    void streamRunsWhileConnected_data()
    {
        QTest::addColumn<bool>("endByService");
        QTest::newRow("tunnel goes down") << false;
        QTest::newRow("service ends the stream") << true;
    }

    void streamRunsWhileConnected()
    {
        QFETCH(bool, endByService);
        m_privacy->setValueForPref(true, "privacyEnabled");
        m_privacy->vpnConnectedDidChange(false); // equal to the start value: nothing
        QCOMPARE(requests("/dashboard/getFilter"), 0);
        m_service.updateAccount(
            {{"username", kUser}, {"privacy", QJsonObject{{"globalSwitch", true}}}});
        m_privacy->vpnConnectedDidChange(true);
        QTRY_COMPARE(requests("/dashboard/getFilter"), 1);
        QVERIFY(m_privacy->eventSource());
        m_clock.advance(EventSource::kOpenDelayMs);
        QTRY_COMPARE(openStreams(), 1);
        const QJsonObject opened = lastRequest("/dashboard/blocks");
        QCOMPARE(
            opened.value("target").toString(),
            QStringLiteral("/dashboard/blocks?username=ann%40example.test&password=p%26ss%20word"));

        push({{"category", "social"}, {"text", "LinkedIn"}});
        QTRY_COMPARE(m_privacy->numLinkedinBlocked(), 1u);
        push({{"category", "analytics"}, {"text", "tracker.example"}});
        QTRY_COMPARE(render(m_privacy->blockedContent()),
                     QStringLiteral("analytics*:tracker.example=1 | ads*:"));

        if (endByService) {
            m_service.call("POST", "/test/blocks/end");
            QTRY_VERIFY(m_privacy->eventSource()->wasClosed());
            m_clock.advance(2 * EventSource::kRetryDelayMs);
            QVERIFY(m_privacy->eventSource()->wasClosed()); // nothing reopened it
        } else {
            m_privacy->vpnConnectedDidChange(false);
            QVERIFY(!m_privacy->eventSource());
            QTRY_COMPARE(requests("/dashboard/getFilter"), 2);
        }
        // Counters stay when the tunnel goes; the stream no longer reaches them.
        QCOMPARE(m_privacy->numLinkedinBlocked(), 1u);
        push({{"category", "social"}, {"text", "LinkedIn"}});
        QTRY_COMPARE(openStreams(), 0);
        QCOMPARE(m_privacy->numLinkedinBlocked(), 1u);
    }
};

QTEST_GUILESS_MAIN(HMPrivacyManagerTest)
#include "HMPrivacyManagerTest.moc"
