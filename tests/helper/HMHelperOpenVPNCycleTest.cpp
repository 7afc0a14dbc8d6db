// One real cycle through the helper in the VPN lab (testing/lab/vpn-lab.sh): the test plays
// the application's part on the management interface, so the tunnel and its name servers
// really come and go.
#include "HMDeflatedLog.h"
#include "HMHelperInstance.h"
#include "HMPathTrust.h"
#include "HMTestEnvironment.h"
#include "HMTestNamespace.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QLocalSocket>
#include <QProcess>
#include <QtTest>

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Brings the lab up on construction and always takes it down again.
class Lab
{
public:
    QMap<QString, QString> facts;

    bool up(QString *error)
    {
        if (!m_dir.isValid()) {
            *error = QStringLiteral("no temporary directory");
            return false;
        }
        HMTestNamespace::removeStale(QStringLiteral("hmcyc"));
        m_name = QStringLiteral("hmcyc%1").arg(::getpid());
        QProcess lab;
        lab.start(script(), {"up", "--name", m_name, "--dir", m_dir.filePath("lab")});
        if (!lab.waitForFinished(60000) || lab.exitCode() != 0) {
            *error = QString::fromUtf8(lab.readAllStandardError());
            return false;
        }
        for (const QByteArray &line : lab.readAllStandardOutput().split('\n')) {
            const int equals = line.indexOf('=');
            if (equals > 0) {
                facts.insert(QString::fromUtf8(line.left(equals)),
                             QString::fromUtf8(line.mid(equals + 1)));
            }
        }
        return true;
    }

    ~Lab()
    {
        if (!m_name.isEmpty()) {
            QProcess::execute(script(), {"down", "--name", m_name, "--dir", m_dir.filePath("lab")});
        }
    }

private:
    static QString script() { return HMTestEnvironment::sourceDir() + "/testing/lab/vpn-lab.sh"; }

    QTemporaryDir m_dir{QStringLiteral("/tmp/hmlab-XXXXXX")};
    QString m_name;
};

// A raw connection to a Unix socket (usable in a forked child), or -1.
int connectTo(const QString &path)
{
    sockaddr_un address{};
    const QByteArray name = QFile::encodeName(path);
    if (static_cast<size_t>(name.size()) >= sizeof(address.sun_path)) {
        return -1;
    }
    address.sun_family = AF_UNIX;
    ::memcpy(address.sun_path, name.constData(), static_cast<size_t>(name.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// The application's side of OpenVPN's management interface, as blocking line I/O.
class Management
{
public:
    bool connect(const QString &path)
    {
        m_socket.connectToServer(path);
        return m_socket.waitForConnected(5000);
    }

    bool send(const QByteArray &line)
    {
        return m_socket.write(line + '\n') == line.size() + 1 && m_socket.waitForBytesWritten(5000);
    }

    // Reads until a line contains `text`; every line read is kept in transcript.
    bool waitFor(const QByteArray &text, int timeoutMs)
    {
        const QDeadlineTimer deadline(timeoutMs);
        while (m_socket.canReadLine() ||
               (!deadline.hasExpired() &&
                m_socket.waitForReadyRead(static_cast<int>(deadline.remainingTime())))) {
            while (m_socket.canReadLine()) {
                transcript << QString::fromUtf8(m_socket.readLine().trimmed());
                if (transcript.last().contains(QString::fromUtf8(text))) {
                    return true;
                }
            }
        }
        return false;
    }

    QStringList transcript;

private:
    QLocalSocket m_socket;
};

// What another local user gets from the management socket: "refused" (cannot connect),
// "closed" (OpenVPN hung up without a word) or "served" (OpenVPN talked to them).
QString foreignAttempt(const QString &path, uid_t uid, gid_t group)
{
    const pid_t child = ::fork();
    if (child == 0) {
        const gid_t groups[] = {group};
        if (::setgroups(group == uid ? 0 : 1, groups) != 0 || ::setgid(uid) != 0 ||
            ::setuid(uid) != 0) {
            ::_exit(9);
        }
        const int fd = connectTo(path);
        if (fd < 0) {
            ::_exit(errno == EACCES ? 1 : 8);
        }
        pollfd watch{fd, POLLIN, 0};
        char byte = 0;
        if (::poll(&watch, 1, 3000) <= 0) {
            ::_exit(4); // held the connection, silent
        }
        ::_exit(::read(fd, &byte, 1) > 0 ? 3 : 2);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    static const QStringList answers = {"refused", "closed", "served", "held"};
    return code >= 1 && code <= 4 ? answers.at(code - 1)
                                  : QStringLiteral("probe failed (%1)").arg(status);
}

// The reply's status, with the error after it when there is one.
QString outcome(const QCborMap &reply)
{
    return reply.value("status").toString() + reply.value("error").toString();
}

QString readFile(const QString &path)
{
    return QString::fromUtf8(HMTestEnvironment::readFile(path));
}

constexpr uid_t kNobody = 65534;

bool linkExists(const QString &networkNamespace, const QString &device)
{
    return HMTestNamespace::ip(networkNamespace, {"link", "show", device}, true);
}

// OpenVPN processes whose command line mentions this helper instance's run directory.
QStringList openVPNProcessesOf(const HMHelperInstance &helper)
{
    QStringList found;
    const QString openvpn = HMPathTrust::resolved(helper.openVPNPath());
    for (const QString &pid : QDir("/proc").entryList(QDir::Dirs)) {
        if (pid.toInt() <= 0 || QFileInfo("/proc/" + pid + "/exe").canonicalFilePath() != openvpn) {
            continue;
        }
        if (readFile("/proc/" + pid + "/cmdline").contains(helper.runDir())) {
            found << pid;
        }
    }
    return found;
}

} // namespace

class HMHelperOpenVPNCycleTest : public QObject
{
    Q_OBJECT

private:
    // Declared first so that it is torn down last, after the helper and its OpenVPN.
    Lab m_lab;
    HMHelperInstance m_helper;

    // Starts a tunnel through the helper and takes it to Connected over its management
    // socket. With probeForeign, other users try the socket first while OpenVPN waits in
    // management hold: in the helper's group or not, they cannot reach it; with the
    // directory opened up OpenVPN itself hangs up on them. Either way the interface stays
    // free for its owner.
    void bringUp(const QCborMap &request, int *pid, bool probeForeign = false)
    {
        QCOMPARE(outcome(m_helper.call(request)), QString("ok"));
        *pid = readFile(m_helper.runDir() + "/openvpn.pid").trimmed().toInt();
        QVERIFY(*pid > 1);
        const QString socket = m_helper.managementSocket(::getuid());
        if (probeForeign) {
            const gid_t group = ::getgrnam("users")->gr_gid;
            QCOMPARE(foreignAttempt(socket, kNobody, kNobody), QString("refused"));
            QCOMPARE(foreignAttempt(socket, kNobody, group), QString("refused"));
            const QByteArray dir = QFile::encodeName(QFileInfo(socket).path());
            QCOMPARE(::chmod(dir.constData(), 0711), 0);
            QCOMPARE(foreignAttempt(socket, kNobody, group), QString("closed"));
            QCOMPARE(::chmod(dir.constData(), 0700), 0);
        }
        Management management;
        QVERIFY(management.connect(socket));
        QVERIFY2(management.waitFor(">HOLD:", 10000), qPrintable(management.transcript.join('\n')));
        QVERIFY(management.send("state on"));
        QVERIFY(management.send("hold release"));
        QVERIFY2(management.waitFor(">PASSWORD:Need 'Auth' username/password", 30000),
                 qPrintable(management.transcript.join('\n')));
        QVERIFY(management.send("username \"Auth\" " + m_lab.facts.value("LAB_USER").toUtf8()));
        QVERIFY(management.send("password \"Auth\" " + m_lab.facts.value("LAB_PASSWORD").toUtf8()));
        QVERIFY2(management.waitFor(",CONNECTED,SUCCESS,", 30000),
                 qPrintable(management.transcript.join('\n')));
    }

    void stopAndCheckGone(int pid)
    {
        QCOMPARE(outcome(m_helper.call(HMHelperInstance::request("stopVPN"))), QString("ok"));
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(pid)));
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!HMTestEnvironment::canUseNetworkNamespaces() ||
            HMTestEnvironment::findProgram("openvpn").isEmpty() ||
            HMTestEnvironment::findProgram("openssl").isEmpty() ||
            HMTestEnvironment::findProgram("systemd-socket-activate").isEmpty() ||
            !QFile::exists("/dev/net/tun")) {
            QSKIP("needs root, network namespaces, /dev/net/tun, openvpn, openssl and "
                  "systemd-socket-activate");
        }
        QString error;
        QVERIFY2(m_lab.up(&error), qPrintable(error));
        const QString client = m_lab.facts.value("LAB_CLIENT_FILES");
        HMHelperInstance::Options options;
        options.openVPN = HMPathTrust::resolved(HMTestEnvironment::findProgram("openvpn"));
        options.useInPlace = true;
        options.networkNamespace = m_lab.facts.value("LAB_CLIENT_NAMESPACE");
        options.resourceFiles = {client + "/ca.crt", client + "/key.crt", client + "/key.key"};
        options.startTimeoutMs = 20000;
        options.stopTimeoutMs = 10000;
        options.group = QStringLiteral("users");
        QVERIFY2(m_helper.prepare(options, &error), qPrintable(error));
        QVERIFY2(m_helper.start(&error), qPrintable(error));
    }

    void tunnelComesUpAndGoesAway_data()
    {
        QTest::addColumn<bool>("selectiveRouting");
        QTest::addColumn<QString>("protocol");
        QTest::addColumn<QStringList>("nameServers");
        QTest::newRow("selective routing over UDP") << true << "udp" << QStringList{"127.0.0.1"};
        QTest::newRow("full tunnel over TCP")
            << false << "tcp" << QStringList{"8.8.8.8", "8.8.4.4"};
    }

    void tunnelComesUpAndGoesAway()
    {
        QFETCH(bool, selectiveRouting);
        QFETCH(QString, protocol);
        QFETCH(QStringList, nameServers);
        const QString ns = m_lab.facts.value("LAB_CLIENT_NAMESPACE");
        const QString resolvConf = m_lab.facts.value("LAB_CLIENT_RESOLV_CONF");
        const QString originalResolvConf = readFile(resolvConf);
        const QString port = m_lab.facts.value(protocol == "udp" ? "LAB_UDP_PORT" : "LAB_TCP_PORT");
        const QStringList remotes = {"--remote", m_lab.facts.value("LAB_HOST"), port, protocol};

        int pid = 0;
        bringUp(m_helper.startVPNRequest(m_helper.applicationArguments(selectiveRouting, remotes)),
                &pid, selectiveRouting);
        if (QTest::currentTestFailed()) {
            return;
        }
        QVERIFY(linkExists(ns, "tun0"));
        const QString tunnelResolvConf = readFile(resolvConf);
        for (const QString &server : nameServers) {
            QVERIFY2(tunnelResolvConf.contains("nameserver " + server + "\n"),
                     qPrintable(tunnelResolvConf));
        }
        QVERIFY(!tunnelResolvConf.contains("192.0.2.53"));
        // The up script keeps what it replaced in the helper's run directory.
        QVERIFY(QFile::exists(m_helper.runDir() + "/resolv.conf.tun0"));

        const QCborMap reply = m_helper.call(HMHelperInstance::request("getLogs"));
        QCOMPARE(reply.value("status").toString(), QString("ok"));
        const auto text = [&reply](const char *key) {
            const auto log =
                HMDeflatedLog::fromWire(reply.value(QLatin1String(key)).toVariant(), nullptr);
            return log ? QString::fromUtf8(log->inflated()) : QString("<damaged>");
        };
        const QString vpnLog = text("vpnLog");
        QVERIFY2(vpnLog.contains("Initialization Sequence Completed"), qPrintable(vpnLog));
        QVERIFY(vpnLog.contains("TUN/TAP device tun0 opened"));
        QVERIFY(vpnLog.contains("hollowmere-dns:"));
        QVERIFY(text("daemonLog")
                    .contains(QString("OpenVPN (pid %1) listens on its management port").arg(pid)));

        stopAndCheckGone(pid);
        QCOMPARE(openVPNProcessesOf(m_helper), QStringList());
        QVERIFY(!linkExists(ns, "tun0"));
        QCOMPARE(readFile(resolvConf), originalResolvConf);
        QVERIFY(readFile(m_helper.logDir() + "/vpn.log").contains("restored after tun0"));
    }

    // An operator's own file with its keys inline: the checked copy, keys re-emitted as bare
    // armour, is what the real OpenVPN connects with.
    void operatorFileWithInlineKeysConnects()
    {
        const QString client = m_lab.facts.value("LAB_CLIENT_FILES");
        const auto inlined = [&](const QByteArray &tag, const QString &file) -> QByteArray {
            return "<" + tag + ">\n# " + file.toUtf8() + "\n" +
                   HMTestEnvironment::readFile(client + "/" + file) + "</" + tag + ">\n";
        };
        const QString config = m_helper.path("operator.conf");
        QVERIFY(HMTestEnvironment::writeFile(
            config, "client\r\ndev tun\nnobind\ncomp-lzo\nns-cert-type server\n"
                    "auth-user-pass\n'verb' \"3\" ; comment\n" +
                        inlined("ca", "ca.crt") + inlined("cert", "key.crt") +
                        inlined("key", "key.key")));
        QStringList arguments =
            m_helper.applicationArguments(false, {"--remote", m_lab.facts.value("LAB_HOST"),
                                                  m_lab.facts.value("LAB_UDP_PORT"), "udp"});
        arguments = arguments.mid(0, 7) + QStringList{"--config", config} +
                    arguments.mid(arguments.size() - 4);
        int pid = 0;
        bringUp(m_helper.startVPNRequest(arguments), &pid);
        const QString copy = readFile(m_helper.runDir() + "/openvpn-client.conf");
        QVERIFY(!copy.contains("# ca.crt") && copy.contains("<key>\n-----BEGIN "));
        QVERIFY(linkExists(m_lab.facts.value("LAB_CLIENT_NAMESPACE"), "tun0"));
        stopAndCheckGone(pid);
    }
};

QTEST_GUILESS_MAIN(HMHelperOpenVPNCycleTest)
#include "HMHelperOpenVPNCycleTest.moc"
