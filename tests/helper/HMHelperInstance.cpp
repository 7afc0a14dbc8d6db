#include "HMHelperInstance.h"

#include "HMExpectedArguments.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMTestEnvironment.h"
#include "HMTestNamespace.h"
#include "HMWireCodec.h"
#include "HMWireServer.h"
#include "HMWireSocket.h"

#include <QCborArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <sys/socket.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace {

bool install(const QString &from, const QString &to, mode_t mode)
{
    QFile::remove(to);
    return QFile::copy(from, to) && ::chmod(QFile::encodeName(to).constData(), mode) == 0;
}

} // namespace

HMHelperInstance::HMHelperInstance() : m_root(QStringLiteral("/tmp/hmwispd-test-XXXXXX")) {}

HMHelperInstance::~HMHelperInstance()
{
    killTrackedOpenVPN();
    stop();
    if (m_ownNamespace) {
        HMTestNamespace::remove(m_namespace);
    }
}

QString HMHelperInstance::helperProgram()
{
    return HMTestEnvironment::buildDir() + QStringLiteral("/src/helper/hmwispd");
}

QString HMHelperInstance::dnsProxyProgram()
{
    return HMTestEnvironment::buildDir() + QStringLiteral("/src/wisproute/wisproute");
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
    m_openVPN = options.useInPlace ? options.openVPN : path(QStringLiteral("bin/openvpn"));
    const QString scripts = HMTestEnvironment::sourceDir() + QStringLiteral("/packaging/openvpn/");
    QList<std::tuple<QString, QString, mode_t>> files = {
        {scripts + QStringLiteral("client.up.tunnelblick.sh"), resourceDir(), 0755},
        {scripts + QStringLiteral("client.down.tunnelblick.sh"), resourceDir(), 0755},
        {scripts + QStringLiteral("hollowmere-dns.sh"), resourceDir(), 0644}};
    if (!options.useInPlace) {
        files.append({options.openVPN, QString(), 0755});
    }
    if (options.dnsProxy) {
        files.append({dnsProxyProgram(), path(QStringLiteral("bin")), 0755});
    }
    for (const QString &file : options.resourceFiles) {
        files.append({file, resourceDir(), 0600});
    }
    for (const auto &[from, dir, mode] : files) {
        const QString to = dir.isEmpty() ? m_openVPN : dir + '/' + QFileInfo(from).fileName();
        if (!install(from, to, mode)) {
            *error = QStringLiteral("cannot install %1").arg(from);
            return false;
        }
    }
    if (!QFile::link(path(QStringLiteral("bin/wisproute")),
                     path(QStringLiteral("app/wisproute"))) ||
        !QFile::link(m_openVPN, applicationOpenVPNLink())) {
        *error = QStringLiteral("cannot link %1").arg(applicationOpenVPNLink());
        return false;
    }
    const QByteArray config =
        QStringLiteral("# test instance\nopenvpn = %1\nwisproute = %2\nresources = %3\n"
                       "logs = %4\nrun = %5\ngroup = %6\nclient-timeout-ms = %7\n"
                       "start-timeout-ms = %8\nstop-timeout-ms = %9\nmanagement = %10\n")
            .arg(m_openVPN, path(QStringLiteral("bin/wisproute")), resourceDir(), logDir(),
                 runDir(), options.group)
            .arg(options.clientTimeoutMs)
            .arg(options.startTimeoutMs)
            .arg(options.stopTimeoutMs)
            .arg(managementDir())
            .toUtf8();
    if (!HMTestEnvironment::writeFile(path(QStringLiteral("etc/hmwispd.conf")), config)) {
        *error = QStringLiteral("cannot write the configuration");
        return false;
    }
    m_namespace = options.networkNamespace;
    if (m_namespace.isEmpty()) {
        m_namespace = HMTestNamespace::create(
            QStringLiteral("hmwispd-"), '-' + QFileInfo(m_root.path()).fileName().right(6), error);
        m_ownNamespace = !m_namespace.isEmpty();
        return m_ownNamespace;
    }
    return true;
}

bool HMHelperInstance::start(QString *error)
{
    // With no more privilege than the service unit grants (CapabilityBoundingSet,
    // NoNewPrivileges), so that a need for more shows up here rather than in the field.
    const QStringList command = {
        QStringLiteral("netns"),
        QStringLiteral("exec"),
        m_namespace,
        HMTestEnvironment::findProgram(QStringLiteral("setpriv")),
        QStringLiteral("--no-new-privs"),
        QStringLiteral("--bounding-set=-all,+net_admin,+net_bind_service,+setuid,+setgid"),
        helperProgram(),
        QStringLiteral("--config"),
        path(QStringLiteral("etc/hmwispd.conf"))};
    if (!m_process.start(HMTestEnvironment::findProgram(QStringLiteral("ip")), command)) {
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
    const int pid =
        HMTestEnvironment::readFile(runDir() + QStringLiteral("/openvpn.pid")).trimmed().toInt();
    if (!m_openVPN.isEmpty() && pid > 1 &&
        QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).canonicalFilePath() ==
            QFileInfo(m_openVPN).canonicalFilePath()) {
        ::kill(pid, SIGKILL);
    }
}

QStringList HMHelperInstance::applicationArguments(bool selectiveRouting,
                                                   const QStringList &remotes) const
{
    return HMExpectedArguments::vpnConfig(resourceDir(), selectiveRouting) + remotes;
}

QCborMap HMHelperInstance::request(const QString &action, const QCborMap &params)
{
    QCborMap request{{QStringLiteral("action"), action}};
    if (!params.isEmpty()) {
        request.insert(QStringLiteral("params"), params);
    }
    return request;
}

// A start request as the application sends it: the programs it names, and `key`'s list.
static QCborMap startRequest(const HMHelperInstance &helper, const QString &action,
                             const QString &key, const QStringList &list)
{
    const QCborMap daemonConfig{{QStringLiteral("openVPNPath"), helper.applicationOpenVPNLink()},
                                {QStringLiteral("dnsProxyPath"), helper.path("app/wisproute")}};
    return HMHelperInstance::request(action, {{QStringLiteral("daemonConfig"), daemonConfig},
                                              {key, QCborArray::fromStringList(list)}});
}

QCborMap HMHelperInstance::startVPNRequest(const QStringList &arguments) const
{
    return startRequest(*this, QStringLiteral("startVPN"), QStringLiteral("vpnConfig"), arguments);
}

QCborMap HMHelperInstance::startDNSProxyRequest(const QStringList &proxyConfig) const
{
    QCborMap message = startRequest(*this, QStringLiteral("startDNSProxy"),
                                    QStringLiteral("proxyConfig"), proxyConfig);
    message.insert(QStringLiteral("daemon"), QStringLiteral("dns"));
    return message;
}

QCborMap HMHelperInstance::call(const QCborMap &request, int timeoutMs) const
{
    const QByteArray payload = encode_dictionary(request);
    const quint64 length = static_cast<quint64>(payload.size());
    return callRaw(QByteArray(reinterpret_cast<const char *>(&length), sizeof(length)) + payload,
                   false, timeoutMs);
}

QCborMap HMHelperInstance::callRaw(const QByteArray &bytes, bool closeAfterSending,
                                   int timeoutMs) const
{
    HMWireMaybeError error;
    std::optional<QCborMap> reply;
    const int fd = unix_socket(socketPath(), &error);
    if (fd >= 0) {
        qsizetype sent = 0;
        ssize_t n = 0;
        // A refusal may come before everything is sent.
        while (sent < bytes.size() &&
               (n = ::send(fd, bytes.constData() + sent, static_cast<size_t>(bytes.size() - sent),
                           MSG_NOSIGNAL)) > 0) {
            sent += n;
        }
        if (closeAfterSending) {
            ::shutdown(fd, SHUT_WR);
        }
        const std::optional<QByteArray> frame = read_frame(fd, 1 << 24, timeoutMs, &error);
        ::close(fd);
        if (frame) {
            reply = decode_dictionary(*frame, &error);
        }
    }
    const QString why = error ? error->description : QStringLiteral("?");
    return reply.value_or(QCborMap{{QStringLiteral("status"), QString("no reply: " + why)}});
}

QString HMHelperInstance::daemonLog() const
{
    return QString::fromUtf8(HMTestEnvironment::readFile(logDir() + QStringLiteral("/daemon.log")));
}

void HMHelperInstance::setFakeOpenVPNMode(const QByteArray &mode) const
{
    HMTestEnvironment::writeFile(path(QStringLiteral("bin/mode")), mode);
}

QList<QJsonObject> HMHelperInstance::invocations() const
{
    return HMTestEnvironment::readJsonLines(path(QStringLiteral("bin/invocations.jsonl")));
}

QStringList HMHelperInstance::lastInvocationArguments() const
{
    const QList<QJsonObject> all = invocations();
    return all.isEmpty() ? QStringList()
                         : all.last().value(QStringLiteral("arguments")).toVariant().toStringList();
}

QString HMHelperInstance::managementSocket(uint uid) const
{
    return HMOpenVPNArgumentForms::managementSocketPath(managementDir(), uid);
}
