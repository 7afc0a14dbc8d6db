// Desktop notices against a real notification server (dunst) on the session's private bus,
// and against a bus where no server exists or can be started.
#include "HMNotificationManager.h"
#include "HMLogCapture.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"

#include <QDBusConnectionInterface>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

namespace {

QString dunstctl(const QStringList &arguments)
{
    QProcess process;
    process.start("dunstctl", arguments);
    process.waitForFinished();
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

// "summary|body" of the notices dunst has shown and closed, newest first.
QStringList history()
{
    dunstctl({"close-all"});
    const QJsonArray entries = QJsonDocument::fromJson(dunstctl({"history"}).toUtf8())
                                   .object()
                                   .value("data")
                                   .toArray()
                                   .at(0)
                                   .toArray();
    QStringList summaries;
    for (const QJsonValue &entry : entries) {
        summaries << entry["summary"]["data"].toString() + "|" + entry["body"]["data"].toString();
    }
    return summaries;
}

// The notices closed since `before` was taken, newest first.
QStringList historySince(const QStringList &before)
{
    const QStringList now = history();
    return now.mid(0, now.size() - before.size());
}

} // namespace

class HMNotificationManagerTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_home;
    QProcess m_dunst;

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIsEmpty("HM_DESKTOP_SESSION")) {
            QSKIP("needs a throw-away desktop session: run through with-desktop-session.sh");
        }
        m_home = HMTestEnvironment::isolateUserDirectories();
        m_dunst.start("dunst", {});
        QVERIFY2(m_dunst.waitForStarted(), "dunst is missing (scripts/setup.sh installs it)");
        QTRY_VERIFY(QDBusConnection::sessionBus().interface()->isServiceRegistered(
            "org.freedesktop.Notifications"));
    }

    void cleanupTestCase()
    {
        m_dunst.terminate();
        m_dunst.waitForFinished();
    }

    void deliveredOnlyWhenEnabled_data()
    {
        QTest::addColumn<QVariant>("enabled");
        QTest::addColumn<QString>("image");
        QTest::addColumn<bool>("shown");
        QTest::newRow("enabled, with picture") << QVariant(true) << "alert_angry" << true;
        QTest::newRow("enabled, no picture") << QVariant(true) << "" << true;
        QTest::newRow("disabled") << QVariant(false) << "alert_angry" << false;
        QTest::newRow("never chosen") << QVariant() << "" << false;
    }

    void deliveredOnlyWhenEnabled()
    {
        QFETCH(QVariant, enabled);
        QFETCH(QString, image);
        QFETCH(bool, shown);
        QTemporaryDir dir;
        HMPreferenceStore store(dir.filePath("prefs.json"));
        store.setValue(HMNotificationManager::kEnabledKey, enabled);
        HMNotificationManager manager(store, QDBusConnection::sessionBus());
        QStringList rendered;
        manager.setImageRenderer([&](const QString &name) {
            rendered << name;
            QImage picture(32, 32, QImage::Format_RGBA8888);
            picture.fill(Qt::red);
            return picture;
        });
        QVERIFY(manager.isAvailable());
        QSignalSpy delivered(&manager, &HMNotificationManager::notificationDelivered);
        const QStringList before = history();

        manager.sendNotificationWithTitle("Hollowmere blocked", "text", image);
        if (shown) {
            QTRY_COMPARE(delivered.size(), 1);
            QCOMPARE(historySince(before), QStringList{"Hollowmere blocked|text"});
            QCOMPARE(rendered, image.isEmpty() ? QStringList() : QStringList{image});
        } else {
            // Whatever went out would have reached dunst before this probe's answer.
            QCOMPARE(dunstctl({"count", "displayed"}), QString("0"));
            QCOMPARE(historySince(before), QStringList());
            QCOMPARE(delivered.size(), 0);
        }
    }

    void connectionNoticesReplaceEachOther()
    {
        QTemporaryDir dir;
        HMPreferenceStore store(dir.filePath("prefs.json"));
        HMNotificationManager manager(store, QDBusConnection::sessionBus());
        manager.setEnabled(true);
        QSignalSpy delivered(&manager, &HMNotificationManager::notificationDelivered);
        const QStringList before = history();
        manager.sendNotificationWithTitle("Connection secure", "on", "alert_happy");
        QTRY_COMPARE(delivered.size(), 1);
        manager.sendNotificationWithTitle("Connection not secure", "off", "alert_angry");
        QTRY_COMPARE(delivered.size(), 2);
        manager.sendNotificationWithTitle("Hollowmere blocked", "other", "");
        QTRY_COMPARE(delivered.size(), 3);
        QCOMPARE(delivered.at(1).at(2), delivered.at(0).at(2)); // same id: replaced in place
        QCOMPARE(dunstctl({"count", "displayed"}), QString("2"));
        QCOMPARE(historySince(before),
                 (QStringList{"Hollowmere blocked|other", "Connection not secure|off"}));
    }

    void noServerIsANoOp()
    {
        QProcess bus;
        bus.start("dbus-daemon", {"--config-file=" + HMTestEnvironment::sourceDir() +
                                      "/tests/support/bus-without-services.conf",
                                  "--print-address", "--nofork"});
        QVERIFY(bus.waitForReadyRead(5000));
        const QString address = QString::fromUtf8(bus.readLine()).trimmed();
        {
            QDBusConnection empty = QDBusConnection::connectToBus(address, "hm-empty-bus");
            QVERIFY(empty.isConnected());
            QTemporaryDir dir;
            HMPreferenceStore store(dir.filePath("prefs.json"));
            HMNotificationManager manager(store, empty);
            manager.setEnabled(true);
            HMLogCapture log;
            QVERIFY(!manager.isAvailable());
            manager.sendNotificationWithTitle("Connection secure", "on", "");
            manager.sendNotificationWithTitle("Connection not secure", "off", "");
            // Said once, and no call was tried (a refused call would be logged too).
            QCOMPARE(log.lines().filter("No notification server").size(), 1);
            QTest::qWait(100);
            QCOMPARE(log.lines().size(), 1);
        }
        QDBusConnection::disconnectFromBus("hm-empty-bus");
        bus.terminate();
        bus.waitForFinished();
    }
};

QTEST_MAIN(HMNotificationManagerTest)
#include "HMNotificationManagerTest.moc"
