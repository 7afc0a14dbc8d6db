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

Result ctl(const QStringList &arguments, const QByteArray &input = QByteArray(),
           const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment())
{
    return HMLabApplication::ctl(arguments, input, environment);
}

QJsonObject status()
{
    return HMLabApplication::status();
}

} // namespace

class HMControlRoundTripTest : public QObject
{
    Q_OBJECT

private:
    HMLabApplication m_app;
    HMRefService m_service;

    // Exit status, a fragment of the message, and that a refused command changed nothing.
    void expect(const QStringList &arguments, int exit, const QString &fragment)
    {
        const QJsonObject before = status();
        const Result r = ctl(arguments);
        QVERIFY2(r.exit == exit, qPrintable(QStringLiteral("%1 -> %2: %3%4")
                                                .arg(arguments.join(' '))
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
        if (lab("LAB_HELPER_SOCKET").isEmpty() || lab("HM_SECRET_SERVICE") != "keyring") {
            QSKIP("runs in the VPN lab on a private Secret Service (ctest does that)");
        }
        const QString control = lab("LAB_SERVICE_CONTROL");
        m_service.attach(control.section(':', 0, 0), control.section(':', 1).toInt());

        // Without the application: a clear message and the status scripts can test for.
        const Result absent = ctl({"status"});
        QCOMPARE(absent.exit, 3);
        QVERIFY(absent.err.contains("not running"));

        QString why;
        QVERIFY2(m_app.start(&why), qPrintable(why));
    }

    void cleanupTestCase()
    {
        if (m_app.isRunning()) {
            ctl({"disconnect", "--wait"});
            QVERIFY(m_app.terminate());
        }
    }

    // Mistakes on the command line, and what needs an account while signed out: refused
    // with a message, nothing changed.
    void refusedCommandsChangeNothing_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QString>("bus");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("message");
        const auto row = [](const char *name, const QStringList &arguments, int exit,
                            const char *message, const QByteArray &input = {},
                            const QString &bus = {}) {
            QTest::newRow(name) << arguments << input << bus << exit << message;
        };
        row("no command", {}, 2, "no command");
        row("unknown", {"frobnicate"}, 2, "unknown");
        row("option elsewhere", {"status", "--wait"}, 2, "does not go");
        row("missing code", {"country"}, 2, "arguments");
        row("routing verb", {"routing", "sideways"}, 2, "routing takes");
        row("empty password", {"login", "a@b.test"}, 2, "no password", "\n");
        row("no session bus", {"status"}, 3, "session bus", {}, "unix:path=/nonexistent/bus");
        for (const QStringList &arguments : {QStringList{"connect", "--wait"},
                                             {"country", "US"},
                                             {"logout"},
                                             {"routing", "include"},
                                             {"privacy", "on"},
                                             {"report", "it broke"}}) {
            row(qPrintable("signed out: " + arguments.first()), arguments, 1, "Not signed in");
        }
    }

    void refusedCommandsChangeNothing()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(QString, bus);
        QFETCH(int, exit);
        QFETCH(QString, message);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        if (!bus.isEmpty()) {
            environment.insert("DBUS_SESSION_BUS_ADDRESS", bus);
        }
        const QJsonObject before = status();
        const Result r = ctl(arguments, input, environment);
        QCOMPARE(r.exit, exit);
        QVERIFY2(r.err.contains(message), qPrintable(r.err));
        QCOMPARE(status(), before);
    }

    void signInRefusedThenAccepted()
    {
        const Result wrong = ctl({"login", lab("LAB_USER")}, "wrong-password\n");
        QCOMPARE(wrong.exit, 1);
        QVERIFY2(wrong.err.contains("Incorrect password"), qPrintable(wrong.err));
        QCOMPARE(status().value("SignedIn").toBool(), false);

        QCOMPARE(ctl({"login", lab("LAB_USER")}, lab("LAB_PASSWORD").toUtf8() + '\n').exit, 0);
        QCOMPARE(status().value("User").toString(), lab("LAB_USER"));
        QCOMPARE(status().value("StateText").toString(), QStringLiteral("Disconnected"));
        QCOMPARE(ctl({"countries"}).out, QStringLiteral("* US\n  GB\n  DE\n"));
        expect({"login", lab("LAB_USER")}, 1, "Already signed in");
    }

    // The privacy switches reach the privacy manager and a report reaches the service under
    // the account, with the user's words.
    void privacyAndReportWhileSignedIn()
    {
        const auto privacy = [] { return status().value("Privacy").toObject(); };
        expect({"privacy", "on"}, 0, QString());
        QTRY_VERIFY(privacy().value("enabled").toBool());
        expect({"privacy", "twitter", "off"}, 0, QString());
        QTRY_VERIFY(!privacy().value("twitter").toBool());
        expect({"privacy", "myspace", "on"}, 1, "Unknown filter");
        expect({"privacy", "off"}, 0, QString());
        QTRY_VERIFY(!privacy().value("enabled").toBool());

        const qsizetype before = m_service.uploads().size();
        expect({"report", "the tunnel dropped twice"}, 0, "sent");
        const QJsonArray uploads = m_service.uploads();
        QCOMPARE(uploads.size(), before + 1);
        const QJsonObject upload = uploads.last().toObject();
        QCOMPARE(upload.value("feedback").toString(), QStringLiteral("the tunnel dropped twice"));
        QCOMPARE(upload.value("username").toString(), lab("LAB_USER"));
    }

    // Rows run in order on one account: each sees what the ones before it left.
    void accountAndRoutingCommands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("property");
        QTest::addColumn<QString>("value");
        const auto row = [](const char *name, const QStringList &arguments, int exit,
                            const char *message, const char *property, const char *value) {
            QTest::newRow(name) << arguments << exit << message << property << value;
        };
        row("unknown country", {"country", "XX"}, 1, "Unknown country", "ChosenCountry", "US");
        row("country, any case", {"country", "gb"}, 0, "", "ChosenCountry", "GB");
        row("country back", {"country", "US"}, 0, "", "ChosenCountry", "US");
        row("mode", {"routing", "include"}, 0, "", "RoutingMode", "include");
        row("unknown list", {"routing", "add", "both", "a.test"}, 1, "Unknown list", "RoutingMode",
            "include");
        const QStringList add{"routing", "add", "include", "example.com"};
        const QStringList remove{"routing", "remove", "include", "example.com"};
        row("not a domain", {"routing", "add", "include", "nodot"}, 1, "not a domain",
            "IncludedDomains", "");
        row("add", add, 0, "", "IncludedDomains", "example.com");
        row("add twice", add, 1, "already on", "IncludedDomains", "example.com");
        row("other list", {"routing", "add", "exclude", "example.com"}, 0, "", "ExcludedDomains",
            "example.com");
        row("remove", remove, 0, "", "IncludedDomains", "");
        row("remove absent", remove, 1, "not on", "IncludedDomains", "");
        row("mode off", {"routing", "off"}, 0, "", "RoutingMode", "off");
    }

    void accountAndRoutingCommands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exit);
        QFETCH(QString, message);
        QFETCH(QString, property);
        QFETCH(QString, value);
        // Where the helper cannot run the DNS proxy, every edit but "off" is refused instead.
        const bool routingEdit =
            arguments.constFirst() == "routing" && arguments.value(1) != "off" && exit == 0;
        if (routingEdit && !status().value("RoutingAvailable").toBool()) {
            expect(arguments, 4, "not available");
            return;
        }
        expect(arguments, exit, message);
        const QJsonValue now = status().value(property);
        QCOMPARE(now.isArray() ? now.toVariant().toStringList().join(',') : now.toString(), value);
    }

    void wrongTypesAreRefusedByTheBus()
    {
        const QJsonObject before = status();
        QDBusMessage call = QDBusMessage::createMethodCall(
            "com.hollowmere.Hollowmere", "/com/hollowmere/Hollowmere", "com.hollowmere.Hollowmere",
            "SetCountry");
        call << 49;
        const QDBusMessage reply = QDBusConnection::sessionBus().call(call);
        QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
        QVERIFY2(reply.errorMessage().contains("SetCountry"), qPrintable(reply.errorMessage()));
        QCOMPARE(status(), before);
    }

    void connectWaitIsWatchedAndRefusesASecondWait()
    {
        QProcess watch;
        watch.start(HMLabApplication::ctlPath(), {"watch"});
        // watch starts with the current state: from then on it misses nothing.
        QByteArray seen;
        QTRY_VERIFY((seen += watch.readAllStandardOutput()).contains("StateText: Disconnected"));

        // The token refresh answers late, so the switch-on stays in Connecting long enough
        // for a second request to meet it.
        m_service.addFault({{"path", "/core/register"}, {"delayMs", 3000}, {"times", 1}});
        QProcess first;
        first.start(HMLabApplication::ctlPath(), {"connect", "--wait"});
        QTRY_COMPARE_WITH_TIMEOUT(status().value("State").toInt(), 3, 10000);
        expect({"connect", "--wait"}, 1, "connecting");
        QVERIFY(first.waitForFinished(120000));
        QCOMPARE(first.exitCode(), 0);

        QCOMPARE(status().value("StateText").toString(), QStringLiteral("Connected"));
        QCOMPARE(status().value("ConnectedAddress").toString(), lab("LAB_SERVER_IP"));
        QTRY_VERIFY((seen += watch.readAllStandardOutput()).contains("StateText: Connected\n"));
        const qsizetype connecting = seen.indexOf("StateText: Connecting");
        QVERIFY(connecting >= 0 && connecting < seen.indexOf("StateText: Connected\n"));

        QCOMPARE(ctl({"disconnect", "--wait"}).exit, 0);
        QCOMPARE(status().value("State").toInt(), 0);
        watch.terminate();
        QVERIFY(watch.waitForFinished());
    }

    void connectWaitReportsTheFailure()
    {
        QCOMPARE(ctl({"disconnect", "--wait"}).exit, 0);
        // The service refuses every sign-in from now on: the token refresh fails, and the
        // attempt ends (after its retries) with the service's message.
        m_service.addFault({{"path", "/core/register"}, {"status", 500}});
        const Result r = ctl({"connect", "--wait"});
        m_service.clearFaults();
        QCOMPARE(r.exit, 1);
        QVERIFY2(!r.err.isEmpty(), "no reason given");
        QVERIFY(status().value("State").toInt() != 2);
        QVERIFY(!status().value("LastError").toString().isEmpty());
    }

    void logoutSignsOut()
    {
        expect({"logout"}, 0, QString());
        QCOMPARE(status().value("SignedIn").toBool(), false);
    }
};

QTEST_GUILESS_MAIN(HMControlRoundTripTest)
#include "HMControlRoundTripTest.moc"
