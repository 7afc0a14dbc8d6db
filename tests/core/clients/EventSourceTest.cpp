// The event-stream client: its parser as a table of chunks, and its lifecycle against the
// reference service's stream on virtual time (nothing opens or reopens until the test moves
// the clock).
#include "EventSource.h"
#include "HMAPIClient.h"
#include "HMManualClock.h"
#include "HMRefService.h"

#include <QJsonArray>
#include <QNetworkAccessManager>
#include <QTcpServer>
#include <QtTest>
#include <memory>

class EventSourceTest : public QObject
{
    Q_OBJECT

private:
    HMRefService m_service;
    HMManualClock m_clock;
    QNetworkAccessManager m_network;
    std::unique_ptr<EventSource> m_source;
    QStringList m_log;

    int streamRequests()
    {
        return m_service.requestsTo(QStringLiteral("/dashboard/blocks")).size();
    }

    // Every delivery as "<listener>[:data]"; errors as "error:<domain>:<code>".
    void makeSource()
    {
        const QUrl url(
            QStringLiteral("http://127.0.0.1:%1/dashboard/blocks?username=ann&password=pw")
                .arg(m_service.port(QStringLiteral("api"))));
        m_source = std::make_unique<EventSource>(url, m_network, m_clock);
        m_source->onOpen([this](const Event &event) {
            QCOMPARE(event.readyState, int(Event::Open));
            m_log << QStringLiteral("open");
        });
        m_source->onMessage([this](const Event &event) { m_log << "message:" + event.data; });
        m_source->addEventListener(QStringLiteral("block"),
                                   [this](const Event &event) { m_log << "block:" + event.data; });
        m_source->onError([this](const Event &event) {
            QCOMPARE(event.readyState, int(Event::Closed));
            m_log << QStringLiteral("error:%1:%2")
                         .arg(event.error->domain())
                         .arg(event.error->code());
        });
    }

    // Opens the stream the way the source does it: a second after creation.
    void openStream()
    {
        makeSource();
        QCOMPARE(streamRequests(), 0);
        m_clock.advance(EventSource::kOpenDelayMs);
        QTRY_COMPARE(m_log, QStringList{QStringLiteral("open")});
        QTRY_COMPARE(m_service.call("GET", "/test/state").value("streams").toInt(), 1);
        m_log.clear();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        QVERIFY2(
            m_service.start(
                QJsonObject{
                    {"listeners", QJsonArray{QJsonObject{
                                      {"name", "api"}, {"address", "127.0.0.1"}, {"port", 0}}}},
                    {"accounts", QJsonArray{QJsonObject{{"username", "ann"}, {"password", "pw"}}}}},
                &error),
            qPrintable(error));
    }

    void cleanup()
    {
        m_source.reset();
        m_log.clear();
        m_service.clearFaults();
        // A plain-HTTP stream notices a client that left only when it ends. Ended again on
        // every look: the reopen a closing handler cancels may still reach the service after
        // the first end.
        QTRY_COMPARE((m_service.call("POST", "/test/blocks/end"),
                      m_service.call("GET", "/test/state").value("streams").toInt()),
                     0);
        m_service.clearRequests();
    }

    void parsesOneChunk_data()
    {
        QTest::addColumn<QByteArray>("chunk");
        QTest::addColumn<bool>("delivered");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("event");
        QTest::addColumn<QString>("data");
        const QString none;
        QTest::newRow("one data line")
            << QByteArray("data: hello\r\n\r\n") << true << none << none << "hello";
        QTest::newRow("named event")
            << QByteArray("id: 7\nevent: block\ndata: x\r\n\r\n") << true << "7"
            << "block"
            << "x";
        QTest::newRow("ends in one newline")
            << QByteArray("data: x\n") << false << none << none << none;
        QTest::newRow("first half of an event")
            << QByteArray("event: block\ndata: {\"a") << false << none << none << none;
        QTest::newRow("two events run together")
            << QByteArray("data: a\r\n\r\nevent: b\r\n\r\n") << true << none << none << "aevent";
        QTest::newRow("identity counts as id")
            << QByteArray("identity: 9\r\n\r\n") << true << "9" << none << none;
        QTest::newRow("value cut at its own colon")
            << QByteArray("data: {\"category\": \"ads\"}\r\n\r\n") << true << none << none
            << "{\"category\"";
        QTest::newRow("trailing CR kept")
            << QByteArray("data: x\r\nid: 3\r\n\r\n") << true << "3" << none << "x\r";
        QTest::newRow("later field replaces")
            << QByteArray("data: a\ndata: b\r\n\r\n") << true << none << none << "b";
        QTest::newRow("comments, retry and bare fields ignored")
            << QByteArray(": hi\nretry: 5\ndata:x\nevent\r\n\r\n") << true << none << none << none;
        QTest::newRow("empty value")
            << QByteArray("data: \r\n\r\n") << true << none << none << QString(QLatin1String(""));
        QTest::newRow("cut-off UTF-8 after the end")
            << QByteArray("data: x\r\n\r\n\r\n\xc9") << false << none << none << none;
        QTest::newRow("invalid UTF-8")
            << QByteArray("data: \xff\xfe\r\n\r\n") << false << none << none << none;
    }

    void parsesOneChunk()
    {
        QFETCH(QByteArray, chunk);
        QFETCH(bool, delivered);
        QFETCH(QString, id);
        QFETCH(QString, event);
        QFETCH(QString, data);
        const std::optional<Event> parsed = EventSource::parseChunk(chunk);
        QCOMPARE(parsed.has_value(), delivered);
        if (parsed) {
            QCOMPARE(parsed->readyState, int(Event::Open));
            QCOMPARE(parsed->id, id);
            QCOMPARE(parsed->id.isNull(), id.isNull());
            QCOMPARE(parsed->event, event);
            QCOMPARE(parsed->event.isNull(), event.isNull());
            QCOMPARE(parsed->data, data);
            QCOMPARE(parsed->data.isNull(), data.isNull());
        }
    }

    void describesItself()
    {
        Event event = *EventSource::parseChunk("event: block\ndata: 1\r\n\r\n");
        QCOMPARE(event.description(),
                 QStringLiteral("<Event: readyState: OPEN, id: (null); event: block; data: 1>"));
        event.readyState = 5;
        QCOMPARE(event.description(),
                 QStringLiteral("<Event: readyState: , id: (null); event: block; data: 1>"));
    }

    void deliversMessageFirstThenNamedListeners()
    {
        openStream();
        // One at a time: chunks written back to back may reach the client as one.
        m_service.call("POST", "/test/blocks",
                       {{"event", "block"}, {"events", QJsonArray{QJsonObject{{"n", 1}}}}});
        QTRY_COMPARE(m_log, (QStringList{"message:{\"n\":1}", "block:{\"n\":1}"}));
        m_service.call("POST", "/test/blocks", {{"raw", "event: other\ndata: plain\r\n\r\n"}});
        QTRY_COMPARE(m_log.size(), 3);
        QCOMPARE(m_log.last(), QStringLiteral("message:plain"));
        QCOMPARE(streamRequests(), 1);
    }

    void notFoundOpensNothingYetParsesTheBodyAndReopensAtOnce()
    {
        m_service.addFault({{"path", "/dashboard/blocks"},
                            {"status", 404},
                            {"contentType", "text/event-stream"},
                            {"body", "data: still parsed\r\n\r\n"},
                            {"times", 1}});
        makeSource();
        m_clock.advance(EventSource::kOpenDelayMs);
        QTRY_COMPARE(m_log, (QStringList{"message:still parsed", "error::2", "open"}));
        QCOMPARE(streamRequests(), 2);
        QCOMPARE(m_clock.pendingTimers(), 0);
    }

    void endOfStreamReopensAtOnceUnlessAHandlerCloses()
    {
        openStream();
        m_source->onError([this](const Event &event) {
            QCOMPARE(event.error->localizedDescription(), EventSource::kEndOfStreamDescription);
            QVERIFY(!event.error->domain().isNull() && event.error->domain().isEmpty());
            m_source->close();
        });
        m_service.call("POST", "/test/blocks/end");
        QTRY_COMPARE(m_log, QStringList{"error::2"});
        QVERIFY(m_source->wasClosed());
        QCOMPARE(m_clock.pendingTimers(), 0); // nothing will reopen it
    }

    void closedSourceHearsNothingMore()
    {
        openStream();
        m_source->close();
        m_service.call("POST", "/test/blocks", {{"raw", "data: late\r\n\r\n"}});
        m_service.call("POST", "/test/blocks/end");
        QTRY_COMPARE(m_service.call("GET", "/test/state").value("streams").toInt(), 0);
        m_clock.advance(10 * EventSource::kRetryDelayMs);
        QCOMPARE(streamRequests(), 1);
        QVERIFY(m_log.isEmpty());
    }

    void failureIsRetriedAfterASecondEvenWhenClosed()
    {
        QTcpServer gone;
        QVERIFY(gone.listen(QHostAddress::LocalHost));
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/").arg(gone.serverPort()));
        gone.close();
        m_source = std::make_unique<EventSource>(url, m_network, m_clock);
        int failures = 0;
        m_source->onError([&](const Event &event) {
            QCOMPARE(event.error->domain(), HMAPIClient::kURLLoadingDomain);
            QCOMPARE(event.error->code(), -1004L);
            ++failures;
            m_source->close();
        });
        m_clock.advance(EventSource::kOpenDelayMs);
        QTRY_COMPARE(failures, 1);
        QCOMPARE(m_clock.nextDueMs(), m_clock.monotonicMs() + EventSource::kRetryDelayMs);
        m_clock.advance(EventSource::kRetryDelayMs);
        QVERIFY(!m_source->wasClosed());
        QTRY_COMPARE(failures, 2);
    }

    // Qt ends some dropped chunked streams as failures and some as clean ends; either way
    // the listeners hear of it.
    void droppedStreamIsReported()
    {
        openStream();
        m_service.call("POST", "/test/blocks/end", {{"drop", true}});
        QTRY_VERIFY(!m_log.isEmpty());
        QVERIFY2(m_log.first() == "error::2" ||
                     m_log.first() == "error:" + HMAPIClient::kURLLoadingDomain + ":-1005",
                 qPrintable(m_log.first()));
    }
};

QTEST_GUILESS_MAIN(EventSourceTest)
#include "EventSourceTest.moc"
