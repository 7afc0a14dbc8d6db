// The operator's configuration file on its way to a root OpenVPN: what may be in it, and
// how the helper reads it on behalf of the user who named it.
#include "HMConfigFileSanitizer.h"
#include "HMPeerFileReader.h"

#include "HMTestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;
constexpr uid_t kSomeoneElse = 54321;

HMPeerCredentials peerWith(uid_t uid, gid_t gid)
{
    HMPeerCredentials peer;
    peer.uid = uid;
    peer.gid = gid;
    peer.groups = {gid};
    return peer;
}

} // namespace

class HMConfigFileSanitizerTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString writeFile(const QString &name, const QByteArray &content, uid_t owner, mode_t mode)
    {
        const QString path = m_dir.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            return QString();
        }
        file.close();
        if (::chown(path.toLocal8Bit().constData(), owner, owner == 0 ? 0 : kNogroup) != 0 ||
            ::chmod(path.toLocal8Bit().constData(), mode) != 0) {
            return QString();
        }
        return path;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        // The peer must be able to walk to the files, as in a home directory.
        QVERIFY(::chmod(m_dir.path().toLocal8Bit().constData(), 0755) == 0);
    }

    void acceptedDirectivesAreRequoted()
    {
        const QByteArray text = "# operator's file\r\n"
                                "client\n"
                                "--dev tun\n"
                                "proto udp ; trailing comment\n"
                                "remote vpn.example 1194 udp\n"
                                "verify-x509-name \"C=NL, CN=vpn \\\"one\\\"\" subject\n"
                                "ca ca.crt\n"
                                "<tls-crypt>\n"
                                "-----BEGIN OpenVPN Static key V1-----\n"
                                "up /tmp/evil.sh\n"
                                "-----END OpenVPN Static key V1-----\n"
                                "</tls-crypt>\n"
                                "auth-user-pass\n";
        QString error;
        const auto sanitised = HMConfigFileSanitizer::sanitize(text, &error);
        QVERIFY2(sanitised, qPrintable(error));
        const QList<QByteArray> lines = sanitised->split('\n');
        QVERIFY(lines.contains("client"));
        QVERIFY(lines.contains("dev \"tun\""));
        QVERIFY(lines.contains("proto \"udp\""));
        QVERIFY(lines.contains("remote \"vpn.example\" \"1194\" \"udp\""));
        QVERIFY(lines.contains("verify-x509-name \"C=NL, CN=vpn \\\"one\\\"\" \"subject\""));
        QVERIFY(lines.contains("ca \"ca.crt\""));
        // Inline key material is carried verbatim, even lines that look like directives.
        QVERIFY(lines.contains("up /tmp/evil.sh"));
        QVERIFY(lines.contains("</tls-crypt>"));
        QVERIFY(!sanitised->contains("operator's file"));
        QVERIFY(!sanitised->contains('\r'));
    }

    void refusedContent_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("reason");

        QTest::newRow("up") << QByteArray("client\nup /tmp/x.sh\n")
                            << "line 2: directive 'up' is not allowed";
        QTest::newRow("up with dashes") << QByteArray("--up /tmp/x.sh\n") << "directive 'up'";
        QTest::newRow("up spelt with an escape")
            << QByteArray("u\\p /tmp/x.sh\n") << "directive 'up'";
        QTest::newRow("up in quotes") << QByteArray("\"up\" /tmp/x.sh\n") << "directive 'up'";
        QTest::newRow("down") << QByteArray("down x\n") << "directive 'down'";
        QTest::newRow("route-up") << QByteArray("route-up x\n") << "directive 'route-up'";
        QTest::newRow("plugin") << QByteArray("plugin /tmp/evil.so\n") << "directive 'plugin'";
        QTest::newRow("script-security")
            << QByteArray("script-security 2\n") << "directive 'script-security'";
        QTest::newRow("setenv") << QByteArray("setenv PATH /tmp\n") << "directive 'setenv'";
        QTest::newRow("config") << QByteArray("config /etc/other.conf\n") << "directive 'config'";
        QTest::newRow("cd") << QByteArray("cd /tmp\n") << "directive 'cd'";
        QTest::newRow("log") << QByteArray("log /etc/cron.d/x\n") << "directive 'log'";
        QTest::newRow("writepid") << QByteArray("writepid /etc/x\n") << "directive 'writepid'";
        QTest::newRow("management")
            << QByteArray("management 0.0.0.0 7505\n") << "directive 'management'";
        QTest::newRow("iproute") << QByteArray("iproute /tmp/ip\n") << "directive 'iproute'";
        QTest::newRow("daemon") << QByteArray("daemon\n") << "directive 'daemon'";
        QTest::newRow("credentials file")
            << QByteArray("auth-user-pass /etc/shadow\n") << "takes 0 to 0 values";
        QTest::newRow("certificate by path") << QByteArray("ca /etc/shadow\n") << "plain file name";
        QTest::newRow("certificate up a level")
            << QByteArray("ca ../ca.crt\n") << "plain file name";
        QTest::newRow("hidden certificate") << QByteArray("ca .ca.crt\n") << "plain file name";
        QTest::newRow("key direction as path")
            << QByteArray("tls-auth ta.key /x\n") << "may not be a path";
        QTest::newRow("option-looking server")
            << QByteArray("remote --up 1194\n") << "'--up' is not a host";
        QTest::newRow("server port")
            << QByteArray("remote vpn.example 99999\n") << "'99999' is not a port";
        QTest::newRow("device path") << QByteArray("dev ../tun\n") << "'../tun' is not a device";
        QTest::newRow("unknown inline block")
            << QByteArray("<script>\nx\n</script>\n") << "'<script>' is not allowed";
        QTest::newRow("unterminated inline block")
            << QByteArray("<ca>\nxx\n") << "ends inside <ca>";
        QTest::newRow("block inside a block")
            << QByteArray("<ca>\n<up>\n</ca>\n") << "unexpected '<up>' inside <ca>";
        QTest::newRow("unterminated quote") << QByteArray("verb \"3\n") << "unterminated quote";
        QTest::newRow("control character") << QByteArray("verb \"3\x1b\"\n") << "control character";
        QTest::newRow("NUL byte") << QByteArray("client\n\0up x\n", 13) << "NUL byte";
        QTest::newRow("overlong line")
            << QByteArray("verb " + QByteArray(1100, '3') + "\n") << "longer than";
        QTest::newRow("too large")
            << QByteArray(HMConfigFileSanitizer::kMaxFileSize + 1, '\n') << "larger than";
    }

    void refusedContent()
    {
        QFETCH(QByteArray, text);
        QFETCH(QString, reason);
        QString error;
        QVERIFY(!HMConfigFileSanitizer::sanitize(text, &error));
        QVERIFY2(error.contains(reason), qPrintable(error));
    }

    void copyIsPrivate()
    {
        QString error;
        const QString path = HMConfigFileSanitizer::writeCopy("client\n", m_dir.path(), &error);
        QVERIFY2(!path.isEmpty(), qPrintable(error));
        struct stat st
        {
        };
        QCOMPARE(::stat(path.toLocal8Bit().constData(), &st), 0);
        QCOMPARE(st.st_mode & 0777, 0600u);
        QCOMPARE(st.st_uid, 0u);
    }

    void peerReadChecks_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<uid_t>("peer");
        QTest::addColumn<QString>("reason");

        QTest::newRow("own file") << "own.conf" << kNobody << QString();
        QTest::newRow("root's readable file") << "root-readable.conf" << kNobody << QString();
        QTest::newRow("root reads its own") << "root-readable.conf" << uid_t(0) << QString();
        QTest::newRow("another user's file")
            << "foreign.conf" << kNobody << "is owned by another user";
        QTest::newRow("root does not read a user's file")
            << "own.conf" << uid_t(0) << "is owned by another user";
        QTest::newRow("root's private file")
            << "root-private.conf" << kNobody << "cannot be read by the requesting user";
        QTest::newRow("symbolic link") << "link.conf" << kNobody << "symbolic link";
        QTest::newRow("through a linked directory")
            << "linked-dir/own.conf" << kNobody << "symbolic link";
        QTest::newRow("FIFO") << "fifo.conf" << kNobody << "is not a regular file";
        QTest::newRow("directory") << "dir.conf" << kNobody << "is not a regular file";
        QTest::newRow("too large") << "large.conf" << kNobody << "is larger than";
        QTest::newRow("missing") << "missing.conf" << kNobody << "does not exist";
    }

    void peerReadChecks()
    {
        if (!HMTestEnvironment::isRoot()) {
            QSKIP("reading as another user needs root");
        }
        QFETCH(QString, name);
        QFETCH(uid_t, peer);
        QFETCH(QString, reason);

        if (!QFile::exists(m_dir.filePath("own.conf"))) {
            QVERIFY(!writeFile("own.conf", "client\n", kNobody, 0600).isEmpty());
            QVERIFY(!writeFile("root-readable.conf", "client\n", 0, 0644).isEmpty());
            QVERIFY(!writeFile("foreign.conf", "client\n", kSomeoneElse, 0644).isEmpty());
            QVERIFY(!writeFile("root-private.conf", "client\n", 0, 0600).isEmpty());
            QVERIFY(!writeFile("large.conf", QByteArray(5000, '#'), kNobody, 0644).isEmpty());
            QVERIFY(QFile::link(m_dir.filePath("own.conf"), m_dir.filePath("link.conf")));
            QVERIFY(QFile::link(m_dir.path(), m_dir.filePath("linked-dir")));
            QVERIFY(::mkfifo(m_dir.filePath("fifo.conf").toLocal8Bit().constData(), 0666) == 0);
            QVERIFY(::chown(m_dir.filePath("fifo.conf").toLocal8Bit().constData(), kNobody,
                            kNogroup) == 0);
            QVERIFY(QDir(m_dir.path()).mkdir("dir.conf"));
        }

        QString error;
        QElapsedTimer timer;
        timer.start();
        const auto content = HMPeerFileReader::read(
            m_dir.filePath(name), peerWith(peer, peer == 0 ? 0 : kNogroup), 4096, &error);
        // A FIFO with no writer must not hang the helper.
        QVERIFY(timer.elapsed() < 3000);
        if (reason.isEmpty()) {
            QVERIFY2(content, qPrintable(error));
            QCOMPARE(*content, QByteArray("client\n"));
        } else {
            QVERIFY(!content);
            QVERIFY2(error.contains(reason), qPrintable(error));
        }
    }

    void relativePathRefused()
    {
        QString error;
        QVERIFY(!HMPeerFileReader::read("own.conf", peerWith(kNobody, kNogroup), 4096, &error));
        QVERIFY2(error.contains("not an absolute file path"), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(HMConfigFileSanitizerTest)
#include "HMConfigFileSanitizerTest.moc"
