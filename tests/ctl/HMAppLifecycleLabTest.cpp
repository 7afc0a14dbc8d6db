// The real application's end in the VPN lab: quit (SIGTERM) and kill -9 while Connected,
// each followed by a fresh start on the same home, keyring and helper. What must hold is
// what a user would check with ps and ip: no OpenVPN outlives the application, the next start
// stops whatever an earlier run left before it decides to reconnect, and it reconnects only
// after its start-up token request.
#include "HMLabApplication.h"
#include "HMPreferenceStore.h"
#include "HMRefService.h"
#include "HMTestEnvironment.h"
#include "HMVPNLabClient.h"

#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>
#include <csignal>

namespace {

constexpr int kConnected = 2; // the control interface's State

QString routes()
{
    QProcess ip;
    ip.start(HMTestEnvironment::findProgram("ip"), {"-4", "route", "show", "table", "all"});
    ip.waitForFinished(5000);
    return QString::fromUtf8(ip.readAllStandardOutput());
}

// The helper's log lines from `from` on.
QStringList helperLog(qsizetype from = 0)
{
    QFile log(HMVPNLabClient::lab("LAB_HELPER_LOGS") + "/daemon.log");
    if (!log.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(log.readAll()).split('\n').mid(from);
}

bool asksForToken(const QJsonValue &request)
{
    const QString value =
        request.toObject().value("params").toObject().value("getToken").toString();
    return value == "true" || value == "1";
}

} // namespace

class HMAppLifecycleLabTest : public QObject
{
    Q_OBJECT

private:
    HMLabApplication m_app;
    HMRefService m_service;
    QString m_routesBefore;

    bool connectAndWait()
    {
        return HMLabApplication::ctl({"connect", "--wait"}).exit == 0 &&
               HMVPNLabClient::trackedOpenVPN() > 0;
    }

    // A fresh start on the same home; with `reconnects` until Connected.
    void restart(bool reconnects)
    {
        QString why;
        QVERIFY2(m_app.start(&why), qPrintable(why));
        if (reconnects) {
            QTRY_COMPARE_WITH_TIMEOUT(HMLabApplication::status().value("State").toInt(), kConnected,
                                      HMVPNLabClient::kConnectTimeoutMs);
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString skip = HMVPNLabClient::skipReason();
        if (!skip.isEmpty()) {
            QSKIP(qPrintable(skip));
        }
        const QString fail = HMVPNLabClient::failReason();
        QVERIFY2(fail.isEmpty(), qPrintable(fail));
        const QString control = HMVPNLabClient::lab("LAB_SERVICE_CONTROL");
        m_service.attach(control.section(':', 0, 0), control.section(':', 1).toInt());
        m_routesBefore = routes();

        QString why;
        QVERIFY2(m_app.start(&why), qPrintable(why));
        const HMLabApplication::Result login =
            HMLabApplication::ctl({"login", HMVPNLabClient::lab("LAB_USER")},
                                  HMVPNLabClient::lab("LAB_PASSWORD").toUtf8() + '\n');
        QVERIFY2(login.exit == 0, qPrintable(login.err));
    }

    void cleanup()
    {
        if (m_app.isRunning()) {
            HMLabApplication::ctl({"disconnect", "--wait"});
        }
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::tunDevices().isEmpty(), 10000);
        QTRY_COMPARE_WITH_TIMEOUT(routes(), m_routesBefore, 10000);
    }

    void cleanupTestCase()
    {
        if (m_app.isRunning()) {
            QVERIFY(m_app.terminate());
        }
    }

    void quitWhileConnectedReconnectsAfterTheTokenRequest()
    {
        QVERIFY(connectAndWait());
        QVERIFY(m_app.terminate());
        // Gone with the application, not left for a later run to find.
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::openVPNProcesses().isEmpty(), 3000);
        QTRY_VERIFY_WITH_TIMEOUT(HMVPNLabClient::tunDevices().isEmpty(), 3000);

        m_service.clearRequests();
        const qsizetype logStart = helperLog().size() - 1;
        restart(true);
        const QJsonArray signIns = m_service.requestsTo("/core/register");
        QVERIFY2(signIns.size() >= 2, "no start-up token request and renewal");
        QVERIFY2(!asksForToken(signIns.first()), "the start-up request asked for a VPN token");
        QVERIFY(asksForToken(signIns.last()));
        QCOMPARE(helperLog(logStart).filter("started OpenVPN").size(), 1);
    }

    void killedRunLeavesAnOrphanTheNextStartStops()
    {
        if (HMLabApplication::status().value("State").toInt() != kConnected) {
            QVERIFY(connectAndWait());
        }
        const int orphan = HMVPNLabClient::trackedOpenVPN();
        QVERIFY(orphan > 0);
        QVERIFY(m_app.kill());
        QTest::qWait(500);
        QCOMPARE(HMVPNLabClient::trackedOpenVPN(), orphan); // nothing stopped it yet

        // What a quit while Connected leaves, so that the next start wants to reconnect.
        {
            HMPreferenceStore store(HMPreferenceStore::defaultFilePath());
            store.setValue("shouldReconnect", true);
            store.sync();
        }
        const qsizetype logStart = helperLog().size() - 1;
        restart(true);
        const int reconnected = HMVPNLabClient::trackedOpenVPN();
        QVERIFY(reconnected > 0 && reconnected != orphan);
        QCOMPARE(HMVPNLabClient::openVPNProcesses(), QList<int>{reconnected});

        // The orphan was stopped on its own, before the reconnect asked for a new OpenVPN
        // (which would otherwise have replaced it).
        const QStringList log = helperLog(logStart);
        // (indexOf takes whole lines: hence the ".*" around.)
        const qsizetype stopped = log.indexOf(
            QRegularExpression(QString(".*stopped OpenVPN \\(pid %1\\).*").arg(orphan)));
        const qsizetype started = log.indexOf(QRegularExpression(".*startVPN from.*"));
        QVERIFY2(stopped >= 0 && started > stopped, qPrintable(log.join('\n')));
    }
};

QTEST_GUILESS_MAIN(HMAppLifecycleLabTest)
#include "HMAppLifecycleLabTest.moc"
