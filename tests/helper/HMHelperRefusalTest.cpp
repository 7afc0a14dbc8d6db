// The real hmwispd, run as root under socket activation, against clients that try to get
// more out of it than the application ever asks for. Every refusal must answer "error" with
// the reason, be written to daemon.log, and run nothing: the helper's trusted "OpenVPN" here
// is a recorder (hm-test-fake-openvpn) that notes each time it is started.
#include "HMDeflatedLog.h"
#include "HMHelperInstance.h"
#include "HMTestEnvironment.h"
#include "HMTestNamespace.h"
#include "HMWireConstants.h"

#include <QCborArray>
#include <QCborValue>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QtTest>

#include <functional>
#include <grp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using Exchange = std::function<QCborMap(HMHelperInstance &)>;
Q_DECLARE_METATYPE(Exchange)

namespace {

constexpr uid_t kNobody = 65534;
// A second group member: the system account "daemon".
constexpr uid_t kDaemon = 1;
// The helper's group, private to this test process: members are added and removed while
// the helper runs, and other test processes must not see that.
const QString kTestGroup = QStringLiteral("hmt%1").arg(::getpid());

// groupadd, groupdel and gpasswd, retried while another process holds the group file's lock.
bool editGroups(const QString &tool, const QStringList &arguments)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        QProcess process;
        process.start(HMTestEnvironment::findProgram(tool), arguments);
        if (process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit &&
            process.exitCode() == 0) {
            return true;
        }
        QTest::qWait(100);
    }
    return false;
}

bool setMember(const QString &user, bool member)
{
    return editGroups(QStringLiteral("gpasswd"),
                      {member ? QStringLiteral("-a") : QStringLiteral("-d"), user, kTestGroup});
}

QByteArray frame(quint64 length, const QByteArray &payload = QByteArray())
{
    return QByteArray(reinterpret_cast<const char *>(&length), sizeof(length)) + payload;
}

QByteArray framed(const QByteArray &payload)
{
    return frame(static_cast<quint64>(payload.size()), payload);
}

QString status(const QCborMap &reply)
{
    return reply.value(QStringLiteral("status")).toString();
}

QString errorText(const QCborMap &reply)
{
    return reply.value(QStringLiteral("error")).toString();
}

// One request from a process running as uid (its own group, plus `groups`, none when
// empty). The process starts first and connects only once `beforeConnecting` has run, so a
// change to the group database lands after its credentials were fixed.
QCborMap callAs(HMHelperInstance &helper, uid_t uid, const QCborMap &request,
                const QString &groups = QString(),
                const std::function<void()> &beforeConnecting = {})
{
    QProcess probe;
    probe.start(
        HMTestEnvironment::findProgram(QStringLiteral("setpriv")),
        {QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
         groups.isEmpty() ? QStringLiteral("--clear-groups") : QStringLiteral("--groups=") + groups,
         QStringLiteral("/bin/sh"), QStringLiteral("-c"),
         QStringLiteral("read go && exec \"$0\" \"$@\""), helper.path(QStringLiteral("bin/probe")),
         helper.socketPath(),
         QString::fromUtf8(QJsonDocument(request.toJsonObject()).toJson(QJsonDocument::Compact))});
    probe.waitForStarted();
    if (beforeConnecting) {
        beforeConnecting();
    }
    probe.write("go\n");
    probe.closeWriteChannel();
    probe.waitForFinished(20000);
    const QByteArray output = probe.readAllStandardOutput().trimmed();
    const QJsonDocument reply = QJsonDocument::fromJson(output);
    return reply.isObject()
               ? QCborMap::fromJsonObject(reply.object())
               : QCborMap{{QStringLiteral("status"),
                           QString("no reply: " + output + probe.readAllStandardError())}};
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
    bool m_groupAdded = false;

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
        return withArguments([&file](QStringList &l) {
            l = l.mid(0, 7) + QStringList{"--config", file} + l.mid(l.size() - 4);
        });
    }

    // The application's start request with one entry of its parameters changed.
    QCborMap withParam(const QString &key, const std::function<QCborValue(QCborValue)> &change)
    {
        QCborMap request = withArguments([](QStringList &) {});
        QCborMap params = request.value(QStringLiteral("params")).toMap();
        params.insert(key, change(params.value(key)));
        request.insert(QStringLiteral("params"), params);
        return request;
    }

    QCborMap withOpenVPNPath(const QString &path)
    {
        return withParam("daemonConfig", [&path](QCborValue config) {
            QCborMap map = config.toMap();
            map.insert(QStringLiteral("openVPNPath"), path);
            return QCborValue(map);
        });
    }

    static Exchange send(const QCborMap &request)
    {
        return [request](HMHelperInstance &helper) { return helper.call(request); };
    }

    static Exchange sendRaw(const QByteArray &bytes, bool closeAfterSending = false)
    {
        return [bytes, closeAfterSending](HMHelperInstance &helper) {
            return helper.callRaw(bytes, closeAfterSending);
        };
    }

    void writeUserFile(const QString &name, const QByteArray &content, uid_t owner)
    {
        QVERIFY(HMTestEnvironment::writeFile(userFile(name), content));
        QCOMPARE(::chown(QFile::encodeName(userFile(name)).constData(), owner, owner), 0);
    }

    QStringList runDirEntries() const
    {
        return QDir(m_helper.runDir()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries);
    }

    int openVPNPid() const
    {
        return HMTestEnvironment::readFile(m_helper.runDir() + "/openvpn.pid").trimmed().toInt();
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
        QVERIFY2(editGroups(QStringLiteral("groupadd"), {kTestGroup}), "cannot add a group");
        m_groupAdded = true;
        HMHelperInstance::Options options;
        options.openVPN = HMHelperInstance::testProgram(QStringLiteral("hm-test-fake-openvpn"));
        options.group = kTestGroup;
        options.startTimeoutMs = 5000;
        QString error;
        QVERIFY2(m_helper.prepare(options, &error), qPrintable(error));
        m_helper.setFakeOpenVPNMode("exit");

        m_userDir = m_helper.path(QStringLiteral("user"));
        QVERIFY(QDir().mkpath(m_userDir));
        QCOMPARE(::chmod(QFile::encodeName(m_userDir).constData(), 0755), 0);
        writeUserFile("nobodys.conf", "client\n", kNobody);
        writeUserFile("plugin.conf", "client\nplugin /tmp/evil.so\n", 0);
        QVERIFY(QFile::copy(m_helper.openVPNPath(), userFile("openvpn-copy")));
        // The build tree may lie where other users cannot reach (under /root, say).
        QVERIFY(QFile::copy(HMHelperInstance::testProgram("hm-test-helper-probe"),
                            m_helper.path("bin/probe")));
        QCOMPARE(::chmod(QFile::encodeName(m_helper.path("bin/probe")).constData(), 0755), 0);
        m_ready = true;
    }

    void cleanupTestCase()
    {
        if (m_groupAdded) {
            editGroups(QStringLiteral("groupdel"), {kTestGroup});
        }
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

        QTest::newRow("daemonConfig naming another executable")
            << send(withOpenVPNPath("/bin/sh"))
            << "daemonConfig names '/bin/sh', which is not the helper's OpenVPN";
        QTest::newRow("daemonConfig naming a copy of OpenVPN")
            << send(withOpenVPNPath(userFile("openvpn-copy")))
            << "which is not the helper's OpenVPN";
        // Which argument lists and file contents are refused is for the parsers' own suites;
        // one row of each shows the helper applies them to what its clients send.
        QTest::newRow("--plugin") << send(withArguments([](QStringList &l) {
            l << "--plugin"
              << "/tmp/evil.so"
              << "a"
              << "b";
        })) << "option '--plugin' is not allowed";
        QTest::newRow("--config of another user's file")
            << send(withConfigFile(userFile("nobodys.conf"))) << "is owned by another user";
        QTest::newRow("--config with plugin") << send(withConfigFile(userFile("plugin.conf")))
                                              << "line 2: directive 'plugin' is not allowed";
        QCborMap extraKey = withArguments([](QStringList &) {});
        extraKey.insert(QStringLiteral("exec"), QStringLiteral("/bin/sh"));
        QTest::newRow("startVPN with an extra key")
            << send(extraKey) << "request has the unexpected key 'exec'";
        QTest::newRow("vpnConfig holding a number")
            << send(withParam("vpnConfig",
                              [](QCborValue v) {
                                  QCborArray list = v.toArray();
                                  list.append(1194);
                                  return QCborValue(list);
                              }))
            << "vpnConfig must be a list of texts";
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
        QTest::newRow("malformed CBOR")
            << sendRaw(framed(QByteArray::fromHex("a166") + "action\xff\xff"))
            << "payload is not valid CBOR";
        QTest::newRow("deeply nested CBOR")
            << sendRaw(framed(QByteArray::fromHex("a166") + "action" + QByteArray(200, '\x81') +
                              QByteArray::fromHex("80")))
            << "payload nests deeper than 4 levels";
        QTest::newRow("payload not a dictionary")
            << sendRaw(framed(QCborValue(QCborArray{QStringLiteral("stopVPN")}).toCbor()))
            << "payload is not a dictionary";
        QTest::newRow("action not a text")
            << send(QCborMap{{QStringLiteral("action"), 5}}) << "request has no text 'action'";
        QTest::newRow("unknown action") << send(HMHelperInstance::request("removeEverything"))
                                        << "unknown action 'removeEverything'";
        QCborMap otherDaemon = HMHelperInstance::request("stopDNSProxy");
        otherDaemon.insert(QStringLiteral("daemon"), QStringLiteral("vpn"));
        QTest::newRow("stopDNSProxy for another daemon")
            << send(otherDaemon) << "'daemon' must be \"dns\"";
    }

    void refused()
    {
        QFETCH(Exchange, exchange);
        QFETCH(QString, reason);
        const qsizetype startedBefore = m_helper.invocations().size();
        const qsizetype logBefore = m_helper.daemonLog().size();
        const QStringList runBefore = runDirEntries();

        const QCborMap reply = exchange(m_helper);
        QCOMPARE(status(reply), QString("error"));
        QVERIFY2(errorText(reply).contains(reason), qPrintable(errorText(reply)));

        QCOMPARE(m_helper.invocations().size(), startedBefore);
        QVERIFY(!QFile::exists(m_helper.runDir() + "/openvpn.pid"));
        QCOMPARE(runDirEntries(), runBefore);
        const QString logged = m_helper.daemonLog().mid(logBefore);
        QVERIFY2(logged.contains("refused") && logged.contains(reason), qPrintable(logged));
        QVERIFY(m_helper.isRunning());
    }

    void membershipIsReadFromTheGroupDatabase_data()
    {
        QTest::addColumn<bool>("listed");
        QTest::addColumn<bool>("carried");
        QTest::addColumn<QString>("reason");
        const QString refusal = "only root and members of the group '" + kTestGroup + "'";
        QTest::newRow("neither listed nor carried") << false << false << refusal;
        QTest::newRow("carried by the process, no longer listed") << false << true << refusal;
        QTest::newRow("listed after the process started") << true << false << QString();
    }

    void membershipIsReadFromTheGroupDatabase()
    {
        QFETCH(bool, listed);
        QFETCH(bool, carried);
        QFETCH(QString, reason);
        const QString gid = QString::number(::getgrnam(qPrintable(kTestGroup))->gr_gid);
        bool changed = true;
        const QCborMap reply = callAs(
            m_helper, kNobody, HMHelperInstance::request("checkDNSPortOpen"),
            carried ? gid : QString(), [&] { changed = !listed || setMember("nobody", true); });
        if (listed) {
            setMember(QStringLiteral("nobody"), false);
        }
        QVERIFY(changed);
        QVERIFY2(errorText(reply).contains(reason), qPrintable(errorText(reply)));
        QCOMPARE(status(reply), reason.isEmpty() ? QString("ok") : QString("error"));
        if (!reason.isEmpty()) {
            QVERIFY(m_helper.daemonLog().contains("refused request from uid 65534"));
        }
    }

    // A tunnel started by one member is stopped, read, steered or replaced by nobody else but
    // root; once it is gone, any member may start one.
    void tunnelBelongsToTheUserWhoStartedIt()
    {
        QVERIFY(setMember(QStringLiteral("nobody"), true));
        QVERIFY(setMember(QStringLiteral("daemon"), true));
        const auto cleanup = qScopeGuard([] {
            setMember(QStringLiteral("nobody"), false);
            setMember(QStringLiteral("daemon"), false);
        });
        const auto as = [this](uid_t uid, const QCborMap &request) {
            return status(callAs(m_helper, uid, request));
        };
        m_helper.setFakeOpenVPNMode("serve");
        const QCborMap start = m_helper.startVPNRequest(m_helper.applicationArguments(false, {}));
        const QCborMap stop = HMHelperInstance::request("stopVPN");
        QCOMPARE(as(kNobody, start), QString("ok"));
        const int pid = openVPNPid();
        QVERIFY(pid > 1);

        QCborMap stopProxy = HMHelperInstance::request("stopDNSProxy");
        stopProxy.insert(QStringLiteral("daemon"), QStringLiteral("dns"));
        QList<QCborMap> foreign = {start, stop, stopProxy, m_helper.startDNSProxyRequest({})};
        foreign << HMHelperInstance::request("getLogs") << HMHelperInstance::request("suicide");
        for (const QCborMap &request : foreign) {
            const QString action = request.value(QStringLiteral("action")).toString();
            const QCborMap reply = callAs(m_helper, kDaemon, request);
            QCOMPARE(status(reply), QString("error"));
            QVERIFY2(errorText(reply).contains("the running tunnel belongs to uid 65534; only "
                                               "that user or root may use " +
                                               action),
                     qPrintable(action + ": " + errorText(reply)));
            QVERIFY(m_helper.daemonLog().contains("refused " + action + " from uid 1 "));
            QCOMPARE(openVPNPid(), pid);
            QVERIFY(m_helper.isRunning());
        }
        QCOMPARE(as(kNobody, HMHelperInstance::request("getLogs")), QString("ok"));
        QCOMPARE(status(m_helper.call(stop)), QString("ok"));
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(pid)));

        QCOMPARE(as(kDaemon, start), QString("ok"));
        QCOMPARE(as(kDaemon, stop), QString("ok"));
    }

    void acceptedRequestRunsOnlyTheTrustedOpenVPN()
    {
        m_helper.setFakeOpenVPNMode("exit");
        const qsizetype before = m_helper.invocations().size();
        const QStringList requested = m_helper.applicationArguments(
            true, {"--remote", "vpn.example", "1194", "udp", "--remote", "10.1.2.3", "443", "tcp"});
        const QCborMap reply = m_helper.call(m_helper.startVPNRequest(requested));
        QCOMPARE(status(reply), QString("error"));
        QVERIFY2(errorText(reply).startsWith(
                     "OpenVPN exited with status 3 before its management port opened"),
                 qPrintable(errorText(reply)));

        const QList<QJsonObject> all = m_helper.invocations();
        QCOMPARE(all.size(), before + 1);
        // What the list becomes is the argument suite's; here, that it is what runs, with an
        // empty environment and this instance's own paths.
        const QStringList ran = m_helper.lastInvocationArguments();
        QCOMPARE(all.last().value("environment").toArray().size(), 0);
        QCOMPARE(ran.mid(0, 5), QStringList({"--cd", m_helper.resourceDir(), "--management",
                                             m_helper.managementSocket(0), "unix"}));
        const QStringList own = {
            "--cd",     m_helper.resourceDir(), "--log",           m_helper.logDir() + "/vpn.log",
            "--setenv", "HM_STATE_DIR",         m_helper.runDir(), "--management-client-user",
            "root"};
        QCOMPARE(ran.mid(ran.size() - own.size()), own);
        QCOMPARE(ran.mid(ran.size() - own.size() - 8, 8), requested.mid(requested.size() - 8));
        QVERIFY(!QFile::exists(m_helper.runDir() + "/openvpn.pid"));
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
        m_helper.setFakeOpenVPNMode(mode);
        const QCborMap start = m_helper.startVPNRequest(m_helper.applicationArguments(false, {}));
        QCOMPARE(status(m_helper.call(start)), QString("ok"));
        const int pid = openVPNPid();
        QVERIFY(pid > 1);
        QCOMPARE(QFileInfo(QString("/proc/%1/exe").arg(pid)).canonicalFilePath(),
                 m_helper.openVPNPath());

        // Starting again first ends the one that runs.
        QCOMPARE(status(m_helper.call(start)), QString("ok"));
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(pid)));
        const int second = openVPNPid();
        QVERIFY(second > 1 && second != pid);

        QCOMPARE(status(m_helper.call(HMHelperInstance::request("stopVPN"))), QString("ok"));
        QVERIFY(!QFile::exists(QString("/proc/%1").arg(second)));
        QVERIFY(!QFile::exists(m_helper.runDir() + "/openvpn.pid"));
    }

    void stopLeavesAProcessThatIsNotOpenVPNAlone()
    {
        QProcess bystander;
        bystander.start(HMTestEnvironment::findProgram("sleep"), {"60"});
        QVERIFY(bystander.waitForStarted());
        // A stale pid file whose number now belongs to something else.
        QVERIFY(HMTestEnvironment::writeFile(m_helper.runDir() + "/openvpn.pid",
                                             QByteArray::number(bystander.processId()) + "\n"));
        QCOMPARE(status(m_helper.call(HMHelperInstance::request("stopVPN"))), QString("ok"));
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
            fd = HMTestNamespace::socketIn(m_helper.networkNamespace(), occupied);
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
        const QCborMap reply = m_helper.call(HMHelperInstance::request("checkDNSPortOpen"));
        if (fd >= 0) {
            ::close(fd);
        }
        QCOMPARE(status(reply), reason.isEmpty() ? QString("ok") : QString("error"));
        QVERIFY(errorText(reply).contains(reason));
    }

    // Each log's last 128 KiB from a whole line, decoded leniently as it is read in slices
    // (characters split across slices survive, stray bytes become U+FFFD), compressed.
    void getLogsReturnsBoundedTails()
    {
        QByteArray lines;
        for (int i = 0; i < 20000; ++i) {
            lines += "line " + QByteArray::number(i) +
                     (i % 5 ? " \u20ac\u20ac\u20ac\u20ac\u20ac\U0001F600\U0001F600\U0001F600\n"
                            : " \xff\n");
        }
        QVERIFY(HMTestEnvironment::writeFile(m_helper.logDir() + "/vpn.log", lines));
        QFile::remove(m_helper.logDir() + "/dns.log");

        const QCborMap reply = m_helper.call(HMHelperInstance::request("getLogs"));
        QCOMPARE(status(reply), QString("ok"));
        const auto text = [&reply](const char *key) {
            QString error;
            const auto log =
                HMDeflatedLog::fromWire(reply.value(QLatin1String(key)).toVariant(), &error);
            return log ? log->inflated() : QByteArray("damaged: ") + error.toUtf8();
        };
        QByteArray tail = lines.right(128 * 1024);
        tail = tail.mid(tail.indexOf('\n') + 1);
        QCOMPARE(text("vpnLog"), QString::fromUtf8(tail).toUtf8());
        QCOMPARE(text("dnsLog"), QByteArray());
        QVERIFY(text("daemonLog").contains("refused"));
    }

    void suicideExitsAndDeletesNothing()
    {
        const QString installed = m_helper.path("app/hmwispd");
        QVERIFY(QFile::copy(HMHelperInstance::helperProgram(), installed));
        const QCborMap reply = m_helper.call(
            HMHelperInstance::request("suicide", {{QStringLiteral("path"), installed}}));
        QCOMPARE(status(reply), QString("ok"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_helper.isRunning(), 5000);
        QVERIFY(QFile::exists(installed));
        QVERIFY(QFile::exists(m_helper.path("etc/hmwispd.conf")));
    }
};

QTEST_GUILESS_MAIN(HMHelperRefusalTest)
#include "HMHelperRefusalTest.moc"
