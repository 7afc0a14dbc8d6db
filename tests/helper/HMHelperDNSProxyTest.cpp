// The helper's DNS-proxy requests against the real hmwispd and wisproute in a namespace of
// the test's own, a stand-in OpenVPN (hm-test-fake-openvpn) and a tun device making the tunnel.
#include "HMHelperInstance.h"
#include "HMTestEnvironment.h"
#include "HMTestNamespace.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QtTest>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t kNobody = 65534;
const QString kServer = QStringLiteral("192.0.2.1");

QString status(const QCborMap &reply)
{
    return reply.value(QStringLiteral("status")).toString() +
           reply.value(QStringLiteral("error")).toString();
}

} // namespace

class HMHelperDNSProxyTest : public QObject
{
    Q_OBJECT

private:
    HMHelperInstance m_helper;
    QString m_files;

    QString ns() const { return m_helper.networkNamespace(); }

    static QCborMap stopRequest()
    {
        QCborMap request = HMHelperInstance::request("stopDNSProxy");
        request.insert(QStringLiteral("daemon"), QStringLiteral("dns"));
        return request;
    }

    // What the application sends for a mode (0 off, 1 exclusion, 2 inclusion).
    QStringList proxyConfig(int mode, const QString &file) const
    {
        QStringList list = {"-f",      mode == 0 ? QString("nothing") : file,
                            "-s",      m_helper.resourceDir(),
                            "-log",    "/var/log/hmwispd/dns.log",
                            "-server", kServer,
                            "-tap",    "tun0"};
        if (mode != 0) {
            list << "-wisproute" << (mode == 1 ? "wisprouteEx" : "wisproute");
        }
        return list;
    }

    QCborMap start(int mode, const QString &file = QString())
    {
        return m_helper.call(m_helper.startDNSProxyRequest(
            proxyConfig(mode, file.isEmpty() ? m_files + "/domains.txt" : file)));
    }

    int proxyPid() const
    {
        const int pid =
            HMTestEnvironment::readFile(m_helper.runDir() + "/wisproute.pid").trimmed().toInt();
        return pid > 1 && QFile::exists(QString("/proc/%1").arg(pid)) ? pid : 0;
    }

    QString ownRoutes() const
    {
        QProcess ip;
        ip.start(HMTestEnvironment::findProgram("ip"),
                 {"-n", ns(), "-4", "route", "show", "proto", "211"});
        ip.waitForFinished(5000);
        return QString::fromUtf8(ip.readAllStandardOutput());
    }

    // Sends `bytes` to the proxy (over TCP when `stream`) and returns its answer's rcode, or
    // -1 when none came.
    int rcodeFor(const QByteArray &bytes, bool stream) const
    {
        const int fd = HMTestNamespace::socketIn(ns(), stream ? SOCK_STREAM : SOCK_DGRAM);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(53);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        timeval timeout{2, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        char reply[512];
        ssize_t n = -1;
        if (::connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0 &&
            ::send(fd, bytes.constData(), size_t(bytes.size()), 0) == bytes.size()) {
            n = ::recv(fd, reply, sizeof(reply), 0);
        }
        ::close(fd);
        const int header = stream ? 2 : 0;
        return n >= header + 4 ? reply[header + 3] & 0x0f : -1;
    }

    void writeFile(const QString &name, const QByteArray &content, uid_t owner = 0)
    {
        QVERIFY(HMTestEnvironment::writeFile(m_files + '/' + name, content));
        QCOMPARE(::chown(QFile::encodeName(m_files + '/' + name).constData(), owner, owner), 0);
    }

    void openTunnel(bool open)
    {
        const QByteArray lines = open ? "TUN/TAP device tun0 opened\nPeer Connection Initiated "
                                        "with [AF_INET]192.0.2.1:1194\n"
                                      : QByteArray();
        QVERIFY(HMTestEnvironment::writeFile(m_helper.logDir() + "/vpn.log", lines));
        m_helper.setFakeOpenVPNMode(open ? "serve" : "exit");
        const QCborMap reply =
            open ? m_helper.call(m_helper.startVPNRequest(m_helper.applicationArguments(true, {})))
                 : m_helper.call(HMHelperInstance::request("stopVPN"));
        QCOMPARE(status(reply), QString("ok"));
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!HMTestEnvironment::canUseNetworkNamespaces() ||
            HMTestEnvironment::findProgram("systemd-socket-activate").isEmpty() ||
            !QFile::exists("/dev/net/tun")) {
            QSKIP("needs root, network namespaces, /dev/net/tun and systemd-socket-activate");
        }
        HMHelperInstance::Options options;
        options.openVPN = HMHelperInstance::testProgram("hm-test-fake-openvpn");
        options.group = "users";
        QString error;
        QVERIFY2(m_helper.prepare(options, &error), qPrintable(error));
        QVERIFY2(m_helper.start(&error), qPrintable(error));
        for (const QStringList &command :
             QList<QStringList>{{"tuntap", "add", "dev", "tun0", "mode", "tun"},
                                {"link", "set", "tun0", "up"},
                                {"addr", "add", "10.8.0.6/24", "dev", "tun0"},
                                {"link", "add", "phys", "type", "veth", "peer", "name", "physp"},
                                {"link", "set", "phys", "up"},
                                {"link", "set", "physp", "up"},
                                {"addr", "add", "192.0.2.2/24", "dev", "phys"}}) {
            QVERIFY(HMTestNamespace::ip(ns(), command));
        }
        m_files = m_helper.path("user");
        QVERIFY(QDir().mkpath(m_files));
        writeFile("domains.txt",
                  "Example.COM.\r\nwww.example.org\n\nbad..name\n\x01\x02\xff\n-x.test\n");
        writeFile("nobodys.txt", "example.com\n", kNobody);
        QVERIFY(QFile::link(m_files + "/domains.txt", m_files + "/link.txt"));
        writeFile("huge.txt", QByteArray(5 * 1024 * 1024, 'a'));
    }

    void cleanup() { m_helper.call(stopRequest()); }

    void portCheckNeedsATrustedProxy()
    {
        const auto check = [this] {
            return status(m_helper.call(HMHelperInstance::request("checkDNSPortOpen")));
        };
        QCOMPARE(check(), QString("ok"));
        const QString proxy = m_helper.path("bin/wisproute");
        QCOMPARE(::chmod(QFile::encodeName(proxy).constData(), 0775), 0);
        const QString writable = check();
        QCOMPARE(::chmod(QFile::encodeName(proxy).constData(), 0755), 0);
        QVERIFY(QFile::rename(proxy, proxy + ".away"));
        const QString missing = check();
        QVERIFY(QFile::rename(proxy + ".away", proxy));
        QVERIFY2(writable.startsWith("error") && writable.contains("DNS proxy"),
                 qPrintable(writable));
        QVERIFY2(missing.startsWith("error") && missing.contains("DNS proxy"), qPrintable(missing));
    }

    void refused_data()
    {
        QTest::addColumn<QStringList>("config");
        QTest::addColumn<bool>("tunnel");
        QTest::addColumn<QString>("reason");
        const QString list = m_files + "/domains.txt";
        const QStringList good = proxyConfig(2, list);
        const auto with = [&good](const QString &from, const QString &to) {
            return QStringList(good).replaceInStrings(from, to);
        };
        QTest::newRow("no tunnel up") << good << false << "no tunnel is up";
        QTest::newRow("another device")
            << with("tun0", "phys") << true << "-tap phys is not the tunnel";
        QTest::newRow("another server")
            << with(kServer, "192.0.2.9") << true << "is not the server OpenVPN is connected to";
        QTest::newRow("another log")
            << with("dns.log", "x.log") << true << "log must be /var/log/hmwispd/dns.log";
        QTest::newRow("another resource directory") << with(m_helper.resourceDir(), "/tmp") << true
                                                    << "not the helper's resource directory";
        QTest::newRow("server by name")
            << with(kServer, "vpn.example") << true << "-server must be an IPv4 address";
        QTest::newRow("device name with a path")
            << with("tun0", "../x") << true << "-tap must be a network device name";
        QTest::newRow("extra entry")
            << good + QStringList{"-listen", "0.0.0.0:53"} << true << "unexpected entry '-listen'";
        QTest::newRow("off with a mode") << QStringList{"-f", "nothing"} + good.mid(2) << true
                                         << "-wisproute goes with a domain file";
        QTest::newRow("linked domain file")
            << proxyConfig(2, m_files + "/link.txt") << true << "the domain file cannot be used";
        QTest::newRow("another user's domain file")
            << proxyConfig(1, m_files + "/nobodys.txt") << true << "the domain file cannot be used";
        QTest::newRow("huge domain file")
            << proxyConfig(2, m_files + "/huge.txt") << true << "the domain file cannot be used";
    }

    void refused()
    {
        QFETCH(QStringList, config);
        QFETCH(bool, tunnel);
        QFETCH(QString, reason);
        openTunnel(tunnel);
        const qsizetype logBefore = m_helper.daemonLog().size();
        const QString answer = status(m_helper.call(m_helper.startDNSProxyRequest(config)));
        QVERIFY2(answer.startsWith("error") && answer.contains(reason), qPrintable(answer));
        QVERIFY(m_helper.daemonLog().mid(logBefore).contains("refused startDNSProxy"));
        QCOMPARE(proxyPid(), 0);
        QCOMPARE(ownRoutes(), QString());
    }

    void proxyRunsRestartsAndLeavesNoRoute()
    {
        openTunnel(true);
        QCOMPARE(status(start(2)), QString("ok"));
        const int inclusion = proxyPid();
        QVERIFY(inclusion > 0);
        // A checked copy of the list, the invalid lines skipped and reported.
        QCOMPARE(HMTestEnvironment::readFile(m_helper.runDir() + "/domains.checked"),
                 QByteArray("example.com\nwww.example.org\n"));
        QVERIFY(m_helper.daemonLog().contains("skipped 3 line(s)"));
        // Only CAP_NET_ADMIN (12) and CAP_NET_BIND_SERVICE (10) are left.
        const QString procStatus = QString::fromUtf8(
            HMTestEnvironment::readFile(QString("/proc/%1/status").arg(inclusion)));
        QVERIFY2(procStatus.contains("CapEff:\t0000000000001400"), qPrintable(procStatus));
        QVERIFY(procStatus.contains("CapPrm:\t0000000000001400"));
        // Hostile queries get FORMERR over either transport, and the proxy stays.
        const QByteArray loop = QByteArray::fromHex("123401000001000000000000c00c00010001");
        QCOMPARE(rcodeFor(loop, false), 1);
        QCOMPARE(rcodeFor(QByteArray::fromHex("0012") + loop, true), 1);
        QCOMPARE(rcodeFor(QByteArray::fromHex("ffff1234"), true), 1); // announces 65535 bytes
        QCOMPARE(proxyPid(), inclusion);
        // Inclusion: the default route stays; the tunnel's resolvers go through it.
        QCOMPARE(ownRoutes(), QString("8.8.4.4 dev tun0 scope link linkdown \n"
                                      "8.8.8.8 dev tun0 scope link linkdown \n"));

        // A restart with another mode replaces the proxy and its routes; a list the user
        // never edited has no file yet and counts as empty.
        QCOMPARE(status(start(1, m_files + "/never-written.txt")), QString("ok"));
        QCOMPARE(HMTestEnvironment::readFile(m_helper.runDir() + "/domains.checked"), QByteArray());
        const int exclusion = proxyPid();
        QVERIFY(exclusion > 0 && exclusion != inclusion);
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(inclusion)));
        const QString routes = ownRoutes();
        QVERIFY2(routes.contains("0.0.0.0/1 dev tun0") && routes.contains("128.0.0.0/1 dev tun0") &&
                     routes.contains(kServer + " dev phys") && !routes.contains("8.8.8.8"),
                 qPrintable(routes));

        // Killed outright, it cannot clean up; the stop does it for it.
        QCOMPARE(::kill(exclusion, SIGKILL), 0);
        QTest::qWait(100);
        QCOMPARE(ownRoutes(), routes);
        QCOMPARE(status(m_helper.call(stopRequest())), QString("ok"));
        QCOMPARE(ownRoutes(), QString());
        QVERIFY(m_helper.daemonLog().contains("route(s) the DNS proxy left behind"));
    }
};

QTEST_GUILESS_MAIN(HMHelperDNSProxyTest)
#include "HMHelperDNSProxyTest.moc"
