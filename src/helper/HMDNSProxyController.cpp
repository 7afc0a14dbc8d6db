#include "HMDNSProxyController.h"

#include "HMDomainFileChecker.h"
#include "HMHelperLog.h"
#include "HMLogTail.h"
#include "HMNetlinkRoutes.h"
#include "HMOpenVPNController.h"
#include "HMPathTrust.h"
#include "HMPeerCredentials.h"
#include "HMPeerFileReader.h"

#include <QFile>
#include <QRegularExpression>
#include <QSaveFile>

#include <arpa/inet.h>
#include <ctime>
#include <sys/wait.h>

namespace {

constexpr int kListenTimeoutMs = 5000;

int64_t nowMs()
{
    struct timespec ts
    {
    };
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The last capture of `pattern` in OpenVPN's log.
QString lastInLog(const QString &log, const QRegularExpression &pattern)
{
    QString found;
    QRegularExpressionMatchIterator it = pattern.globalMatch(log);
    while (it.hasNext()) {
        found = it.next().captured(1);
    }
    return found;
}

} // namespace

const QString HMDNSProxyController::kApplicationLogPath =
    QStringLiteral("/var/log/hmwispd/dns.log");

HMDNSProxyController::HMDNSProxyController(const HMHelperConfig &config, HMHelperLog &log)
    : m_config(config), m_log(log),
      m_process(config.dnsProxyPath, config.runDir + QStringLiteral("/wisproute.pid"))
{}

QString HMDNSProxyController::checkedFilePath() const
{
    return m_config.runDir + QStringLiteral("/domains.checked");
}

QString HMDNSProxyController::originalResolversPath() const
{
    // Written by the tunnel's up script (hollowmere-dns.sh) before it points the system at
    // the proxy.
    return m_config.runDir + QStringLiteral("/resolvers.original");
}

std::optional<HMDNSProxyController::Request>
HMDNSProxyController::checkArguments(const QStringList &arguments, QString *error) const
{
    // -f F -s R -log L -server IP -tap T [-wisproute M] [-debug V]
    const QStringList flags = {QStringLiteral("-f"), QStringLiteral("-s"), QStringLiteral("-log"),
                               QStringLiteral("-server"), QStringLiteral("-tap")};
    if (arguments.size() < 10 || arguments.size() % 2 != 0 || arguments.size() > 14) {
        *error = QStringLiteral("proxyConfig has %1 entries; the application sends 10 to 14")
                     .arg(arguments.size());
        return std::nullopt;
    }
    for (int i = 0; i < flags.size(); ++i) {
        if (arguments.at(2 * i) != flags.at(i)) {
            *error = QStringLiteral("proxyConfig entry %1 must be %2").arg(2 * i).arg(flags.at(i));
            return std::nullopt;
        }
    }
    Request request;
    const QString file = arguments.at(1);
    if (file != QLatin1String("nothing")) {
        if (!file.startsWith(QLatin1Char('/'))) {
            *error = QStringLiteral("the domain file must be an absolute path");
            return std::nullopt;
        }
        request.domainFile = file;
    }
    if (!HMPathTrust::sameFile(arguments.at(3), m_config.resourceDir)) {
        *error = QStringLiteral("-s names '%1', which is not the helper's resource directory")
                     .arg(arguments.at(3).left(256));
        return std::nullopt;
    }
    if (arguments.at(5) != kApplicationLogPath) {
        *error = QStringLiteral("the DNS proxy's log must be %1").arg(kApplicationLogPath);
        return std::nullopt;
    }
    struct in_addr server
    {
    };
    char canonical[INET_ADDRSTRLEN] = {};
    if (::inet_pton(AF_INET, arguments.at(7).toLatin1().constData(), &server) != 1 ||
        !::inet_ntop(AF_INET, &server, canonical, sizeof(canonical)) ||
        QLatin1String(canonical) != arguments.at(7)) {
        *error = QStringLiteral("-server must be an IPv4 address");
        return std::nullopt;
    }
    request.server = arguments.at(7);
    static const QRegularExpression deviceName(QStringLiteral("^[A-Za-z0-9_.-]{1,15}$"));
    if (!deviceName.match(arguments.at(9)).hasMatch()) {
        *error = QStringLiteral("-tap must be a network device name");
        return std::nullopt;
    }
    request.tap = arguments.at(9);
    int next = 10;
    if (next < arguments.size() && arguments.at(next) == QLatin1String("-wisproute")) {
        request.mode = arguments.at(next + 1);
        if (request.mode != QLatin1String("wisproute") &&
            request.mode != QLatin1String("wisprouteEx")) {
            *error = QStringLiteral("-wisproute must be wisproute or wisprouteEx");
            return std::nullopt;
        }
        next += 2;
    }
    if (request.mode.isEmpty() != request.domainFile.isEmpty()) {
        *error = QStringLiteral("-wisproute goes with a domain file, and \"nothing\" without one");
        return std::nullopt;
    }
    if (next < arguments.size() && arguments.at(next) == QLatin1String("-debug")) {
        static const QRegularExpression level(QStringLiteral("^[A-Za-z0-9]{1,16}$"));
        request.debug = arguments.at(next + 1);
        if (!level.match(request.debug).hasMatch()) {
            *error = QStringLiteral("-debug takes a short word or number");
            return std::nullopt;
        }
        next += 2;
    }
    if (next != arguments.size()) {
        *error = QStringLiteral("proxyConfig has the unexpected entry '%1'")
                     .arg(arguments.at(next).left(64));
        return std::nullopt;
    }
    return request;
}

QString HMDNSProxyController::checkTunnel(const Request &request) const
{
    const HMTrackedProcess openVPN(m_config.openVPNPath, m_config.openVPNPidPath());
    if (openVPN.running() == 0) {
        return QStringLiteral("no tunnel is up, so there is nothing to steer into");
    }
    const QString log = HMLogTail::read(m_config.vpnLogPath());
    static const QRegularExpression opened(QStringLiteral("TUN/TAP device (\\S+) opened"));
    static const QRegularExpression peer(
        QStringLiteral("Peer Connection Initiated with \\[AF_INET\\]([0-9.]+):\\d+"));
    const QString device = lastInLog(log, opened);
    if (device != request.tap) {
        return QStringLiteral("-tap %1 is not the tunnel OpenVPN opened (%2)")
            .arg(request.tap, device.isEmpty() ? QStringLiteral("none yet") : device);
    }
    const QString connected = lastInLog(log, peer);
    if (connected != request.server) {
        return QStringLiteral("-server %1 is not the server OpenVPN is connected to (%2)")
            .arg(request.server, connected.isEmpty() ? QStringLiteral("none yet") : connected);
    }
    return QString();
}

QStringList HMDNSProxyController::proxyArguments(const Request &request,
                                                 const QString &checkedFile) const
{
    QStringList arguments = {QStringLiteral("-f"),
                             request.domainFile.isEmpty() ? QStringLiteral("nothing") : checkedFile,
                             QStringLiteral("-s"),
                             m_config.resourceDir,
                             QStringLiteral("-log"),
                             m_config.dnsLogPath(),
                             QStringLiteral("-server"),
                             request.server,
                             QStringLiteral("-tap"),
                             request.tap};
    if (!request.mode.isEmpty()) {
        arguments << QStringLiteral("-wisproute") << request.mode;
    }
    if (!request.debug.isEmpty()) {
        arguments << QStringLiteral("-debug") << request.debug;
    }
    arguments << QStringLiteral("-originals") << originalResolversPath()
              << QStringLiteral("-tunnel-dns") << m_config.tunnelResolvers;
    return arguments;
}

QString HMDNSProxyController::lastLogLine() const
{
    const QStringList lines =
        HMLogTail::read(m_config.dnsLogPath(), 4096).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return lines.isEmpty() ? QStringLiteral("(dns.log is empty)") : lines.last().trimmed();
}

QString HMDNSProxyController::start(const Request &request, const HMPeerCredentials &peer,
                                    bool *refused)
{
    *refused = true;
    QString why;
    QByteArray checkedList;
    if (!request.domainFile.isEmpty()) {
        std::optional<QByteArray> text = HMPeerFileReader::read(
            request.domainFile, peer, HMDomainFileChecker::kMaxFileSize, &why);
        // A list the user never edited has no file yet: that is an empty list, and the
        // proxy must run all the same, since the tunnel's only name server is the proxy.
        if (!text && why.endsWith(QLatin1String(" does not exist"))) {
            m_log.write(QStringLiteral("%1; the list is empty").arg(why));
            text = QByteArray();
        }
        if (!text) {
            return QStringLiteral("the domain file cannot be used: %1").arg(why);
        }
        const HMDomainFileChecker::Result checked = HMDomainFileChecker::check(*text);
        if (checked.skipped > 0) {
            m_log.write(QStringLiteral("skipped %1 line(s) of %2 that are not host names: %3")
                            .arg(checked.skipped)
                            .arg(request.domainFile, checked.examples.join(QStringLiteral(", "))));
        }
        checkedList = checked.checked;
    }
    why = checkTunnel(request);
    if (!why.isEmpty()) {
        return why;
    }
    *refused = false;
    // A start replaces: the running proxy goes first, with its routes and its list.
    why = stop();
    if (!why.isEmpty()) {
        return QStringLiteral("the DNS proxy already running could not be stopped: %1").arg(why);
    }
    QString checkedFile;
    if (!request.domainFile.isEmpty()) {
        checkedFile = checkedFilePath();
        QSaveFile copy(checkedFile);
        if (!copy.open(QIODevice::WriteOnly) ||
            !copy.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) ||
            copy.write(checkedList) != checkedList.size() || !copy.commit()) {
            return QStringLiteral("cannot write the checked domain list: %1")
                .arg(copy.errorString());
        }
    }
    const QStringList arguments = proxyArguments(request, checkedFile);
    const pid_t pid = m_process.spawn(arguments, &why);
    if (pid == 0) {
        return why;
    }
    m_log.write(QStringLiteral("started the DNS proxy (pid %1) for %2: %3")
                    .arg(pid)
                    .arg(peer.describe(), arguments.join(QLatin1Char(' '))));
    const int64_t deadline = nowMs() + kListenTimeoutMs;
    while (nowMs() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            QFile::remove(m_process.pidFile());
            return QStringLiteral("the DNS proxy stopped before it listened: %1")
                .arg(lastLogLine());
        }
        if (HMOpenVPNController::isListening(pid, 53)) {
            return QString();
        }
        struct timespec pause
        {
            0, 20 * 1000 * 1000
        };
        ::nanosleep(&pause, nullptr);
    }
    m_process.terminate(m_config.stopTimeoutMs, &why);
    return QStringLiteral("the DNS proxy did not listen within %1 ms: %2")
        .arg(kListenTimeoutMs)
        .arg(lastLogLine());
}

QString HMDNSProxyController::stop()
{
    const pid_t pid = m_process.running();
    QString why;
    if (!m_process.terminate(m_config.stopTimeoutMs, &why)) {
        return why;
    }
    if (pid != 0) {
        m_log.write(QStringLiteral("stopped the DNS proxy (pid %1)").arg(pid));
    }
    // A proxy that was killed, or that crashed, could not take its routes with it.
    HMNetlinkRoutes routes;
    std::string error;
    if (!routes.open(&error)) {
        return QString::fromStdString(error);
    }
    const int left = routes.removeOwnRoutes(&error);
    if (left < 0) {
        return QStringLiteral("cannot remove the DNS proxy's routes: %1")
            .arg(QString::fromStdString(error));
    }
    if (left > 0) {
        m_log.write(QStringLiteral("removed %1 route(s) the DNS proxy left behind").arg(left));
    }
    QFile::remove(checkedFilePath());
    return QString();
}
