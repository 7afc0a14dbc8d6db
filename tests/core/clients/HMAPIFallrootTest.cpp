#include "HMAPITestBed.h"
#include "HMManualClock.h"
#include "HMNotificationCenter.h"

#include <QSignalSpy>
#include <QtTest>

// The first-use health check and the fallback to published addresses, against the
// reference service. 127.0.0.2 is a fallback address where nothing listens, 127.0.0.3 one
// that serves the API; "blocking" the service domain is a fault that drops every request
// whose Host is that domain.
class HMAPIFallrootTest : public QObject
{
    Q_OBJECT

private:
    HMAPITestBed m_bed;
    HMManualClock m_clock;
    std::unique_ptr<HMNotificationCenter> m_center;
    int m_blocked = 0;

    std::unique_ptr<HMAPIClient> makeClient() { return m_bed.makeClient(m_clock, *m_center); }

    // Any request goes through the check first; the token endpoint is as good as any.
    static void request(HMAPIClient &client, HMAPIResult &result)
    {
        client.getLoginTokenWithUsername("ann@example.test", "secret", result.completion());
    }

    void blockServiceDomain()
    {
        m_bed.service.addFault({{"host", HMAPITestBed::kServiceDomain}, {"drop", true}});
    }

    int fallbackFileFetches()
    {
        return m_bed.service.requestsTo("/hollowmere/fallroot/config.json").size();
    }

private Q_SLOTS:
    void initTestCase()
    {
        HM_START_API_TEST_BED(m_bed);
        m_bed.service.putAccount({{"username", "ann@example.test"}, {"password", "secret"}});
    }

    void init()
    {
        m_bed.service.clearFaults();
        m_bed.service.clearRequests();
        m_bed.service.setFallroot({{"ips", QJsonArray{}}});
        m_center = std::make_unique<HMNotificationCenter>();
        m_blocked = 0;
        m_center->addObserverForName(HMAPIClient::kBlockedNotification, [this] { ++m_blocked; });
    }

    void healthyRootIsKeptAndNoFallbackFileFetched()
    {
        auto client = makeClient();
        const QStringList roots = client->APIRoots();
        HMAPIResult result;
        request(*client, result);
        QTRY_VERIFY(result.done);
        QVERIFY(!result.error);
        QCOMPARE(result.reply.value("status").toString(), QStringLiteral("pass"));
        QCOMPARE(client->status(), int(HMAPIStatusHealthy));
        QCOMPARE(client->APIRoots(), roots);
        QCOMPARE(roots, (QStringList{"https://hollowmere.test", "http://hollowmere.test",
                                     "https://stream.hollowmere.test",
                                     "https://static.hollowmere-files.test/hollowmere"}));
        QCOMPARE(fallbackFileFetches(), 0);
        // Only the first request checks.
        HMAPIResult second;
        request(*client, second);
        QTRY_VERIFY(second.done);
        QCOMPARE(m_bed.service.requestsTo("/core/status").size(), 1);
        QCOMPARE(m_bed.service.requestsTo("/core/getLoginToken").size(), 2);
    }

    void anyOtherProbeAnswerLeadsToTheFallbackFile_data()
    {
        QTest::addColumn<QJsonObject>("probeFault");
        QTest::newRow("captive portal page")
            << QJsonObject{{"status", 200},
                           {"contentType", "text/html"},
                           {"body", "<html>Sign in to the hotel network</html>"}};
        QTest::newRow("JSON-typed text other than ok") << QJsonObject{{"body", "maintenance"}};
        QTest::newRow("server error")
            << QJsonObject{{"status", 503}, {"contentType", "text/html"}, {"body", "busy"}};
        QTest::newRow("dropped connection") << QJsonObject{{"drop", true}};
    }

    void anyOtherProbeAnswerLeadsToTheFallbackFile()
    {
        QFETCH(QJsonObject, probeFault);
        probeFault.insert("host", HMAPITestBed::kServiceDomain);
        probeFault.insert("path", "/core/status");
        m_bed.service.addFault(probeFault);
        m_bed.service.setFallroot({{"ips", QJsonArray{"127.0.0.3"}}});
        auto client = makeClient();
        HMAPIResult result;
        request(*client, result);
        QTRY_VERIFY(result.done);
        QVERIFY2(!result.error, qPrintable(result.errorText()));
        QCOMPARE(fallbackFileFetches(), 1);
        QCOMPARE(client->APIRoots().at(0), QStringLiteral("https://127.0.0.3"));
        const QJsonArray served = m_bed.service.requestsTo("/core/getLoginToken");
        QCOMPARE(served.size(), 1);
        QCOMPARE(served.first().toObject().value("listener").toString(),
                 QStringLiteral("fallback"));
    }

    void failingAddressIsDroppedAndTheNextOneTaken()
    {
        blockServiceDomain();
        // On a fallback address the probe's answer is not compared with "ok".
        m_bed.service.addFault(
            {{"listener", "fallback"}, {"path", "/core/status"}, {"body", "maintenance"}});
        // The dead address twice: removal goes by value, so both copies leave.
        m_bed.service.setFallroot(
            {{"ips", QJsonArray{"127.0.0.2", "127.0.0.3", "127.0.0.2"}}, {"other", "ignored"}});
        auto client = makeClient();
        HMAPIResult result;
        request(*client, result);
        QTRY_VERIFY_WITH_TIMEOUT(result.done, 15000);
        QVERIFY2(!result.error, qPrintable(result.errorText()));
        QCOMPARE(client->APIRoots().at(0), QStringLiteral("https://127.0.0.3"));
        QCOMPARE(client->APIRoots().at(1), QStringLiteral("https://127.0.0.3"));
        QCOMPARE(client->backupIPs(), QStringList{"127.0.0.3"});
        QCOMPARE(client->status(), int(HMAPIStatusHealthy));
        QCOMPARE(m_blocked, 0);

        // The roots stay on the address even when the domain answers again.
        m_bed.service.clearFaults();
        HMAPIResult later;
        request(*client, later);
        QTRY_VERIFY(later.done);
        QCOMPARE(client->APIRoots().at(0), QStringLiteral("https://127.0.0.3"));
        const QJsonObject served =
            m_bed.service.requestsTo("/core/getLoginToken").last().toObject();
        QCOMPARE(served.value("listener").toString(), QStringLiteral("fallback"));
    }

    void checkFailures_data()
    {
        QTest::addColumn<QJsonObject>("fallroot");
        QTest::addColumn<QJsonObject>("fallrootFault");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QStringList>("backupIPs");
        const QJsonObject none;
        QTest::newRow("empty list") << QJsonObject{{"ips", QJsonArray{}}} << none
                                    << "Cannot reach the Hollowmere server" << QStringList();
        QTest::newRow("no list") << QJsonObject{{"servers", QJsonArray{"127.0.0.3"}}} << none
                                 << "Cannot reach the Hollowmere server" << QStringList();
        QTest::newRow("list of the wrong type")
            << QJsonObject{{"ips", "127.0.0.3"}} << none << "Cannot reach the Hollowmere server"
            << QStringList();
        QTest::newRow("every address fails")
            << QJsonObject{{"ips", QJsonArray{"127.0.0.2", 17, "127.0.0.2"}}} << none
            << "Cannot reach the Hollowmere server" << QStringList();
        QTest::newRow("fallback file unreachable")
            << QJsonObject{{"ips", QJsonArray{"127.0.0.3"}}}
            << QJsonObject{{"path", "/hollowmere/fallroot/config.json"}, {"drop", true}}
            << "The network connection was lost." << QStringList();
        QTest::newRow("fallback file not JSON")
            << QJsonObject{{"ips", QJsonArray{"127.0.0.3"}}}
            << QJsonObject{{"path", "/hollowmere/fallroot/config.json"},
                           {"status", 404},
                           {"contentType", "text/html"},
                           {"body", "gone"}}
            << "Hollowmere server is acting up" << QStringList();
    }

    void checkFailures()
    {
        QFETCH(QJsonObject, fallroot);
        QFETCH(QJsonObject, fallrootFault);
        QFETCH(QString, description);
        QFETCH(QStringList, backupIPs);
        blockServiceDomain();
        m_bed.service.setFallroot(fallroot);
        if (!fallrootFault.isEmpty()) {
            m_bed.service.addFault(fallrootFault);
        }
        auto client = makeClient();
        QSignalSpy announced(client.get(), &HMAPIClient::didChangeValueForKey);
        HMAPIResult result;
        request(*client, result);
        QTRY_VERIFY_WITH_TIMEOUT(result.done, 15000);
        QVERIFY(result.error);
        QCOMPARE(result.error->localizedDescription(), description);
        QVERIFY(result.reply.isEmpty());
        QCOMPARE(m_blocked, 1);
        QCOMPARE(client->status(), int(HMAPIStatusBlocked));
        QVERIFY(!client->isFallrootHealthy());
        QCOMPARE(client->backupIPs(), backupIPs);
        // The waiting request itself never went out.
        QCOMPARE(m_bed.service.requestsTo("/core/getLoginToken").size(), 0);
        // The status moved without telling observers of "isFallrootHealthy".
        QCOMPARE(announced.count(), 0);
    }

    void blockedClientStillSendsAndRecoversOnADictionary()
    {
        blockServiceDomain();
        auto client = makeClient();
        HMAPIResult first;
        request(*client, first);
        QTRY_VERIFY(first.done);
        QCOMPARE(client->status(), int(HMAPIStatusBlocked));

        // Still blocked: sent anyway, no second check, no second notification.
        HMAPIResult second;
        request(*client, second);
        QTRY_VERIFY(second.done);
        QCOMPARE(second.error->code(), -1005L);
        QCOMPARE(m_blocked, 1);
        QCOMPARE(m_bed.service.requestsTo("/core/status").size(), 1);
        QCOMPARE(client->status(), int(HMAPIStatusBlocked));

        m_bed.service.clearFaults();
        HMAPIResult third;
        request(*client, third);
        QTRY_VERIFY(third.done);
        QVERIFY(!third.error);
        QCOMPARE(client->status(), int(HMAPIStatusHealthy));
        QVERIFY(client->isFallrootHealthy());
    }

    void requestDuringTheCheckIsSentAtOnce()
    {
        m_bed.service.addFault({{"path", "/core/status"}, {"delayMs", 3000}, {"times", 1}});
        auto client = makeClient();
        HMAPIResult first;
        request(*client, first);
        QCOMPARE(client->status(), int(HMAPIStatusChecking));
        QVERIFY(!client->isFallrootHealthy());
        HMAPIResult second;
        request(*client, second);
        QTRY_VERIFY(second.done);
        QVERIFY(!first.done);
        QVERIFY(!second.error);
        QTRY_VERIFY(first.done);
        QVERIFY(!first.error);
        QCOMPARE(m_bed.service.requestsTo("/core/status").size(), 1);
    }

    void noNetworkFailsBeforeTheCallReturns()
    {
        auto client = makeClient();
        m_bed.reachable = false;
        HMAPIResult result;
        request(*client, result);
        m_bed.reachable = true;
        QVERIFY(result.done);
        QCOMPARE(result.error->localizedDescription(), QStringLiteral("No internet connection"));
        QCOMPARE(result.error->code(), 0L);
        QCOMPARE(result.error->domain(), QStringLiteral("hmwisp"));
        QVERIFY(!result.error->hasFailureReason());
        QCOMPARE(client->status(), int(HMAPIStatusUnknown));
        QCOMPARE(m_bed.service.requests().size(), 0);
    }
};

QTEST_GUILESS_MAIN(HMAPIFallrootTest)
#include "HMAPIFallrootTest.moc"
