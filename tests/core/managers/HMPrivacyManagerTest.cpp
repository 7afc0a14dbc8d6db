// The privacy manager against the reference service on the loopback address.
#include "EventSource.h"
#include "HMKeyChangeLog.h"
#include "HMLogCapture.h"
#include "HMPrivacyWorld.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>
#include <memory>

namespace {

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
    std::unique_ptr<HMPrivacyWorld> m_w;

    QJsonObject lastRequest(const QString &path)
    {
        const QJsonArray all = m_service.requestsTo(path);
        return all.isEmpty() ? QJsonObject() : all.last().toObject();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        QVERIFY2(HMPrivacyWorld::startService(m_service, &error), qPrintable(error));
    }

    void init() { m_w = std::make_unique<HMPrivacyWorld>(m_service); }

    void cleanup()
    {
        m_w.reset();
        // Ended again on every look, for a request that reaches the service after the first end.
        QTRY_COMPARE((m_service.call("POST", "/test/blocks/end"),
                      m_service.call("GET", "/test/state").value("streams").toInt()),
                     0);
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
        QSignalSpy counters(m_w->privacy.get(), &HMPrivacyManager::countersChanged);
        for (const QString &data : events) {
            m_w->privacy->handleBlockEvent(blockEvent(data));
        }
        QCOMPARE((QList<uint>{m_w->privacy->numFacebookBlocked(), m_w->privacy->numTwitterBlocked(),
                              m_w->privacy->numLinkedinBlocked()}),
                 social);
        QCOMPARE(counters.size(), int(social[0] + social[1] + social[2]));
        if (content.isNull()) {
            QCOMPARE(m_w->privacy->blockedContent().size(), 32);
        } else {
            QCOMPARE(render(m_w->privacy->blockedContent()), content);
        }
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
            m_w->privacy->setValueForPref(true, key);
        }
        m_service.updateAccount({{"username", HMPrivacyWorld::kUser}, {"privacy", privacy}});
        HMKeyChangeLog<HMPrivacyManager> log(*m_w->privacy);
        m_w->privacy->syncFilterSettings();
        QTRY_COMPARE(log.entries.size(), 8);
        QCOMPARE(log.entries.at(1), QStringLiteral("did:enabled"));
        QCOMPARE(log.entries.at(7), QStringLiteral("did:linkedinEnabled"));
        QCOMPARE((QVariantList{m_w->privacy->getPref("privacyEnabled"),
                               m_w->privacy->getPref("privacyFacebookEnabled"),
                               m_w->privacy->getPref("privacyTwitterEnabled"),
                               m_w->privacy->getPref("privacyLinkedinEnabled")}),
                 stored);
        QVERIFY(!m_w->privacy->eventSource());
    }

    void failedSyncAndFilterChangesAreOnlyLogged()
    {
        HMLogCapture log;
        m_w->privacy->setValueForPref(true, "privacyTwitterEnabled");
        m_w->account.account->setPassword("wrong");
        m_w->privacy->syncFilterSettings();
        m_w->privacy->setFacebookEnabled(true);
        QTRY_COMPARE(m_w->requests("/dashboard/setFilter"), 1);
        QTRY_VERIFY2(log.contains("error: "), qPrintable(log.lines().join("\n")));
        QVERIFY(log.contains("Incorrect password"));
        QVERIFY(m_w->privacy->isFacebookEnabled());
        QVERIFY(m_w->privacy->isTwitterEnabled());
    }

    void oneNetworkSwitchSendsOnlyItsFilter()
    {
        m_w->privacy->handleBlockEvent(blockEvent(block("social", "Facebook")));
        m_w->privacy->setFacebookEnabled(false);
        QTRY_COMPARE(m_w->requests("/dashboard/setFilter"), 1);
        const QJsonObject sent = lastRequest("/dashboard/setFilter").value("params").toObject();
        QCOMPARE(sent.value("filter").toString(), QStringLiteral("facebook"));
        QCOMPARE(sent.value("on").toString(), QStringLiteral("0"));
        QCOMPARE(sent.value("password").toString(), HMPrivacyWorld::kPassword);
        QCOMPARE(m_w->privacy->numFacebookBlocked(), 1u);
        QVERIFY(!m_w->privacy->isTwitterEnabled() && !m_w->privacy->isLinkedinEnabled());
    }

    void featureSwitchResetsAndFollowsTheTunnel()
    {
        m_w->privacy->handleBlockEvent(blockEvent(block("ads", "x")));
        m_w->privacy->setEnabled(true); // not connected: no stream
        QVERIFY(!m_w->privacy->eventSource());
        QCOMPARE(render(m_w->privacy->blockedContent()), QStringLiteral("analytics*: | ads*:"));
        QTRY_COMPARE(m_w->requests("/dashboard/setFilter"), 1);
        QVERIFY(!lastRequest("/dashboard/setFilter").value("params").toObject().contains("filter"));
        QVERIFY(m_service.account(HMPrivacyWorld::kUser)
                    .value("privacy")
                    .toObject()
                    .value("globalSwitch")
                    .toBool());

        m_w->connected = true;
        m_w->privacy->setEnabled(true);
        QVERIFY(m_w->privacy->eventSource());
        m_w->privacy->setEnabled(false);
        QVERIFY(!m_w->privacy->eventSource());
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
        m_w->privacy->setValueForPref(true, "privacyEnabled");
        m_w->privacy->vpnConnectedDidChange(false); // equal to the start value: nothing
        QCOMPARE(m_w->requests("/dashboard/getFilter"), 0);
        m_service.updateAccount({{"username", HMPrivacyWorld::kUser},
                                 {"privacy", QJsonObject{{"globalSwitch", true}}}});
        m_w->privacy->vpnConnectedDidChange(true);
        QTRY_COMPARE(m_w->requests("/dashboard/getFilter"), 1);
        QVERIFY(m_w->privacy->eventSource());
        m_w->clock.advance(EventSource::kOpenDelayMs);
        QTRY_COMPARE(m_w->openStreams(), 1);
        const QJsonObject opened = lastRequest("/dashboard/blocks");
        QCOMPARE(
            opened.value("target").toString(),
            QStringLiteral("/dashboard/blocks?username=ann%40example.test&password=p%26ss%20word"));

        m_w->push({{"category", "social"}, {"text", "LinkedIn"}});
        QTRY_COMPARE(m_w->privacy->numLinkedinBlocked(), 1u);
        m_w->push({{"category", "analytics"}, {"text", "tracker.example"}});
        QTRY_COMPARE(render(m_w->privacy->blockedContent()),
                     QStringLiteral("analytics*:tracker.example=1 | ads*:"));

        if (endByService) {
            m_service.call("POST", "/test/blocks/end");
            QTRY_VERIFY(m_w->privacy->eventSource()->wasClosed());
            m_w->clock.advance(2 * EventSource::kRetryDelayMs);
            QVERIFY(m_w->privacy->eventSource()->wasClosed()); // nothing reopened it
        } else {
            m_w->privacy->vpnConnectedDidChange(false);
            QVERIFY(!m_w->privacy->eventSource());
            QTRY_COMPARE(m_w->requests("/dashboard/getFilter"), 2);
        }
        // Counters stay when the tunnel goes; the stream no longer reaches them. After the
        // service's end the source reopens at once and its handler closes it again; that last
        // request may reach the service after any one push, and a plain-HTTP stream sees its
        // client gone only when written to: so push until every stream has seen it.
        QCOMPARE(m_w->privacy->numLinkedinBlocked(), 1u);
        QTRY_COMPARE(
            (m_w->push({{"category", "social"}, {"text", "LinkedIn"}}), m_w->openStreams()), 0);
        QCOMPARE(m_w->privacy->numLinkedinBlocked(), 1u);
    }
};

QTEST_GUILESS_MAIN(HMPrivacyManagerTest)
#include "HMPrivacyManagerTest.moc"
