// The real hmwispd, run as root under socket activation, against clients that try to get
// more out of it than the application ever asks for. Every refusal must answer "error" with
// the reason, be written to daemon.log, and run nothing: the helper's trusted "OpenVPN" here
// is a recorder (hm-test-fake-openvpn) that notes each time it is started.
#include "HMAccountManager.h"
#include "HMDaemonManager.h"
#include "HMHelperInstance.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWireConstants.h"
#include "HMWisprouteManager.h"

#include <QCborArray>
#include <QCborValue>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <functional>
#include <grp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using Exchange = std::function<std::optional<QCborMap>(HMHelperInstance &, QString *)>;
Q_DECLARE_METATYPE(Exchange)

namespace {

constexpr uid_t kNobody = 65534;
const QString kTestGroup = QStringLiteral("users");

QByteArray frame(quint64 length, const QByteArray &payload = QByteArray())
{
    return QByteArray(reinterpret_cast<const char *>(&length), sizeof(length)) + payload;
}

QByteArray framed(const QByteArray &payload)
{
    return frame(static_cast<quint64>(payload.size()), payload);
}

QCborMap action(const QString &name)
{
    QCborMap request;
    request.insert(QStringLiteral("action"), name);
    return request;
}

// The trusted-OpenVPN recorder's invocations so far.
QList<QJsonObject> invocations(const HMHelperInstance &helper)
{
    QList<QJsonObject> all;
    QFile file(helper.path(QStringLiteral("bin/invocations.jsonl")));
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (!line.isEmpty()) {
                all << QJsonDocument::fromJson(line).object();
            }
        }
    }
    return all;
}

std::optional<QCborMap> runProbe(HMHelperInstance &helper, const QString &groups,
                                 const QString &name, QString *error)
{
    QProcess probe;
    QStringList arguments = {QStringLiteral("--reuid=%1").arg(kNobody),
                             QStringLiteral("--regid=%1").arg(kNobody)};
    arguments << (groups.isEmpty() ? QStringLiteral("--clear-groups")
                                   : QStringLiteral("--groups=") + groups);
    arguments << helper.path(QStringLiteral("bin/probe")) << helper.socketPath() << name;
    probe.start(HMTestEnvironment::findProgram(QStringLiteral("setpriv")), arguments);
    if (!probe.waitForFinished(20000)) {
        *error = QStringLiteral("the probe did not finish");
        return std::nullopt;
    }
    const QByteArray output = probe.readAllStandardOutput().trimmed();
    const QJsonDocument reply = QJsonDocument::fromJson(output);
    if (!reply.isObject()) {
        *error = QString::fromUtf8(output + probe.readAllStandardError());
        return std::nullopt;
    }
    return QCborMap::fromJsonObject(reply.object());
}

} // namespace

class HMHelperRefusalTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    HMHelperInstance m_helper;
    QString m_userDir;
    bool m_ready = false;

    void setMode(const QByteArray &mode)
    {
        QFile file(m_helper.path(QStringLiteral("bin/mode")));
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(mode);
    }

    QString userFile(const QString &name) const { return m_userDir + QLatin1Char('/') + name; }

    QCborMap withArguments(const std::function<void(QStringList &)> &change) const
    {
        QStringList arguments =
            m_helper.applicationArguments(false, {"--remote", "vpn.example", "1194", "udp"});
        change(arguments);
        return m_helper.startVPNRequest(arguments);
    }

    QCborMap withConfigFile(const QString &file) const
    {
        QStringList arguments = m_helper.applicationArguments(false, {});
        arguments = arguments.mid(0, 7) +
                    QStringList{"--config", file, "--remote", "vpn.example", "1194", "udp"};
        return m_helper.startVPNRequest(arguments);
    }

    Exchange send(const QCborMap &request) const
    {
        return [request](HMHelperInstance &helper, QString *error) {
            return helper.exchange(request, error);
        };
    }

    static Exchange sendRaw(const QByteArray &bytes, bool closeAfterSending = false)
    {
        return [bytes, closeAfterSending](HMHelperInstance &helper, QString *error) {
            return helper.exchangeRaw(bytes, closeAfterSending, error);
        };
    }

    void writeUserFile(const QString &name, const QByteArray &content, uid_t owner)
    {
        QFile file(userFile(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        QCOMPARE(::chown(QFile::encodeName(file.fileName()).constData(), owner, owner), 0);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!HMTestEnvironment::canUseNetworkNamespaces() ||
            HMTestEnvironment::findProgram(QStringLiteral("systemd-socket-activate")).isEmpty() ||
            HMTestEnvironment::findProgram(QStringLiteral("setpriv")).isEmpty()) {
            QSKIP("needs root, network namespaces, systemd-socket-activate and setpriv");
        }
        m_home = HMTestEnvironment::isolateUserDirectories();
        QVERIFY2(::getgrnam(qPrintable(kTestGroup)), "the group 'users' is missing");
        HMHelperInstance::Options options;
        options.openVPN = HMHelperInstance::testProgram(QStringLiteral("hm-test-fake-openvpn"));
        options.group = kTestGroup;
        options.startTimeoutMs = 5000;
        QString error;
        QVERIFY2(m_helper.prepare(options, &error), qPrintable(error));
        setMode("exit");

        m_userDir = m_helper.path(QStringLiteral("user"));
        QVERIFY(QDir().mkpath(m_userDir));
        QCOMPARE(::chmod(QFile::encodeName(m_userDir).constData(), 0755), 0);
        writeUserFile("good.conf", "client\nverb 3\n", 0);
        writeUserFile("nobodys.conf", "client\n", kNobody);
        writeUserFile("up.conf", "client\nup /tmp/evil.sh\n", 0);
        writeUserFile("plugin.conf", "plugin /tmp/evil.so\n", 0);
        writeUserFile("script-security.conf", "script-security 3\n", 0);
        QVERIFY(QFile::link(userFile("good.conf"), userFile("link.conf")));
        QCOMPARE(::mkfifo(QFile::encodeName(userFile("fifo.conf")).constData(), 0644), 0);
        QVERIFY(QFile::copy(m_helper.openVPNPath(), userFile("openvpn-copy")));
        // The build tree may lie where other users cannot reach (under /root, say).
        QVERIFY(QFile::copy(HMHelperInstance::testProgram("hm-test-helper-probe"),
                            m_helper.path("bin/probe")));
        QCOMPARE(::chmod(QFile::encodeName(m_helper.path("bin/probe")).constData(), 0755), 0);
        m_ready = true;
    }

    void init()
    {
        if (!m_ready || m_helper.isRunning()) {
            return;
        }
        QFile::remove(m_helper.socketPath());
        QString error;
        QVERIFY2(m_helper.start(&error), qPrintable(error));
    }

    void refused_data()
    {
        QTest::addColumn<Exchange>("exchange");
        QTest::addColumn<QString>("reason");

        QTest::newRow("peer neither root nor in the group")
            << Exchange([](HMHelperInstance &h, QString *e) {
                   return runProbe(h, QString(), "checkDNSPortOpen", e);
               })
            << "only root and members of the group 'users' may use the helper";
        QTest::newRow("daemonConfig naming another executable") << send([this] {
            QCborMap request = withArguments([](QStringList &) {});
            QCborMap params = request.value("params").toMap();
            QCborMap config = params.value("daemonConfig").toMap();
            config.insert(QStringLiteral("openVPNPath"), QStringLiteral("/bin/sh"));
            params.insert(QStringLiteral("daemonConfig"), config);
            request.insert(QStringLiteral("params"), params);
            return request;
        }()) << "daemonConfig names '/bin/sh', which is not the helper's OpenVPN";
        QTest::newRow("daemonConfig naming a copy of OpenVPN") << send([this] {
            QCborMap request = withArguments([](QStringList &) {});
            QCborMap params = request.value("params").toMap();
            QCborMap config = params.value("daemonConfig").toMap();
            config.insert(QStringLiteral("openVPNPath"), userFile("openvpn-copy"));
            params.insert(QStringLiteral("daemonConfig"), config);
            request.insert(QStringLiteral("params"), params);
            return request;
        }()) << "which is not the helper's OpenVPN";
        QTest::newRow("--cd elsewhere")
            << send(withArguments([](QStringList &l) { l[1] = "/tmp"; }))
            << "--cd must name the helper's resource directory";
        QTest::newRow("foreign up script") << send(withArguments([](QStringList &l) {
            l[l.indexOf("--up") + 1] = "/tmp/evil.sh";
        })) << "only the shipped up/down scripts may run";
        QTest::newRow("foreign down script") << send(withArguments([](QStringList &l) {
            l[l.indexOf("--down") + 1] = "evil.sh -m";
        })) << "only the shipped up/down scripts may run";
        QTest::newRow("--plugin") << send(withArguments([](QStringList &l) {
            l << "--plugin"
              << "/tmp/evil.so"
              << "a"
              << "b";
        })) << "option '--plugin' is not allowed";
        QTest::newRow("unknown option") << send(withArguments([](QStringList &l) {
            l.insert(l.indexOf("--verb"), "--frobnicate");
        })) << "option '--frobnicate' is not allowed";
        QTest::newRow("bad --remote port")
            << send(withArguments([](QStringList &l) { l[l.size() - 2] = "70000"; }))
            << "--remote port '70000' is not a port";
        QTest::newRow("option-looking --remote host")
            << send(withArguments([](QStringList &l) { l[l.size() - 3] = "--config"; }))
            << "--remote host '--config' is not a host";
        QTest::newRow("--config of another user's file")
            << send(withConfigFile(userFile("nobodys.conf"))) << "is owned by another user";
        QTest::newRow("--config through a symbolic link")
            << send(withConfigFile(userFile("link.conf"))) << "symbolic link";
        QTest::newRow("--config of a FIFO")
            << send(withConfigFile(userFile("fifo.conf"))) << "is not a regular file";
        QTest::newRow("--config with up")
            << send(withConfigFile(userFile("up.conf"))) << "line 2: directive 'up' is not allowed";
        QTest::newRow("--config with plugin")
            << send(withConfigFile(userFile("plugin.conf"))) << "directive 'plugin' is not allowed";
        QTest::newRow("--config with script-security")
            << send(withConfigFile(userFile("script-security.conf")))
            << "directive 'script-security' is not allowed";
        QTest::newRow("startVPN with an extra key") << send([this] {
            QCborMap request = withArguments([](QStringList &) {});
            request.insert(QStringLiteral("exec"), QStringLiteral("/bin/sh"));
            return request;
        }()) << "request has the unexpected key 'exec'";
        QTest::newRow("vpnConfig holding a number") << send([this] {
            QCborMap request = withArguments([](QStringList &) {});
            QCborMap params = request.value("params").toMap();
            QCborArray list = params.value("vpnConfig").toArray();
            list.append(1194);
            params.insert(QStringLiteral("vpnConfig"), list);
            request.insert(QStringLiteral("params"), params);
            return request;
        }()) << "vpnConfig must be a list of texts";
        QTest::newRow("announced length 0")
            << sendRaw(frame(0)) << "frame announces an empty payload";
        QTest::newRow("announced length 2^63") << sendRaw(frame(quint64(1) << 63, "xx"))
                                               << "frame announces 9223372036854775808 bytes";
        QTest::newRow("announced length cap+1")
            << sendRaw(frame(HMWire::kMaxFrameLength + 1, "xx")) << "more than the 1048576 allowed";
        QTest::newRow("truncated frame") << sendRaw(frame(100, QByteArray(10, 'a')), true)
                                         << "closed the connection after 10 of 100 payload bytes";
        QTest::newRow("half a frame, then nothing")
            << sendRaw(QByteArray(4, '\x10')) << "sent 4 of 8 length bytes within 1000 ms";
        QTest::newRow("malformed CBOR") << sendRaw(framed("\xa1\x66"
                                                          "action\xff\xff"))
                                        << "payload is not valid CBOR";
        QTest::newRow("deeply nested CBOR")
            << sendRaw(framed(QByteArray("\xa1\x66"
                                         "action") +
                              QByteArray(200, '\x81') + QByteArray("\x80")))
            << "payload nests deeper than 4 levels";
        QTest::newRow("payload not a dictionary")
            << sendRaw(framed(QCborValue(QCborArray{QStringLiteral("stopVPN")}).toCbor()))
            << "payload is not a dictionary";
        QTest::newRow("unknown action")
            << send(action("removeEverything")) << "unknown action 'removeEverything'";
        QTest::newRow("stopDNSProxy for another daemon") << send([] {
            QCborMap request = action("stopDNSProxy");
            request.insert(QStringLiteral("daemon"), QStringLiteral("vpn"));
            return request;
        }()) << "'daemon' must be \"dns\"";
    }

    void refused()
    {
        QFETCH(Exchange, exchange);
        QFETCH(QString, reason);
        const int startedBefore = invocations(m_helper).size();
        const int logBefore = m_helper.daemonLog().size();

        QString error;
        const std::optional<QCborMap> reply = exchange(m_helper, &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("error"));
        QVERIFY2(reply->value("error").toString().contains(reason),
                 qPrintable(reply->value("error").toString()));

        QCOMPARE(invocations(m_helper).size(), startedBefore);
        QVERIFY(!QFile::exists(m_helper.runDir() + "/openvpn.pid"));
        const QString logged = m_helper.daemonLog().mid(logBefore);
        QVERIFY2(logged.contains("refused") && logged.contains(reason), qPrintable(logged));
        QVERIFY(m_helper.isRunning());
    }

    void groupMemberIsServed()
    {
        QString error;
        const auto reply =
            runProbe(m_helper, QString::number(::getgrnam(qPrintable(kTestGroup))->gr_gid),
                     "checkDNSPortOpen", &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
    }

    void acceptedRequestRunsOnlyTheTrustedOpenVPN()
    {
        setMode("exit");
        const int before = invocations(m_helper).size();
        const QStringList requested = m_helper.applicationArguments(
            true, {"--remote", "vpn.example", "1194", "udp", "--remote", "10.1.2.3", "443", "tcp"});
        QString error;
        const auto reply = m_helper.exchange(m_helper.startVPNRequest(requested), &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("error"));
        QVERIFY2(reply->value("error").toString().startsWith(
                     "OpenVPN exited with status 3 before its management port opened"),
                 qPrintable(reply->value("error").toString()));

        const QList<QJsonObject> all = invocations(m_helper);
        QCOMPARE(all.size(), before + 1);
        const QStringList ran = all.last().value("arguments").toVariant().toStringList();
        QCOMPARE(all.last().value("environment").toArray().size(), 0);
        QCOMPARE(ran.mid(0, 2), QStringList({"--cd", m_helper.resourceDir()}));
        QVERIFY(!ran.contains("system"));
        QVERIFY(!ran.contains("--daemon"));
        QVERIFY(!ran.contains("/var/log/hmwispd/vpn.log") ||
                m_helper.logDir() == "/var/log/hmwispd");
        const QStringList own = {
            "--cd",     m_helper.resourceDir(), "--log",          m_helper.logDir() + "/vpn.log",
            "--setenv", "HM_STATE_DIR",         m_helper.runDir()};
        QCOMPARE(ran.mid(ran.size() - own.size()), own);
        QCOMPARE(ran.mid(ran.size() - own.size() - 8, 8), requested.mid(requested.size() - 8));
        QVERIFY(!QFile::exists(m_helper.runDir() + "/openvpn.pid"));
    }

    // What the application really builds must pass, in every form it takes.
    void applicationListsAreAccepted_data()
    {
        QTest::addColumn<bool>("selectiveRouting");
        QTest::addColumn<bool>("forceTCP");
        QTest::addColumn<bool>("configFile");
        QTest::addColumn<QStringList>("protocols");
        QTest::newRow("selective routing") << true << false << false << QStringList{"udp", "tcp"};
        QTest::newRow("full tunnel") << false << false << false << QStringList{"udp", "tcp"};
        QTest::newRow("forced TCP") << false << true << false << QStringList{"tcp", "tcp"};
        QTest::newRow("operator's configuration file")
            << true << false << true << QStringList{"udp", "tcp"};
    }

    void applicationListsAreAccepted()
    {
        QFETCH(bool, selectiveRouting);
        QFETCH(bool, forceTCP);
        QFETCH(bool, configFile);
        QFETCH(QStringList, protocols);
        setMode("exit");

        QTemporaryDir prefsDir;
        HMPreferenceStore store(prefsDir.filePath("prefs.json"));
        HMMemoryKeychain keychain;
        HMNotificationCenter center;
        HMWisprouteManager routing(store);
        HMAccountManager account(store, keychain, &routing, center);
        HMDaemonManager::Paths paths;
        paths.socketPath = m_helper.socketPath();
        paths.executableDirectory = m_helper.path("app");
        paths.resourceDirectory = m_helper.resourceDir();
        HMDaemonManager daemon(store, &account, &routing, paths);
        routing.setSupported(selectiveRouting);
        account.setVpnServers(
            {QVariantMap{{"host", "nl1.vpn.example"}, {"port", 1194}, {"isUdp", true}},
             QVariantMap{{"host", "198.51.100.7"}, {"port", "443"}, {"isUdp", false}}});
        store.setValue("vpnForceTCP", forceTCP);
        if (configFile) {
            store.setValue("vpnConfigFile", userFile("good.conf"));
        }

        QCborMap params;
        params.insert(QStringLiteral("daemonConfig"),
                      QCborMap::fromVariantMap(daemon.getDaemonConfig()));
        params.insert(QStringLiteral("vpnConfig"),
                      QCborArray::fromStringList(daemon.getVPNConfig()));
        QCborMap request = action("startVPN");
        request.insert(QStringLiteral("params"), params);
        const int before = invocations(m_helper).size();
        QString error;
        const auto reply = m_helper.exchange(request, &error);
        QVERIFY2(reply, qPrintable(error));
        QVERIFY2(reply->value("error").toString().startsWith("OpenVPN exited with status 3"),
                 qPrintable(reply->value("error").toString()));
        QCOMPARE(invocations(m_helper).size(), before + 1);
        const QStringList ran =
            invocations(m_helper).last().value("arguments").toVariant().toStringList();
        const int first = ran.indexOf("--remote");
        QCOMPARE(ran.mid(first, 8),
                 QStringList({"--remote", "nl1.vpn.example", "1194", protocols.at(0), "--remote",
                              "198.51.100.7", "443", protocols.at(1)}));
        QCOMPARE(ran.contains("--config"), configFile);
    }

    void configFileIsReplacedByACheckedCopy()
    {
        setMode("exit");
        QString error;
        const auto reply = m_helper.exchange(withConfigFile(userFile("good.conf")), &error);
        QVERIFY2(reply, qPrintable(error));
        const QStringList ran =
            invocations(m_helper).last().value("arguments").toVariant().toStringList();
        const QString copy = ran.value(ran.indexOf("--config") + 1);
        QCOMPARE(copy, m_helper.runDir() + "/openvpn-client.conf");
        QFile file(copy);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(file.readAll().contains("\nclient\nverb \"3\"\n"));
        QCOMPARE(file.permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
    }

    void startAndStopTrackTheProcess_data()
    {
        QTest::addColumn<QByteArray>("mode");
        QTest::newRow("ends on SIGTERM") << QByteArray("serve");
        QTest::newRow("ignores SIGTERM") << QByteArray("stubborn");
    }

    void startAndStopTrackTheProcess()
    {
        QFETCH(QByteArray, mode);
        setMode(mode);
        QString error;
        auto reply = m_helper.exchange(
            m_helper.startVPNRequest(m_helper.applicationArguments(false, {})), &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));

        QFile pidFile(m_helper.runDir() + "/openvpn.pid");
        QVERIFY(pidFile.open(QIODevice::ReadOnly));
        const int pid = pidFile.readAll().trimmed().toInt();
        QVERIFY(pid > 1);
        QCOMPARE(QFileInfo(QString("/proc/%1/exe").arg(pid)).canonicalFilePath(),
                 m_helper.openVPNPath());

        // Starting again first ends the one that runs.
        reply = m_helper.exchange(
            m_helper.startVPNRequest(m_helper.applicationArguments(false, {})), &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(pid)));
        pidFile.close();
        QVERIFY(pidFile.open(QIODevice::ReadOnly));
        const int second = pidFile.readAll().trimmed().toInt();
        QVERIFY(second > 1 && second != pid);

        reply = m_helper.exchange(action("stopVPN"), &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(second)));
        QVERIFY(!QFile::exists(m_helper.runDir() + "/openvpn.pid"));
    }

    void stopLeavesAProcessThatIsNotOpenVPNAlone()
    {
        QProcess bystander;
        bystander.start(HMTestEnvironment::findProgram("sleep"), {"60"});
        QVERIFY(bystander.waitForStarted());
        // A stale pid file whose number now belongs to something else.
        QFile pidFile(m_helper.runDir() + "/openvpn.pid");
        QVERIFY(pidFile.open(QIODevice::WriteOnly));
        pidFile.write(QByteArray::number(bystander.processId()) + "\n");
        pidFile.close();

        QString error;
        const auto reply = m_helper.exchange(action("stopVPN"), &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
        QVERIFY(!bystander.waitForFinished(300));
        QCOMPARE(bystander.state(), QProcess::Running);
        bystander.kill();
        bystander.waitForFinished();
    }

    void checkDNSPortOpen_data()
    {
        QTest::addColumn<int>("occupied");
        QTest::addColumn<QString>("reason");
        QTest::newRow("free") << 0 << QString();
        QTest::newRow("UDP taken") << int(SOCK_DGRAM) << "127.0.0.1:53 cannot be bound over UDP";
        QTest::newRow("TCP taken") << int(SOCK_STREAM) << "127.0.0.1:53 cannot be bound over TCP";
    }

    void checkDNSPortOpen()
    {
        QFETCH(int, occupied);
        QFETCH(QString, reason);
        int fd = -1;
        if (occupied) {
            fd = HMHelperInstance::socketInNamespace(m_helper.networkNamespace(), occupied);
            QVERIFY(fd >= 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(53);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            QCOMPARE(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
            if (occupied == SOCK_STREAM) {
                QCOMPARE(::listen(fd, 1), 0);
            }
        }
        QString error;
        const auto reply = m_helper.exchange(action("checkDNSPortOpen"), &error);
        if (fd >= 0) {
            ::close(fd);
        }
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(),
                 reason.isEmpty() ? QString("ok") : QString("error"));
        QVERIFY(reply->value("error").toString().contains(reason));
    }

    void getLogsReturnsBoundedTails()
    {
        QFile vpnLog(m_helper.logDir() + "/vpn.log");
        QVERIFY(vpnLog.open(QIODevice::WriteOnly | QIODevice::Truncate));
        for (int i = 0; i < 20000; ++i) {
            vpnLog.write(QByteArray("line ") + QByteArray::number(i) + '\n');
        }
        vpnLog.close();
        QFile::remove(m_helper.logDir() + "/dns.log");

        QString error;
        const auto reply = m_helper.exchange(action("getLogs"), &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
        const QString tail = reply->value("vpnLog").toString();
        QVERIFY(tail.size() > 1000 && tail.size() <= 128 * 1024);
        QVERIFY(tail.startsWith("line "));
        QVERIFY(tail.endsWith("line 19999\n"));
        QVERIFY(reply->value("dnsLog").isString());
        QCOMPARE(reply->value("dnsLog").toString(), QString());
        QVERIFY(reply->value("daemonLog").toString().contains("refused"));
    }

    void dnsProxyRequests()
    {
        const int before = invocations(m_helper).size();
        QCborMap daemonConfig;
        daemonConfig.insert(QStringLiteral("openVPNPath"), m_helper.applicationOpenVPNLink());
        daemonConfig.insert(QStringLiteral("dnsProxyPath"), m_helper.path("app/wisproute"));
        QCborMap params;
        params.insert(QStringLiteral("daemonConfig"), daemonConfig);
        params.insert(QStringLiteral("proxyConfig"), QCborArray::fromStringList({"-f", "nothing"}));
        QCborMap start = action("startDNSProxy");
        start.insert(QStringLiteral("params"), params);
        start.insert(QStringLiteral("daemon"), QStringLiteral("dns"));
        QString error;
        auto reply = m_helper.exchange(start, &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("error"));
        QVERIFY(reply->value("error").toString().contains("DNS proxy is not available"));

        QCborMap stop = action("stopDNSProxy");
        stop.insert(QStringLiteral("daemon"), QStringLiteral("dns"));
        reply = m_helper.exchange(stop, &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
        QCOMPARE(invocations(m_helper).size(), before);
    }

    void suicideExitsAndDeletesNothing()
    {
        const QString installed = m_helper.path("app/hmwispd");
        QVERIFY(QFile::copy(HMHelperInstance::helperProgram(), installed));
        QCborMap request = action("suicide");
        QCborMap params;
        params.insert(QStringLiteral("path"), installed);
        request.insert(QStringLiteral("params"), params);
        QString error;
        const auto reply = m_helper.exchange(request, &error);
        QVERIFY2(reply, qPrintable(error));
        QCOMPARE(reply->value("status").toString(), QString("ok"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_helper.isRunning(), 5000);
        QVERIFY(QFile::exists(installed));
        QVERIFY(QFile::exists(m_helper.path("etc/hmwispd.conf")));
    }
};

QTEST_GUILESS_MAIN(HMHelperRefusalTest)
#include "HMHelperRefusalTest.moc"
