#include "HMEchoLab.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Host n lives on 10.(64 + n / 250).(n % 250).0/24: .1 is our end, .2 the host's.
int g_nextHost = 0;
int g_nextBlackHole = 0;
bool g_blackHoleLinkMade = false;
bool g_unroutableMade = false;

QString hostSubnet(int n)
{
    return QStringLiteral("10.%1.%2").arg(64 + n / 250).arg(n % 250);
}

bool runTool(const QString &program, const QStringList &arguments, const QByteArray &input,
             QString *error)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForStarted(5000)) {
        if (error) {
            *error = QStringLiteral("%1 did not start: %2").arg(program, process.errorString());
        }
        return false;
    }
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        if (error) {
            *error = QStringLiteral("%1 %2 failed: %3")
                         .arg(program, arguments.join(QLatin1Char(' ')),
                              QString::fromLocal8Bit(process.readAll()).trimmed());
        }
        return false;
    }
    return true;
}

bool writeSysctl(const char *path, const QByteArray &value, QString *why)
{
    QFile file(QString::fromLatin1(path));
    if (!file.open(QIODevice::WriteOnly) || file.write(value) != value.size()) {
        if (why) {
            *why = QStringLiteral("cannot write %1: %2")
                       .arg(QString::fromLatin1(path), file.errorString());
        }
        return false;
    }
    return true;
}

} // namespace

bool HMEchoLab::enterPrivateNetwork(QString *why)
{
    static int result = -1;
    static QString reason;
    if (result < 0) {
        result = 0;
        if (::geteuid() != 0) {
            reason = QStringLiteral("not root: a private network namespace needs root");
        } else if (::unshare(CLONE_NEWNET) != 0) {
            reason = QStringLiteral("unshare(CLONE_NEWNET) failed: %1")
                         .arg(QString::fromLocal8Bit(std::strerror(errno)));
        } else if (writeSysctl("/proc/sys/net/ipv4/ping_group_range", "0 2147483647", &reason) &&
                   runTool(QStringLiteral("ip"),
                           {QStringLiteral("link"), QStringLiteral("set"), QStringLiteral("lo"),
                            QStringLiteral("up")},
                           QByteArray(), &reason)) {
            result = 1;
        }
    }
    if (why) {
        *why = reason;
    }
    return result == 1;
}

bool HMEchoLab::canOpenPingSocket()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

HMEchoLab::HMEchoLab() = default;

HMEchoLab::~HMEchoLab()
{
    for (const std::unique_ptr<QProcess> &responder : m_responders) {
        // End of input is the responder's signal to go; its namespace and link go with it.
        responder->closeWriteChannel();
        if (!responder->waitForFinished(2000)) {
            responder->kill();
            responder->waitForFinished(2000);
        }
    }
}

QString HMEchoLab::addHost(int delayMs, bool decoy, QString *error)
{
    return addHosts({delayMs}, decoy, error).value(0);
}

QStringList HMEchoLab::addHosts(const QList<int> &delaysMs, bool decoy, QString *error)
{
    QStringList addresses;
    for (const int delay : delaysMs) {
        const QString address = startHost(delay, decoy, error);
        if (address.isEmpty()) {
            return {};
        }
        addresses << address;
    }
    if (!warmUp(addresses, error)) {
        return {};
    }
    return addresses;
}

QString HMEchoLab::startHost(int delayMs, bool decoy, QString *error)
{
    const int n = ++g_nextHost;
    const QString subnet = hostSubnet(n);
    const QString address = subnet + QStringLiteral(".2");

    auto responder = std::make_unique<QProcess>();
    QStringList arguments{QString::number(delayMs)};
    if (decoy) {
        arguments << QStringLiteral("--decoy");
    }
    responder->start(QStringLiteral(HM_ECHO_RESPONDER_PATH), arguments);
    QByteArray output;
    const QDeadlineTimer deadline(5000);
    while (!output.contains("ready\n") && !deadline.hasExpired() &&
           responder->state() != QProcess::NotRunning) {
        responder->waitForReadyRead(static_cast<int>(deadline.remainingTime()));
        output += responder->readAllStandardOutput();
    }
    if (!output.contains("ready\n")) {
        if (error) {
            *error = QStringLiteral("echo responder did not come up: %1")
                         .arg(QString::fromLocal8Bit(responder->readAllStandardError()).trimmed());
        }
        responder->kill();
        responder->waitForFinished(2000);
        return QString();
    }
    const QString pid = QString::number(responder->processId());
    m_responders.push_back(std::move(responder));

    const QString link = QStringLiteral("hmv%1").arg(n);
    const QByteArray ours = QStringLiteral("link add %1 type veth peer name eth0 netns %2\n"
                                           "addr add %3.1/24 dev %1\n"
                                           "link set %1 up\n")
                                .arg(link, pid, subnet)
                                .toUtf8();
    const QByteArray theirs = QStringLiteral("addr add %1/24 dev eth0\n"
                                             "link set eth0 up\n"
                                             "link set lo up\n")
                                  .arg(address)
                                  .toUtf8();
    if (!runTool(QStringLiteral("ip"), {QStringLiteral("-batch"), QStringLiteral("-")}, ours,
                 error) ||
        !runTool(QStringLiteral("nsenter"),
                 {QStringLiteral("-t"), pid, QStringLiteral("-n"), QStringLiteral("ip"),
                  QStringLiteral("-batch"), QStringLiteral("-")},
                 theirs, error)) {
        return QString();
    }
    return address;
}

QString HMEchoLab::addBlackHole(QString *error)
{
    if (!g_blackHoleLinkMade) {
        // Frames for the black hole go to a MAC address nobody has, out of a veth whose
        // other end is ours and drops them: the send succeeds, nothing answers, no error
        // comes back (a "blackhole" route would fail the send itself).
        const QByteArray commands = "link add hmbh0 type veth peer name hmbh1\n"
                                    "link set hmbh0 up\n"
                                    "link set hmbh1 up\n"
                                    "route add 10.63.0.0/24 dev hmbh0\n";
        if (!runTool(QStringLiteral("ip"), {QStringLiteral("-batch"), QStringLiteral("-")},
                     commands, error)) {
            return QString();
        }
        g_blackHoleLinkMade = true;
    }
    const QString address = QStringLiteral("10.63.0.%1").arg(++g_nextBlackHole % 250 + 1);
    if (!runTool(QStringLiteral("ip"),
                 {QStringLiteral("neigh"), QStringLiteral("replace"), address,
                  QStringLiteral("lladdr"), QStringLiteral("02:00:00:00:00:01"),
                  QStringLiteral("dev"), QStringLiteral("hmbh0"), QStringLiteral("nud"),
                  QStringLiteral("permanent")},
                 QByteArray(), error)) {
        return QString();
    }
    return address;
}

QString HMEchoLab::addUnroutable(QString *error)
{
    if (!g_unroutableMade) {
        if (!runTool(QStringLiteral("ip"),
                     {QStringLiteral("route"), QStringLiteral("add"), QStringLiteral("blackhole"),
                      QStringLiteral("10.62.0.0/24")},
                     QByteArray(), error)) {
            return QString();
        }
        g_unroutableMade = true;
    }
    return QStringLiteral("10.62.0.1");
}

bool HMEchoLab::warmUp(const QStringList &addresses, QString *error)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (fd < 0) {
        if (error) {
            *error =
                QStringLiteral("ICMP socket: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        }
        return false;
    }
    QList<in_addr_t> waiting;
    for (const QString &address : addresses) {
        in_addr parsed{};
        ::inet_pton(AF_INET, address.toLatin1().constData(), &parsed);
        waiting << parsed.s_addr;
    }
    unsigned char request[8 + 13] = {8, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(request + 8, "hm-lab-warmup", 13);

    const QDeadlineTimer deadline(10000);
    while (!waiting.isEmpty() && !deadline.hasExpired()) {
        // The kernel fills in the identifier and the checksum of datagram-socket requests.
        for (const in_addr_t address : std::as_const(waiting)) {
            sockaddr_in target{};
            target.sin_family = AF_INET;
            target.sin_addr.s_addr = address;
            ::sendto(fd, request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&target),
                     sizeof target);
        }
        pollfd readable{fd, POLLIN, 0};
        while (!waiting.isEmpty() && ::poll(&readable, 1, 20) > 0) {
            unsigned char reply[128];
            sockaddr_in from{};
            socklen_t fromLength = sizeof from;
            const ssize_t n = ::recvfrom(fd, reply, sizeof reply, 0,
                                         reinterpret_cast<sockaddr *>(&from), &fromLength);
            if (n >= 8 && reply[0] == 0) {
                waiting.removeAll(from.sin_addr.s_addr);
            }
        }
    }
    ::close(fd);
    if (!waiting.isEmpty() && error) {
        *error = QStringLiteral("%1 of %2 lab hosts never answered the warm-up ping")
                     .arg(waiting.size())
                     .arg(addresses.size());
    }
    return waiting.isEmpty();
}
