#include "HMHelperInstance.h"

#include "HMTestEnvironment.h"
#include "HMWireCodec.h"
#include "HMWireServer.h"
#include "HMWireSocket.h"

#include <QCborArray>
#include <QCborValue>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

bool writeFile(const QString &path, const QByteArray &content, mode_t mode)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(content) != content.size()) {
        return false;
    }
    file.close();
    return ::chmod(QFile::encodeName(path).constData(), mode) == 0;
}

bool copyFile(const QString &from, const QString &to, mode_t mode)
{
    QFile::remove(to);
    return QFile::copy(from, to) && ::chmod(QFile::encodeName(to).constData(), mode) == 0;
}

int run(const QString &program, const QStringList &arguments)
{
    return QProcess::execute(HMTestEnvironment::findProgram(program), arguments);
}

} // namespace

HMHelperInstance::HMHelperInstance() : m_root(QStringLiteral("/tmp/hmwispd-test-XXXXXX")) {}

HMHelperInstance::~HMHelperInstance()
{
    killTrackedOpenVPN();
    stop();
    if (m_ownNamespace) {
        removeNamespace(m_namespace);
    }
}

void HMHelperInstance::removeNamespace(const QString &name)
{
    // Whatever still runs in the namespace (a stray OpenVPN, an up script) ends with it.
    QProcess pids;
    pids.start(HMTestEnvironment::findProgram(QStringLiteral("ip")),
               {QStringLiteral("netns"), QStringLiteral("pids"), name});
    pids.waitForFinished(5000);
    for (const QByteArray &pid : pids.readAllStandardOutput().split('\n')) {
        if (pid.toInt() > 1) {
            ::kill(pid.toInt(), SIGKILL);
        }
    }
    run(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("del"), name});
    QDir(QStringLiteral("/etc/netns/") + name).removeRecursively();
}

void HMHelperInstance::removeStaleNamespaces(const QString &prefix)
{
    QProcess list;
    list.start(HMTestEnvironment::findProgram(QStringLiteral("ip")),
               {QStringLiteral("netns"), QStringLiteral("list")});
    list.waitForFinished(5000);
    const QRegularExpression ours(
        QStringLiteral("^%1(\\d+)(-\\S*)?$").arg(QRegularExpression::escape(prefix)));
    for (const QByteArray &line : list.readAllStandardOutput().split('\n')) {
        const QString name = QString::fromUtf8(line).section(QLatin1Char(' '), 0, 0);
        const QRegularExpressionMatch match = ours.match(name);
        if (match.hasMatch() && ::kill(match.captured(1).toInt(), 0) != 0 && errno == ESRCH) {
            removeNamespace(name);
        }
    }
}

QString HMHelperInstance::helperProgram()
{
    return HMTestEnvironment::buildDir() + QStringLiteral("/src/helper/hmwispd");
}

QString HMHelperInstance::testProgram(const QString &name)
{
    return HMTestEnvironment::buildDir() + QStringLiteral("/tests/helper/") + name;
}

bool HMHelperInstance::prepare(const Options &options, QString *error)
{
    if (!m_root.isValid()) {
        *error = QStringLiteral("no temporary directory");
        return false;
    }
    ::chmod(QFile::encodeName(m_root.path()).constData(), 0755);
    for (const char *dir : {"etc", "bin", "share", "log", "run", "app"}) {
        QDir().mkpath(path(QLatin1String(dir)));
    }
    if (options.useInPlace) {
        m_openVPN = options.openVPN;
    } else {
        m_openVPN = path(QStringLiteral("bin/openvpn"));
        if (!copyFile(options.openVPN, m_openVPN, 0755)) {
            *error = QStringLiteral("cannot install %1").arg(options.openVPN);
            return false;
        }
    }
    if (!QFile::link(m_openVPN, applicationOpenVPNLink())) {
        *error = QStringLiteral("cannot link %1").arg(applicationOpenVPNLink());
        return false;
    }
    const QString scripts = HMTestEnvironment::sourceDir() + QStringLiteral("/packaging/openvpn/");
    for (const char *script : {"client.up.tunnelblick.sh", "client.down.tunnelblick.sh"}) {
        if (!copyFile(scripts + QLatin1String(script),
                      resourceDir() + QLatin1Char('/') + QLatin1String(script), 0755)) {
            *error = QStringLiteral("cannot install %1").arg(QLatin1String(script));
            return false;
        }
    }
    if (!copyFile(scripts + QStringLiteral("hollowmere-dns.sh"),
                  resourceDir() + QStringLiteral("/hollowmere-dns.sh"), 0644)) {
        *error = QStringLiteral("cannot install hollowmere-dns.sh");
        return false;
    }
    for (const QString &file : options.resourceFiles) {
        if (!copyFile(file, resourceDir() + QLatin1Char('/') + QFileInfo(file).fileName(), 0600)) {
            *error = QStringLiteral("cannot install %1").arg(file);
            return false;
        }
    }
    const QByteArray config = QStringLiteral("# test instance\n"
                                             "openvpn = %1\n"
                                             "wisproute = %2\n"
                                             "resources = %3\n"
                                             "logs = %4\n"
                                             "run = %5\n"
                                             "group = %6\n"
                                             "client-timeout-ms = %7\n"
                                             "start-timeout-ms = %8\n"
                                             "stop-timeout-ms = %9\n")
                                  .arg(m_openVPN, path(QStringLiteral("bin/wisproute")),
                                       resourceDir(), logDir(), runDir(), options.group)
                                  .arg(options.clientTimeoutMs)
                                  .arg(options.startTimeoutMs)
                                  .arg(options.stopTimeoutMs)
                                  .toUtf8();
    if (!writeFile(path(QStringLiteral("etc/hmwispd.conf")), config, 0644)) {
        *error = QStringLiteral("cannot write the configuration");
        return false;
    }

    m_namespace = options.networkNamespace;
    if (m_namespace.isEmpty()) {
        removeStaleNamespaces(QStringLiteral("hmwispd-"));
        m_namespace = QStringLiteral("hmwispd-%1-%2")
                          .arg(::getpid())
                          .arg(QFileInfo(m_root.path()).fileName().right(6));
        if (run(QStringLiteral("ip"),
                {QStringLiteral("netns"), QStringLiteral("add"), m_namespace}) != 0) {
            *error = QStringLiteral("cannot create the network namespace %1").arg(m_namespace);
            return false;
        }
        m_ownNamespace = true;
        run(QStringLiteral("ip"),
            {QStringLiteral("-n"), m_namespace, QStringLiteral("link"), QStringLiteral("set"),
             QStringLiteral("lo"), QStringLiteral("up")});
    }
    return true;
}

bool HMHelperInstance::start(QString *error)
{
    const QString ip = HMTestEnvironment::findProgram(QStringLiteral("ip"));
    // With no more privilege than the service unit grants (CapabilityBoundingSet,
    // NoNewPrivileges), so that a need for more shows up here rather than in the field.
    const QStringList unitLimits = {
        HMTestEnvironment::findProgram(QStringLiteral("setpriv")), QStringLiteral("--no-new-privs"),
        QStringLiteral("--bounding-set=-all,+net_admin,+net_bind_service,+setuid,+setgid")};
    if (!m_process.start(ip,
                         QStringList{QStringLiteral("netns"), QStringLiteral("exec"), m_namespace} +
                             unitLimits +
                             QStringList{helperProgram(), QStringLiteral("--config"),
                                         path(QStringLiteral("etc/hmwispd.conf"))})) {
        *error = m_process.errorString();
        return false;
    }
    // Others may reach the socket; whether they are served is the helper's decision.
    ::chmod(QFile::encodeName(m_process.workPath()).constData(), 0711);
    ::chmod(QFile::encodeName(socketPath()).constData(), 0666);
    return true;
}

void HMHelperInstance::stop()
{
    m_process.stop();
}

bool HMHelperInstance::isRunning() const
{
    return m_process.isRunning();
}

void HMHelperInstance::killTrackedOpenVPN() const
{
    QFile pidFile(runDir() + QStringLiteral("/openvpn.pid"));
    if (m_openVPN.isEmpty() || !pidFile.open(QIODevice::ReadOnly)) {
        return;
    }
    const int pid = pidFile.readAll().trimmed().toInt();
    if (pid > 1 && QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).canonicalFilePath() ==
                       QFileInfo(m_openVPN).canonicalFilePath()) {
        ::kill(pid, SIGKILL);
    }
}

QStringList HMHelperInstance::applicationArguments(bool selectiveRouting,
                                                   const QStringList &remotes) const
{
    QStringList list = {"--cd",
                        resourceDir(),
                        "--management",
                        "127.0.0.1",
                        "5678",
                        "--management-hold",
                        "--management-query-passwords",
                        "--auth-user-pass",
                        "--ca",
                        "ca.crt",
                        "--cert",
                        "key.crt",
                        "--key",
                        "key.key",
                        "--client",
                        "--comp-lzo",
                        "--daemon",
                        "--dev",
                        "tun0",
                        "--log",
                        "/var/log/hmwispd/vpn.log",
                        "--nobind",
                        "--ns-cert-type",
                        "server",
                        "--persist-key",
                        "--persist-tun",
                        "--ping",
                        "10",
                        "--ping-restart",
                        "30"};
    if (selectiveRouting) {
        list << "--dhcp-option"
             << "DNS"
             << "127.0.0.1";
    } else {
        list << "--dhcp-option"
             << "DNS"
             << "8.8.8.8"
             << "--dhcp-option"
             << "DNS"
             << "8.8.4.4"
             << "--redirect-gateway"
             << "def1";
    }
    list << "--up"
         << "client.up.tunnelblick.sh -m -w -d -aradsgnwADSGNW"
         << "--down"
         << "client.down.tunnelblick.sh -m -w -d -aradsgnwADSGNW"
         << "--up-restart"
         << "--hand-window"
         << "20"
         << "--resolv-retry"
         << "infinite"
         << "--script-security"
         << "3"
         << "system"
         << "--verb"
         << "3";
    return list + remotes;
}

QCborMap HMHelperInstance::startVPNRequest(const QStringList &arguments) const
{
    QCborMap daemonConfig;
    daemonConfig.insert(QStringLiteral("openVPNPath"), applicationOpenVPNLink());
    daemonConfig.insert(QStringLiteral("dnsProxyPath"), path(QStringLiteral("app/wisproute")));
    QCborMap params;
    params.insert(QStringLiteral("daemonConfig"), daemonConfig);
    params.insert(QStringLiteral("vpnConfig"), QCborArray::fromStringList(arguments));
    QCborMap request;
    request.insert(QStringLiteral("action"), QStringLiteral("startVPN"));
    request.insert(QStringLiteral("params"), params);
    return request;
}

std::optional<QCborMap> HMHelperInstance::exchange(const QCborMap &request, QString *error,
                                                   int timeoutMs) const
{
    const QByteArray payload = encode_dictionary(request);
    const quint64 length = static_cast<quint64>(payload.size());
    QByteArray frame(reinterpret_cast<const char *>(&length), sizeof(length));
    return exchangeRaw(frame + payload, false, error, timeoutMs);
}

std::optional<QCborMap> HMHelperInstance::exchangeRaw(const QByteArray &bytes,
                                                      bool closeAfterSending, QString *error,
                                                      int timeoutMs) const
{
    HMWireMaybeError wireError;
    const int fd = unix_socket(socketPath(), &wireError);
    if (fd < 0) {
        *error = wireError->description;
        return std::nullopt;
    }
    qsizetype sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.constData() + sent,
                                 static_cast<size_t>(bytes.size() - sent), MSG_NOSIGNAL);
        if (n <= 0) {
            break; // a refusal may come before everything is sent
        }
        sent += n;
    }
    if (closeAfterSending) {
        ::shutdown(fd, SHUT_WR);
    }
    const std::optional<QByteArray> reply = read_frame(fd, 1 << 24, timeoutMs, &wireError);
    ::close(fd);
    std::optional<QCborMap> map;
    if (reply) {
        map = decode_dictionary(*reply, &wireError);
    }
    if (!map) {
        *error = wireError ? wireError->description : QStringLiteral("no reply");
    }
    return map;
}

QString HMHelperInstance::daemonLog() const
{
    QFile file(logDir() + QStringLiteral("/daemon.log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

int HMHelperInstance::socketInNamespace(const QString &name, int type)
{
    int result = -1;
    std::thread worker([&] {
        const int ns =
            ::open(QFile::encodeName(QStringLiteral("/var/run/netns/") + name).constData(),
                   O_RDONLY | O_CLOEXEC);
        if (ns < 0) {
            return;
        }
        if (::setns(ns, CLONE_NEWNET) == 0) {
            result = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
        }
        ::close(ns);
    });
    worker.join();
    return result;
}
