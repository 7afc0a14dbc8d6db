// hollowmerectl against the real application on the VPN lab: the application runs offscreen
// on a private session bus with a real Secret Service, talks to the reference service and
// the lab's helper, and every command goes through the control interface on the bus.
#include "HMLabApplication.h"
#include "HMRefService.h"
#include "HMTestEnvironment.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

namespace {

QString lab(const char *fact)
{
    return qEnvironmentVariable(fact);
}

using Result = HMLabApplication::Result;

} // namespace

class HMControlRoundTripTest : public QObject
{
    Q_OBJECT

private:
    HMLabApplication m_app;
    HMRefService m_service;

    static Result
    ctl(const QStringList &arguments, const QByteArray &input = QByteArray(),
        const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
    {
        return HMLabApplication::ctl(arguments, input, environment);
    }

    static QJsonObject status() { return HMLabApplication::status(); }

    bool signIn()
    {
        const Result r =
            ctl({QStringLiteral("login"), lab("LAB_USER")}, lab("LAB_PASSWORD").toUtf8() + '\n');
        return r.exit == 0;
    }

    // Runs a table row: exit status, a fragment of the message, and that nothing changed.
    void expect(const QStringList &arguments, int exit, const QString &fragment)
    {
        const QJsonObject before = status();
        const Result r = ctl(arguments);
        QVERIFY2(r.exit == exit, qPrintable(QStringLiteral("%1 -> %2: %3%4")
                                                .arg(arguments.join(QLatin1Char(' ')))
                                                .arg(r.exit)
                                                .arg(r.out, r.err)));
        QVERIFY2(QString(r.out + r.err).contains(fragment, Qt::CaseInsensitive), qPrintable(r.err));
        if (exit != 0) {
            QCOMPARE(status(), before);
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsSet("HM_LAB_UNAVAILABLE")) {
            QSKIP(qPrintable(qEnvironmentVariable("HM_LAB_UNAVAILABLE")));
        }
        if (lab("LAB_HELPER_SOCKET").isEmpty() ||
            qEnvironmentVariable("HM_SECRET_SERVICE") != QLatin1String("keyring")) {
            QSKIP("runs in the VPN lab on a private Secret Service (ctest does that)");
        }
        const QString control = lab("LAB_SERVICE_CONTROL");
        m_service.attach(control.section(QLatin1Char(':'), 0, 0),
                         control.section(QLatin1Char(':'), 1).toInt());

        // Without the application: a clear message and the status scripts can test for.
        const Result absent = ctl({QStringLiteral("status")});
        QCOMPARE(absent.exit, 3);
        QVERIFY(absent.err.contains(QLatin1String("not running")));

        QString why;
        QVERIFY2(m_app.start(&why), qPrintable(why));
    }

    void cleanupTestCase()
    {
        if (m_app.isRunning()) {
            ctl({QStringLiteral("disconnect"), QStringLiteral("--wait")});
            QVERIFY(m_app.terminate());
        }
    }

    void commandLineMistakes_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QString>("bus");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("message");
        const QByteArray none;
        const QString here;
        QTest::newRow("no command") << QStringList{} << none << here << 2 << "no command";
        QTest::newRow("unknown") << QStringList{"frobnicate"} << none << here << 2 << "unknown";
        QTest::newRow("option elsewhere")
            << QStringList{"status", "--wait"} << none << here << 2 << "does not go";
        QTest::newRow("missing code") << QStringList{"country"} << none << here << 2 << "arguments";
        QTest::newRow("routing verb")
            << QStringList{"routing", "sideways"} << none << here << 2 << "routing takes";
        QTest::newRow("empty password")
            << QStringList{"login", "a@b.test"} << QByteArray("\n") << here << 2 << "no password";
        QTest::newRow("no session bus")
            << QStringList{"status"} << none << "unix:path=/nonexistent/bus" << 3 << "session bus";
    }

    void commandLineMistakes()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(QString, bus);
        QFETCH(int, exit);
        QFETCH(QString, message);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        if (!bus.isEmpty()) {
            environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus);
        }
        const Result r = ctl(arguments, input, environment);
        QCOMPARE(r.exit, exit);
        QVERIFY2(r.err.contains(message), qPrintable(r.err));
    }

    void signedOutRefusals_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("message");
        QTest::newRow("connect") << QStringList{"connect", "--wait"} << 1 << "Not signed in";
        QTest::newRow("country") << QStringList{"country", "US"} << 1 << "Not signed in";
        QTest::newRow("logout") << QStringList{"logout"} << 1 << "Not signed in";
        QTest::newRow("routing") << QStringList{"routing", "include"} << 1 << "Not signed in";
        QTest::newRow("privacy") << QStringList{"privacy", "on"} << 1 << "Not signed in";
        QTest::newRow("report") << QStringList{"report", "it broke"} << 1 << "Not signed in";
    }

    void signedOutRefusals()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exit);
        QFETCH(QString, message);
        expect(arguments, exit, message);
    }

    void signInRefusedThenAccepted()
    {
        const Result wrong =
            ctl({QStringLiteral("login"), lab("LAB_USER")}, QByteArray("wrong-password\n"));
        QCOMPARE(wrong.exit, 1);
        QVERIFY2(wrong.err.contains(QLatin1String("Incorrect password")), qPrintable(wrong.err));
        QCOMPARE(status().value(QStringLiteral("SignedIn")).toBool(), false);

        QVERIFY(signIn());
        const QJsonObject signedIn = status();
        QCOMPARE(signedIn.value(QStringLiteral("User")).toString(), lab("LAB_USER"));
        QCOMPARE(signedIn.value(QStringLiteral("StateText")).toString(),
                 QStringLiteral("Disconnected"));
        QCOMPARE(ctl({QStringLiteral("countries")}).out, QStringLiteral("* US\n  GB\n  DE\n"));
        expect({QStringLiteral("login"), lab("LAB_USER")}, 1, QStringLiteral("Already signed in"));
    }

    // Signed in: the privacy switches reach the privacy manager and a report reaches the
    // service under the account, with the user's words and the collected logs.
    void privacyAndReportWhileSignedIn()
    {
        const auto privacy = [this] {
            return status().value(QStringLiteral("Privacy")).toObject();
        };
        expect({QStringLiteral("privacy"), QStringLiteral("on")}, 0, QString());
        QTRY_VERIFY(privacy().value(QStringLiteral("enabled")).toBool());
        expect({QStringLiteral("privacy"), QStringLiteral("twitter"), QStringLiteral("off")}, 0,
               QString());
        QTRY_VERIFY(!privacy().value(QStringLiteral("twitter")).toBool());
        expect({QStringLiteral("privacy"), QStringLiteral("myspace"), QStringLiteral("on")}, 1,
               QStringLiteral("Unknown filter"));
        expect({QStringLiteral("privacy"), QStringLiteral("off")}, 0, QString());
        QTRY_VERIFY(!privacy().value(QStringLiteral("enabled")).toBool());

        const qsizetype before = m_service.uploads().size();
        expect({QStringLiteral("report"), QStringLiteral("the tunnel dropped twice")}, 0,
               QStringLiteral("sent"));
        const QJsonArray uploads = m_service.uploads();
        QCOMPARE(uploads.size(), before + 1);
        const QJsonObject upload = uploads.last().toObject();
        QCOMPARE(upload.value(QStringLiteral("feedback")).toString(),
                 QStringLiteral("the tunnel dropped twice"));
        QCOMPARE(upload.value(QStringLiteral("username")).toString(), lab("LAB_USER"));
    }

    void accountAndRoutingCommands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("property");
        QTest::addColumn<QString>("value");
        QTest::newRow("unknown country") << QStringList{"country", "XX"} << 1 << "Unknown country"
                                         << "ChosenCountry"
                                         << "US";
        QTest::newRow("country, any case") << QStringList{"country", "gb"} << 0 << ""
                                           << "ChosenCountry"
                                           << "GB";
        QTest::newRow("country back") << QStringList{"country", "US"} << 0 << ""
                                      << "ChosenCountry"
                                      << "US";
        QTest::newRow("mode") << QStringList{"routing", "include"} << 0 << ""
                              << "RoutingMode"
                              << "include";
        QTest::newRow("unknown list")
            << QStringList{"routing", "add", "both", "a.test"} << 1 << "Unknown list"
            << "RoutingMode"
            << "include";
        QTest::newRow("not a domain")
            << QStringList{"routing", "add", "include", "nodot"} << 1 << "not a domain"
            << "IncludedDomains"
            << "";
        QTest::newRow("add") << QStringList{"routing", "add", "include", "example.com"} << 0 << ""
                             << "IncludedDomains"
                             << "example.com";
        QTest::newRow("add twice")
            << QStringList{"routing", "add", "include", "example.com"} << 1 << "already on"
            << "IncludedDomains"
            << "example.com";
        QTest::newRow("other list")
            << QStringList{"routing", "add", "exclude", "example.com"} << 0 << ""
            << "ExcludedDomains"
            << "example.com";
        QTest::newRow("remove") << QStringList{"routing", "remove", "include", "example.com"} << 0
                                << ""
                                << "IncludedDomains"
                                << "";
        QTest::newRow("remove absent")
            << QStringList{"routing", "remove", "include", "example.com"} << 1 << "not on"
            << "IncludedDomains"
            << "";
        QTest::newRow("mode off") << QStringList{"routing", "off"} << 0 << ""
                                  << "RoutingMode"
                                  << "off";
    }

    void accountAndRoutingCommands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exit);
        QFETCH(QString, message);
        QFETCH(QString, property);
        QFETCH(QString, value);
        // Where the helper cannot run the DNS proxy, every edit but "off" is refused instead.
        const bool routingEdit = arguments.constFirst() == QLatin1String("routing") &&
                                 arguments.value(1) != QLatin1String("off") && exit == 0;
        if (routingEdit && !status().value(QStringLiteral("RoutingAvailable")).toBool()) {
            expect(arguments, 4, QStringLiteral("not available"));
            return;
        }
        expect(arguments, exit, message);
        const QJsonValue now = status().value(property);
        const QString shown =
            now.isArray() ? now.toVariant().toStringList().join(QLatin1Char(',')) : now.toString();
        QCOMPARE(shown, value);
    }

    void wrongTypesAreRefusedByTheBus()
    {
        const QJsonObject before = status();
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("com.hollowmere.Hollowmere"),
            QStringLiteral("/com/hollowmere/Hollowmere"),
            QStringLiteral("com.hollowmere.Hollowmere"), QStringLiteral("SetCountry"));
        call << 49;
        const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
        QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
        QVERIFY2(reply.errorMessage().contains(QLatin1String("SetCountry")),
                 qPrintable(reply.errorMessage()));
        QCOMPARE(status(), before);
    }

    void connectWaitIsWatchedAndRefusesASecondWait()
    {
        QProcess watch;
        watch.start(HMLabApplication::ctlPath(), {QStringLiteral("watch")});
        // watch starts with the current state: from then on it misses nothing.
        QByteArray seen;
        QTRY_VERIFY((seen += watch.readAllStandardOutput()).contains("StateText: Disconnected"));

        // The token refresh answers late, so the switch-on stays in Connecting long enough
        // for a second request to meet it.
        m_service.addFault({{QStringLiteral("path"), QStringLiteral("/core/register")},
                            {QStringLiteral("delayMs"), 3000},
                            {QStringLiteral("times"), 1}});
        QProcess first;
        first.start(HMLabApplication::ctlPath(),
                    {QStringLiteral("connect"), QStringLiteral("--wait")});
        QTRY_COMPARE_WITH_TIMEOUT(status().value(QStringLiteral("State")).toInt(), 3, 10000);
        expect({QStringLiteral("connect"), QStringLiteral("--wait")}, 1,
               QStringLiteral("connecting"));
        QVERIFY(first.waitForFinished(120000));
        QCOMPARE(first.exitCode(), 0);

        const QJsonObject connected = status();
        QCOMPARE(connected.value(QStringLiteral("StateText")).toString(),
                 QStringLiteral("Connected"));
        QCOMPARE(connected.value(QStringLiteral("ConnectedAddress")).toString(),
                 lab("LAB_SERVER_IP"));
        QTRY_VERIFY((seen += watch.readAllStandardOutput()).contains("StateText: Connected\n"));
        QVERIFY(seen.indexOf("StateText: Connecting") < seen.indexOf("StateText: Connected\n"));
        QVERIFY(seen.contains("StateText: Connecting"));

        const Result down = ctl({QStringLiteral("disconnect"), QStringLiteral("--wait")});
        QCOMPARE(down.exit, 0);
        QCOMPARE(status().value(QStringLiteral("State")).toInt(), 0);
        watch.terminate();
        QVERIFY(watch.waitForFinished());
    }

    void connectWaitReportsTheFailure()
    {
        QCOMPARE(ctl({QStringLiteral("disconnect"), QStringLiteral("--wait")}).exit, 0);
        // The service refuses every sign-in from now on: the token refresh fails, and the
        // attempt ends (after its retries) with the service's message.
        m_service.addFault({{QStringLiteral("path"), QStringLiteral("/core/register")},
                            {QStringLiteral("status"), 500}});
        const Result r = ctl({QStringLiteral("connect"), QStringLiteral("--wait")});
        m_service.clearFaults();
        QCOMPARE(r.exit, 1);
        QVERIFY2(!r.err.isEmpty(), "no reason given");
        QVERIFY(status().value(QStringLiteral("State")).toInt() != 2);
        QVERIFY(!status().value(QStringLiteral("LastError")).toString().isEmpty());
    }

    void logoutSignsOut()
    {
        expect({QStringLiteral("logout")}, 0, QString());
        QCOMPARE(status().value(QStringLiteral("SignedIn")).toBool(), false);
    }
};

QTEST_GUILESS_MAIN(HMControlRoundTripTest)
#include "HMControlRoundTripTest.moc"
