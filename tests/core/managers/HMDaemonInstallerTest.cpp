// pkexec and the retry dialog are recorders and the old helper a scripted peer: no root prompt.
#include "HMDaemonInstaller.h"
#include "HMDaemonManager.h"
#include "HMHelperPeerProcess.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"

#include <QCryptographicHash>
#include <QtTest>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QByteArray kGenuine = QByteArrayLiteral("\x7f"
                                              "ELF...\nCFBundleVersion=7\n...helper");

QString sha256(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

} // namespace

class HMDaemonInstallerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }
    void checkAndRepair_data();
    void checkAndRepair();
    void versionIsReadFromTheProgramsBytes();

private:
    std::unique_ptr<QTemporaryDir> m_home;
};

void HMDaemonInstallerTest::checkAndRepair_data()
{
    QTest::addColumn<QByteArray>("installed"); // empty: no unit, no program
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("inGroup");
    QTest::addColumn<QList<int>>("pkexecExits"); // one per expected pkexec run
    QTest::addColumn<bool>("goBack");            // the retry dialog's answer
    QTest::addColumn<bool>("repairFixes");       // a successful run installs the genuine one
    QTest::addColumn<bool>("suicideSent");
    QTest::addColumn<int>("dialogs");
    QTest::addColumn<QString>("error"); // part of the final error, "" for none

    const QList<int> none;
    QTest::newRow("genuine, same version")
        << kGenuine << 0755 << true << none << false << false << false << 0 << "";
    QTest::newRow("hash mismatch") << QByteArray(kGenuine + "tampered") << 0755 << true
                                   << QList<int>{0} << false << true << true << 0 << "";
    QTest::newRow("missing: no suicide")
        << QByteArray() << 0755 << true << QList<int>{0} << false << true << false << 0 << "";
    QTest::newRow("older version") << QByteArray("\nCFBundleVersion=6\n") << 0755 << true
                                   << QList<int>{0} << false << true << true << 0 << "";
    QTest::newRow("group-writable")
        << kGenuine << 0775 << true << QList<int>{0} << false << true << true << 0 << "";
    QTest::newRow("user not in group") << kGenuine << 0755 << false << QList<int>{0} << false
                                       << false << true << 0 << "still not usable";
    QTest::newRow("cancel, go back, allow")
        << QByteArray() << 0755 << true << QList<int>{126, 0} << true << true << false << 1 << "";
    QTest::newRow("cancel, quit") << QByteArray() << 0755 << true << QList<int>{126} << false
                                  << true << false << 1 << "cancelled";
    QTest::newRow("cancel twice is final") << QByteArray() << 0755 << true << QList<int>{126, 126}
                                           << true << true << false << 1 << "cancelled";
    QTest::newRow("script fails") << QByteArray() << 0755 << true << QList<int>{1} << false << true
                                  << false << 0 << "cannot create the group";
}

void HMDaemonInstallerTest::checkAndRepair()
{
    QFETCH(QByteArray, installed);
    QFETCH(int, mode);
    QFETCH(bool, inGroup);
    QFETCH(QList<int>, pkexecExits);
    QFETCH(bool, goBack);
    QFETCH(bool, repairFixes);
    QFETCH(bool, suicideSent);
    QFETCH(int, dialogs);
    QFETCH(QString, error);
    if (!HMTestEnvironment::isRoot()) {
        QSKIP("the installed helper must be root's: run as root");
    }

    QTemporaryDir dir;
    const QString program = dir.filePath("hmwispd");
    const QString unit = dir.filePath("units/com.hollowmere.mac.hmwispd.service");
    auto install = [&](const QByteArray &content, int permissions) {
        QVERIFY(HMTestEnvironment::writeFile(program, content));
        QVERIFY(::chmod(QFile::encodeName(program).constData(), mode_t(permissions)) == 0);
        QVERIFY(
            HMTestEnvironment::writeFile(unit, "[Service]\nExecStart=" + program.toUtf8() + "\n"));
    };
    if (!installed.isEmpty()) {
        install(installed, mode);
    }

    HMHelperPeerProcess peer;
    QVERIFY2(peer.start(), qPrintable(peer.errorString()));
    peer.setReply("suicide", QJsonObject{{"status", "ok"}});
    HMPreferenceStore store(dir.filePath("prefs.json"));
    HMDaemonManager::Paths paths;
    paths.socketPath = peer.socketPath();
    paths.unitDirectories = {dir.filePath("units")};
    HMDaemonManager daemon(store, nullptr, nullptr, paths);

    QList<QStringList> runs;
    int dialogsShown = 0;
    HMDaemonInstaller::Environment env;
    env.shippedVersion = "7";
    env.pinnedSha256 = sha256(kGenuine);
    env.group = "hollowmere";
    env.installScript = "/usr/libexec/hollowmere/hmwispd-install";
    env.pkexecPath = "/usr/bin/pkexec";
    env.userInGroup = [&](const QString &) { return inGroup; };
    env.retryDialog = [&] {
        ++dialogsShown;
        return goBack;
    };
    env.runner = [&](const QString &programPath, const QStringList &arguments) {
        runs << (QStringList{programPath} + arguments);
        const int exit = pkexecExits.value(runs.size() - 1, -99);
        if (exit == 0 && repairFixes) {
            install(kGenuine, 0755);
        }
        return HMDaemonInstaller::Result{
            exit, exit == 1 ? QStringLiteral("hmwispd-install: cannot create the group") : ""};
    };

    HMDaemonInstaller installer(daemon, env);
    const HMMaybeError result = installer.initializeDaemons();

    QVERIFY(daemon.hasCommandQueue());
    QCOMPARE(runs.size(), pkexecExits.size());
    for (const QStringList &run : runs) {
        QCOMPARE(run, (QStringList{"/usr/bin/pkexec", "/usr/libexec/hollowmere/hmwispd-install"}));
    }
    QCOMPARE(dialogsShown, dialogs);
    QCOMPARE(peer.actions(), suicideSent ? QStringList{"suicide"} : QStringList());
    if (error.isEmpty()) {
        QVERIFY2(!result, result ? qPrintable(result->description()) : "");
    } else {
        QVERIFY(result);
        QVERIFY2(result->description().contains(error), qPrintable(result->description()));
    }
}

void HMDaemonInstallerTest::versionIsReadFromTheProgramsBytes()
{
    // The helper built beside these tests carries the application's build version.
    const QString built = HMTestEnvironment::buildDir() + "/src/helper/hmwispd";
    QVERIFY(QFile::exists(built));
    QCOMPARE(HMDaemonInstaller::getInstalledDaemonVersion(built),
             HMDaemonInstaller::Environment::production().shippedVersion);
    QCOMPARE(HMDaemonInstaller::getInstalledDaemonVersion("/nonexistent"), QString());
}

QTEST_GUILESS_MAIN(HMDaemonInstallerTest)
#include "HMDaemonInstallerTest.moc"
