#include "HMAppDelegate.h"
#include "HMBundleInfo.h"
#include "HMMenuBarItemController.h"
#include "HMPreferenceStore.h"
#include "HMScreenInfo.h"
#include "HMTestEnvironment.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QMenu>
#include <QProcess>
#include <QScreen>
#include <QSignalSpy>
#include <QtTest>
#include <csignal>

class HMAppDelegateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void startUpMigratesAndShowsTrayItem();
    void retinaFollowsDevicePixelRatio();
    void terminationSignalQuitsCleanly_data();
    void terminationSignalQuitsCleanly();

private:
    std::unique_ptr<QTemporaryDir> m_home;
};

void HMAppDelegateTest::initTestCase()
{
    m_home = HMTestEnvironment::isolateUserDirectories();
}

void HMAppDelegateTest::startUpMigratesAndShowsTrayItem()
{
    QTemporaryDir dir;
    HMPreferenceStore store(dir.filePath(QStringLiteral("prefs.json")));
    store.setValue(QStringLiteral("enabled"), false);
    HMAppDelegate delegate(store);
    delegate.applicationDidFinishLaunching();

    QCOMPARE(store.value(QStringLiteral("lastVersionRun")).toString(), app_version());
    QCOMPARE(store.value(QStringLiteral("notificationsEnabled")), QVariant(false));
    QVERIFY(!store.contains(QStringLiteral("enabled")));
    QVERIFY(delegate.menuBarItemController());
    QVERIFY(delegate.menuBarItemController()->isVisible());
    const QStringList logs =
        QDir(qEnvironmentVariable("XDG_STATE_HOME") + QStringLiteral("/Hollowmere"))
            .entryList({QStringLiteral("Hollowmere *.log")});
    QCOMPARE(logs.size(), 1);

    const QList<QAction *> actions = delegate.menuBarItemController()->menu()->actions();
    QVERIFY(!actions.isEmpty());
    QCOMPARE(actions.last()->text(), QStringLiteral("Quit Hollowmere"));
}

void HMAppDelegateTest::retinaFollowsDevicePixelRatio()
{
    // The offscreen platform reports a ratio of 1 unless told otherwise.
    QCOMPARE(is_retina(), qApp->primaryScreen()->devicePixelRatio() >= 2.0);
    QVERIFY(!is_retina());
}

void HMAppDelegateTest::terminationSignalQuitsCleanly_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void HMAppDelegateTest::terminationSignalQuitsCleanly()
{
    QFETCH(int, signalNumber);
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_STATE_HOME"), home.filePath(QStringLiteral("state")));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    QProcess app;
    app.setProcessEnvironment(env);
    app.setProgram(HMTestEnvironment::buildDir() + QStringLiteral("/src/gui/hollowmere"));
    app.start();
    QVERIFY2(app.waitForStarted(), qPrintable(app.errorString()));

    // The preference file appears once start-up has run the migration.
    const QString prefs =
        home.filePath(QStringLiteral("config/com.hollowmere.mac.Hollowmere.json"));
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(prefs), 10000);
    ::kill(static_cast<pid_t>(app.processId()), signalNumber);
    QVERIFY(app.waitForFinished(10000));
    QCOMPARE(app.exitStatus(), QProcess::NormalExit);
    QCOMPARE(app.exitCode(), 0);

    const QStringList logs =
        QDir(home.filePath(QStringLiteral("state/Hollowmere"))).entryList(QDir::Files);
    QCOMPARE(logs.size(), 1);
    QFile log(home.filePath(QStringLiteral("state/Hollowmere/")) + logs.first());
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().contains("[E]HMAppDelegate:"));
    QFile prefsFile(prefs);
    QVERIFY(prefsFile.open(QIODevice::ReadOnly));
    QVERIFY(prefsFile.readAll().contains("\"lastVersionRun\""));
}

QTEST_MAIN(HMAppDelegateTest)
#include "HMAppDelegateTest.moc"
