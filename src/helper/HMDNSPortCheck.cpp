#include "HMDNSPortCheck.h"

#include "HMPathTrust.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

QString tryBind(int type, quint16 port)
{
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    if (type == SOCK_STREAM) {
        // A connection of a proxy that just stopped may linger in TIME_WAIT; it does not
        // keep a new listener from binding.
        const int on = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    }
    struct sockaddr_in address
    {
    };
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    QString problem;
    if (::bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) {
        problem = QString::fromLocal8Bit(std::strerror(errno));
    }
    ::close(fd);
    return problem;
}

} // namespace

QString HMDNSPortCheck::check(const QString &proxyPath, quint16 port)
{
    const QString trust = HMPathTrust::check(proxyPath, HMPathTrust::Kind::Executable);
    if (!trust.isEmpty()) {
        return QStringLiteral("the DNS proxy %1 cannot be used: %2").arg(proxyPath, trust);
    }
    return checkPort(port);
}

QString HMDNSPortCheck::checkPort(quint16 port)
{
    const QString udp = tryBind(SOCK_DGRAM, port);
    if (!udp.isEmpty()) {
        return QStringLiteral("127.0.0.1:%1 cannot be bound over UDP: %2").arg(port).arg(udp);
    }
    const QString tcp = tryBind(SOCK_STREAM, port);
    if (!tcp.isEmpty()) {
        return QStringLiteral("127.0.0.1:%1 cannot be bound over TCP: %2").arg(port).arg(tcp);
    }
    return QString();
}
