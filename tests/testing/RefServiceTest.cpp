#include "HMRefService.h"
#include "HMTestEnvironment.h"

#include <QJsonDocument>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

// The parts of the reference service other suites lean on without looking: the token
// check an OpenVPN server runs, fault counting and the one-event-per-chunk stream. (What it
// reads from an upload is checked where the client sends one.)
class RefServiceTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    HMRefService m_service;
    QString m_token;

    // One exchange on the service listener; the raw reply.
    QByteArray exchange(const QByteArray &request)
    {
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"),
                             static_cast<quint16>(m_service.port("api")));
        if (!socket.waitForConnected(5000)) {
            return QByteArray();
        }
        socket.write(request);
        QByteArray reply;
        while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(5000)) {
            reply += socket.readAll();
        }
        return reply + socket.readAll();
    }

    int
    checkToken(const QStringList &arguments,
               const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
    {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(HMRefService::executable(),
                      QStringList{"check-token", "--control"} + arguments);
        if (!process.waitForFinished(10000)) {
            return -1;
        }
        return process.exitCode();
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        const QJsonObject config{
            {"listeners",
             QJsonArray{QJsonObject{{"name", "api"}, {"address", "127.0.0.1"}, {"port", 0}}}},
            {"accounts",
             QJsonArray{QJsonObject{{"username", "ann@example.test"}, {"password", "secret"}}}},
        };
        QString error;
        QVERIFY2(m_service.start(config, &error), qPrintable(error));
        m_token = m_service.account("ann@example.test").value("vpnToken").toString();
        QVERIFY(m_token.size() >= 16);
    }

    void checkTokenCommand_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("the account's token") << QByteArray("ann@example.test\n%TOKEN%\n") << 0;
        QTest::newRow("the password is no token") << QByteArray("ann@example.test\nsecret\n") << 1;
        QTest::newRow("unknown user") << QByteArray("bob@example.test\n%TOKEN%\n") << 1;
        QTest::newRow("empty file") << QByteArray() << 1;
        QTest::newRow("token as user name and password") << QByteArray("%TOKEN%\n%TOKEN%\n") << 0;
        QTest::newRow("a stranger's token as both") << QByteArray("feedface\nfeedface\n") << 1;
    }

    void checkTokenCommand()
    {
        QFETCH(QByteArray, file);
        QFETCH(int, exitCode);
        QTemporaryFile credentials;
        QVERIFY(credentials.open());
        credentials.write(file.replace("%TOKEN%", m_token.toUtf8()));
        credentials.close();
        const QString control = QStringLiteral("127.0.0.1:%1").arg(m_service.controlPort());
        QCOMPARE(checkToken({control, credentials.fileName()}), exitCode);
    }

    void checkTokenFromEnvironment()
    {
        const QString control = QStringLiteral("127.0.0.1:%1").arg(m_service.controlPort());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("username", "ann@example.test");
        environment.insert("password", m_token);
        QCOMPARE(checkToken({control}, environment), 0);
        environment.insert("password", "secret");
        QCOMPARE(checkToken({control}, environment), 1);
    }

    void checkTokenWithoutServiceFails()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString control = QStringLiteral("127.0.0.1:%1").arg(closed.serverPort());
        closed.close();
        QCOMPARE(checkToken({control, "/nonexistent"}), 2);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("username", "ann@example.test");
        environment.insert("password", m_token);
        QCOMPARE(checkToken({control}, environment), 2);
    }

    void faultAnswersItsCountThenTheServiceDoes()
    {
        m_service.addFault({{"path", "/core/status"},
                            {"status", 503},
                            {"contentType", "text/html"},
                            {"body", "down"},
                            {"times", 2}});
        for (int i = 0; i < 2; ++i) {
            QVERIFY(exchange("GET /core/status HTTP/1.0\r\nHost: x\r\n\r\n")
                        .startsWith("HTTP/1.1 503"));
        }
        const QByteArray reply = exchange("GET /core/status HTTP/1.0\r\nHost: x\r\n\r\n");
        QVERIFY(reply.startsWith("HTTP/1.1 200"));
        QVERIFY(reply.endsWith("\r\n\r\nok"));
    }

    void eventStreamSendsOneChunkPerEvent()
    {
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"),
                             static_cast<quint16>(m_service.port("api")));
        QVERIFY(socket.waitForConnected(5000));
        socket.write("GET /dashboard/blocks?username=ann%40example.test&password=secret "
                     "HTTP/1.1\r\nHost: x\r\n\r\n");
        QTRY_COMPARE(m_service.call("GET", "/test/state").value("streams").toInt(), 1);
        m_service.call(
            "POST", "/test/blocks",
            {{"events", QJsonArray{QJsonObject{{"category", "ads"}, {"text", "a: b"}},
                                   QJsonObject{{"category", "social"}, {"text", "Twitter"}}}}});
        m_service.call("POST", "/test/blocks/end");
        QByteArray received;
        while (!received.endsWith("0\r\n\r\n") && socket.waitForReadyRead(5000)) {
            received += socket.readAll();
        }
        const QByteArray body = received.mid(received.indexOf("\r\n\r\n") + 4);
        const QByteArray first = "data: {\"category\":\"ads\",\"text\":\"a: b\"}\r\n\r\n";
        const QByteArray second = "data: {\"category\":\"social\",\"text\":\"Twitter\"}\r\n\r\n";
        QCOMPARE(body, QByteArray::number(first.size(), 16) + "\r\n" + first + "\r\n" +
                           QByteArray::number(second.size(), 16) + "\r\n" + second +
                           "\r\n0\r\n\r\n");
        QTRY_COMPARE(m_service.call("GET", "/test/state").value("streams").toInt(), 0);
    }
};

QTEST_GUILESS_MAIN(RefServiceTest)
#include "RefServiceTest.moc"
