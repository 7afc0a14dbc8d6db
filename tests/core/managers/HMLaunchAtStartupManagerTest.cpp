// Launch at login through XDG autostart entries.
#include "HMLaunchAtStartupManager.h"
#include "HMTestEnvironment.h"

#include <QSignalSpy>
#include <QtTest>

namespace {

QByteArray entry(const QString &exec, const QByteArray &extra = {})
{
    return "[Desktop Entry]\nType=Application\nName=X\nExec=" + exec.toUtf8() + "\n" + extra;
}

} // namespace

class HMLaunchAtStartupManagerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void entriesFound_data();
    void entriesFound();
    void settingWritesAndRemovesOurEntry();
    void followsChangesMadeElsewhere();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_autostart;
    QString m_app; // the application's directory
};

void HMLaunchAtStartupManagerTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_autostart = m_dir->filePath("config/autostart");
    m_app = m_dir->filePath("libexec/hollowmere");
    QVERIFY(HMTestEnvironment::writeFile(m_app + "/hollowmere", "#!/bin/sh\n"));
    QVERIFY(HMTestEnvironment::writeFile(m_app + "2/tool", "#!/bin/sh\n"));
    QVERIFY(HMTestEnvironment::writeFile(m_dir->filePath("bin/other"), "#!/bin/sh\n"));
    QVERIFY(QFile::link(m_app + "/hollowmere", m_dir->filePath("bin/hollowmere")));
}

void HMLaunchAtStartupManagerTest::entriesFound_data()
{
    QTest::addColumn<QString>("exec"); // %D: the temporary directory
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<bool>("found");
    QTest::newRow("the program") << "%D/libexec/hollowmere/hollowmere --minimized" << QByteArray()
                                 << true;
    QTest::newRow("quoted, through a link") << "\"%D/bin/hollowmere\"" << QByteArray() << true;
    // Deliberately a plain path prefix: a sibling directory with the same beginning counts.
    QTest::newRow("path merely begins alike")
        << "%D/libexec/hollowmere2/tool" << QByteArray() << true;
    QTest::newRow("another program") << "%D/bin/other" << QByteArray() << false;
    QTest::newRow("does not resolve") << "%D/libexec/hollowmere/gone" << QByteArray() << false;
    QTest::newRow("hidden by the desktop")
        << "%D/libexec/hollowmere/hollowmere" << QByteArray("Hidden=true\n") << false;
}

void HMLaunchAtStartupManagerTest::entriesFound()
{
    QFETCH(QString, exec);
    QFETCH(QByteArray, extra);
    QFETCH(bool, found);
    QVERIFY(HMTestEnvironment::writeFile(m_autostart + "/someone.desktop",
                                         entry(exec.replace("%D", m_dir->path()), extra)));
    HMLaunchAtStartupManager manager(m_autostart, m_app, m_app + "/hollowmere");
    QCOMPARE(manager.launchOnStartup(), found);
}

void HMLaunchAtStartupManagerTest::settingWritesAndRemovesOurEntry()
{
    HMLaunchAtStartupManager manager(m_autostart, m_app, m_app + "/hollowmere");
    QVERIFY(!manager.launchOnStartup());
    QSignalSpy changes(&manager, &HMLaunchAtStartupManager::launchOnStartupChanged);

    manager.setLaunchOnStartup(true);
    QVERIFY(manager.launchOnStartup());
    QCOMPARE(manager.findLoginItem(), manager.entryPath());
    QVERIFY(HMTestEnvironment::readFile(manager.entryPath())
                .contains(QByteArray("Exec=" + QFile::encodeName(m_app) + "/hollowmere\n")));
    // Our own write, seen by the watcher, changes nothing more.
    QTest::qWait(200);
    QCOMPARE(changes.size(), 1);

    manager.setLaunchOnStartup(false);
    QVERIFY(!QFile::exists(manager.entryPath()));
    QCOMPARE(changes.size(), 2);
}

void HMLaunchAtStartupManagerTest::followsChangesMadeElsewhere()
{
    HMLaunchAtStartupManager manager(m_autostart, m_app, m_app + "/hollowmere");
    const QString theirs = m_autostart + "/from-settings.desktop";

    // The autostart folder did not exist yet: it is picked up once it appears.
    QVERIFY(HMTestEnvironment::writeFile(theirs, entry(m_app + "/hollowmere")));
    QTRY_VERIFY(manager.launchOnStartup());
    // One entry already starts the application: no second one is written.
    QCOMPARE(QDir(m_autostart).entryList(QDir::Files), QStringList{"from-settings.desktop"});

    QVERIFY(QFile::remove(theirs));
    QTRY_VERIFY(!manager.launchOnStartup());
    QCOMPARE(QDir(m_autostart).entryList(QDir::Files), QStringList());
}

QTEST_GUILESS_MAIN(HMLaunchAtStartupManagerTest)
#include "HMLaunchAtStartupManagerTest.moc"
