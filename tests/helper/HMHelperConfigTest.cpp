// Where the helper's trusted paths come from: the build, or a configuration file that only
// root could have written.
#include "HMHelperConfig.h"
#include "HMPathTrust.h"

#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

class HMHelperConfigTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir{QStringLiteral("/tmp/hmconfig-XXXXXX")};

    QString write(const QString &relative, const QByteArray &content, mode_t mode = 0644,
                  uid_t owner = 0)
    {
        const QString path = m_dir.filePath(relative);
        const QByteArray native = QFile::encodeName(path);
        const bool made = HMTestEnvironment::writeFile(path, content) &&
                          ::chmod(native.constData(), mode) == 0 &&
                          ::chown(native.constData(), owner, 0) == 0;
        return made ? path : QString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!HMTestEnvironment::isRoot()) {
            QSKIP("files owned by root and by others need root to make");
        }
        QVERIFY(m_dir.isValid());
    }

    void fileOverridesTheBuildsDefaults()
    {
        const QString path = write("etc/good.conf", "# comment\n"
                                                    "openvpn = /usr/sbin/openvpn\n"
                                                    "wisproute=/opt/hm/wisproute\n"
                                                    "resources = /opt/hm/share/  # trailing slash\n"
                                                    "logs = /srv/log\n"
                                                    "run = /srv/run\n"
                                                    "group = vpnusers\n"
                                                    "client-timeout-ms = 750\n"
                                                    "start-timeout-ms = 30000\n"
                                                    "stop-timeout-ms = 1500\n"
                                                    "tunnel-dns = 10.8.0.1,10.8.0.2\n");
        QString error;
        const auto config = HMHelperConfig::load(path, &error);
        QVERIFY2(config, qPrintable(error));
        QCOMPARE(config->dnsProxyPath, QString("/opt/hm/wisproute"));
        QCOMPARE(config->resourceDir, QString("/opt/hm/share"));
        QCOMPARE(config->vpnLogPath(), QString("/srv/log/vpn.log"));
        QCOMPARE(config->openVPNPidPath(), QString("/srv/run/openvpn.pid"));
        QCOMPARE(config->allowedGroup, QString("vpnusers"));
        QCOMPARE(config->clientTimeoutMs, 750);
        QCOMPARE(config->startTimeoutMs, 30000);
        QCOMPARE(config->stopTimeoutMs, 1500);
        QCOMPARE(config->tunnelResolvers, QString("10.8.0.1,10.8.0.2"));

        // In a /tmp-like directory: others may add entries there but not replace root's.
        const QString sticky = write("sticky/partial.conf", "logs = /srv/log\n");
        QCOMPARE(::chmod(QFile::encodeName(m_dir.filePath("sticky")).constData(), 01777), 0);
        const auto partial = HMHelperConfig::load(sticky, &error);
        QVERIFY2(partial, qPrintable(error));
        QCOMPARE(partial->openVPNPath, HMHelperConfig::defaults().openVPNPath);
        QCOMPARE(partial->logDir, QString("/srv/log"));
    }

    void refusedFiles_data()
    {
        QTest::addColumn<QString>("relative");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("owner");
        QTest::addColumn<QString>("reason");

        QTest::newRow("owned by a user")
            << "etc/user.conf" << QByteArray() << 0644 << 65534 << "is not owned by root";
        QTest::newRow("group-writable")
            << "etc/gw.conf" << QByteArray() << 0664 << 0 << "writable by users other than root";
        QTest::newRow("in a world-writable directory")
            << "open/x.conf" << QByteArray() << 0644 << 0
            << "open is writable by users other than root";
        QTest::newRow("unknown key")
            << "etc/k.conf" << QByteArray("openvpn = /bin/true\nexec = /bin/sh\n") << 0644 << 0
            << "k.conf:2: unknown key 'exec'";
        QTest::newRow("key twice")
            << "etc/t.conf" << QByteArray("logs = /a\nlogs = /b\n") << 0644 << 0 << "set twice";
        QTest::newRow("relative path") << "etc/r.conf" << QByteArray("openvpn = bin/openvpn\n")
                                       << 0644 << 0 << "must be an absolute path";
        QTest::newRow("path climbing up")
            << "etc/c.conf" << QByteArray("run = /run/../tmp\n") << 0644 << 0 << "without '..'";
        QTest::newRow("no equals sign") << "etc/n.conf" << QByteArray("openvpn /bin/true\n") << 0644
                                        << 0 << "expected 'key = value'";
        QTest::newRow("time-out out of range")
            << "etc/o.conf" << QByteArray("client-timeout-ms = 5\n") << 0644 << 0
            << "from 100 to 600000";
        QTest::newRow("tunnel resolver by name")
            << "etc/t.conf" << QByteArray("tunnel-dns = 8.8.8.8,dns.example\n") << 0644 << 0
            << "one to four IPv4 addresses";
        QTest::newRow("group name") << "etc/g.conf" << QByteArray("group = ../x\n") << 0644 << 0
                                    << "not a valid group name";
    }

    void refusedFiles()
    {
        QFETCH(QString, relative);
        QFETCH(QByteArray, content);
        QFETCH(int, mode);
        QFETCH(int, owner);
        QFETCH(QString, reason);
        const QString path =
            write(relative, content, static_cast<mode_t>(mode), static_cast<uid_t>(owner));
        QVERIFY(!path.isEmpty());
        if (relative.startsWith("open/")) {
            QCOMPARE(::chmod(QFile::encodeName(m_dir.filePath("open")).constData(), 0777), 0);
        }
        QString error;
        QVERIFY(!HMHelperConfig::load(path, &error));
        QVERIFY2(error.contains(reason), qPrintable(error));
    }

    void sameFileFollowsLinks()
    {
        const QString target = write("bin/tool", "#!/bin/sh\n", 0755);
        QVERIFY(QFile::link(target, m_dir.filePath("bin/link")));
        QVERIFY(HMPathTrust::sameFile(m_dir.filePath("bin/link"), target));
        QVERIFY(QFile::copy(target, m_dir.filePath("bin/copy")));
        QVERIFY(!HMPathTrust::sameFile(m_dir.filePath("bin/copy"), target));
        QVERIFY(!HMPathTrust::sameFile(m_dir.filePath("bin/missing"), target));
        QVERIFY(HMPathTrust::check(m_dir.filePath("bin/link"), HMPathTrust::Kind::Executable)
                    .isEmpty());
        QVERIFY(
            !HMPathTrust::check(m_dir.filePath("bin"), HMPathTrust::Kind::Executable).isEmpty());
    }

    void helperWillNotStartOnAnUntrustedFile()
    {
        const QString path = write("etc/bad.conf", "logs = /srv/log\n", 0666);
        QProcess helper;
        helper.start(HMTestEnvironment::buildDir() + "/src/helper/hmwispd", {"--config", path});
        QVERIFY(helper.waitForFinished(10000));
        QCOMPARE(helper.exitCode(), 1);
        QVERIFY(helper.readAllStandardError().contains("configuration file not trusted"));
    }
};

QTEST_GUILESS_MAIN(HMHelperConfigTest)
#include "HMHelperConfigTest.moc"
