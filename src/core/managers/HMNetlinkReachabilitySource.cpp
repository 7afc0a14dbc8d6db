#include "HMNetlinkReachabilitySource.h"

#include "HMLog.h"
#include "HMReachability.h"

#include <QSocketNotifier>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

// The address the reachability question has always been asked about.
const char *const kProbeAddress = "169.254.0.0";

template <typename T> T readAt(const QByteArray &bytes, qsizetype offset)
{
    T value{};
    std::memcpy(&value, bytes.constData() + offset, sizeof(T));
    return value;
}

template <typename T> void append(QByteArray &bytes, const T &value)
{
    bytes.append(reinterpret_cast<const char *>(&value), sizeof(T));
}

void padTo4(QByteArray &bytes)
{
    while (bytes.size() % NLMSG_ALIGNTO) {
        bytes.append('\0');
    }
}

QByteArray header(quint16 type, quint32 sequence)
{
    nlmsghdr nh{};
    nh.nlmsg_type = type;
    nh.nlmsg_flags = NLM_F_REQUEST;
    nh.nlmsg_seq = sequence;
    QByteArray bytes;
    append(bytes, nh);
    return bytes;
}

void finish(QByteArray &message)
{
    const quint32 length = static_cast<quint32>(message.size());
    std::memcpy(message.data(), &length, sizeof(length)); // nlmsg_len comes first
}

QString errnoText(int code)
{
    return QString::fromLocal8Bit(strerror(code));
}

// Calls `visit(type, payload)` for each rtattr in `bytes` from `offset` on.
template <typename Visit>
void forEachAttribute(const QByteArray &bytes, qsizetype offset, Visit visit)
{
    while (offset + static_cast<qsizetype>(sizeof(rtattr)) <= bytes.size()) {
        const rtattr attribute = readAt<rtattr>(bytes, offset);
        if (attribute.rta_len < sizeof(rtattr) || offset + attribute.rta_len > bytes.size()) {
            return;
        }
        const qsizetype payload = offset + static_cast<qsizetype>(RTA_LENGTH(0));
        visit(attribute.rta_type,
              bytes.mid(payload, attribute.rta_len - static_cast<qsizetype>(RTA_LENGTH(0))));
        offset += static_cast<qsizetype>(RTA_ALIGN(attribute.rta_len));
    }
}

int openRouteSocket(unsigned groups)
{
    const int fd =
        socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | (groups ? SOCK_NONBLOCK : 0), NETLINK_ROUTE);
    if (fd < 0) {
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

} // namespace

struct HMNetlinkReachabilitySource::Route
{
    int ifindex = 0;
    unsigned char type = RTN_UNSPEC;
    bool hasGateway = false;
};

void HMNetlinkReachabilitySource::setTunnelDevice(const QString &name)
{
    if (name == m_tunnelDevice) {
        return;
    }
    m_tunnelDevice = name;
    Q_EMIT flagsReported(currentFlags());
}

bool HMNetlinkReachabilitySource::lookupRouteAvoiding(int excluded, Route *route)
{
    QByteArray request = header(RTM_GETROUTE, ++m_sequence);
    reinterpret_cast<nlmsghdr *>(request.data())->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    rtmsg dump{};
    dump.rtm_family = AF_INET;
    append(request, dump);
    finish(request);
    in_addr probe{};
    inet_pton(AF_INET, kProbeAddress, &probe);
    const quint32 target = ntohl(probe.s_addr);
    int bestLength = -1;
    quint32 bestPriority = 0;
    const bool answered = query(request, [&](quint16 type, const QByteArray &payload) {
        if (type == NLMSG_DONE || type == NLMSG_ERROR) {
            return true;
        }
        if (type != RTM_NEWROUTE || payload.size() < static_cast<qsizetype>(sizeof(rtmsg))) {
            return false;
        }
        const rtmsg entry = readAt<rtmsg>(payload, 0);
        quint32 table = entry.rtm_table;
        quint32 destination = 0;
        quint32 priority = 0;
        Route candidate;
        candidate.type = entry.rtm_type;
        forEachAttribute(payload, static_cast<qsizetype>(NLMSG_ALIGN(sizeof(rtmsg))),
                         [&](unsigned short attribute, const QByteArray &value) {
                             if (value.size() < 4) {
                                 return;
                             }
                             if (attribute == RTA_TABLE) {
                                 table = readAt<quint32>(value, 0);
                             } else if (attribute == RTA_DST) {
                                 destination = ntohl(readAt<quint32>(value, 0));
                             } else if (attribute == RTA_OIF) {
                                 candidate.ifindex = readAt<int>(value, 0);
                             } else if (attribute == RTA_GATEWAY) {
                                 candidate.hasGateway = true;
                             } else if (attribute == RTA_PRIORITY) {
                                 priority = readAt<quint32>(value, 0);
                             }
                         });
        const int length = entry.rtm_dst_len;
        const quint32 mask = length == 0 ? 0 : ~quint32(0) << (32 - length);
        const bool better =
            length > bestLength || (length == bestLength && priority < bestPriority);
        if (table == RT_TABLE_MAIN && entry.rtm_type == RTN_UNICAST && candidate.ifindex > 0 &&
            candidate.ifindex != excluded && (target & mask) == (destination & mask) && better) {
            *route = candidate;
            bestLength = length;
            bestPriority = priority;
        }
        return false;
    });
    return answered && bestLength >= 0;
}

HMNetlinkReachabilitySource::HMNetlinkReachabilitySource(QObject *parent)
    : HMReachabilitySource(parent)
{
    m_querySocket = openRouteSocket(0);
    if (m_querySocket < 0) {
        HMLogError(QStringLiteral("Reachability: cannot open a route socket (%1); the network will "
                                  "read as unreachable")
                       .arg(errnoText(errno)));
    } else {
        // The kernel answers at once; the limit only guards against a wedged socket.
        timeval limit{};
        limit.tv_sec = 2;
        setsockopt(m_querySocket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }

    m_eventSocket = openRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE);
    if (m_eventSocket < 0) {
        HMLogError(QStringLiteral("Reachability: cannot watch network changes (%1)")
                       .arg(errnoText(errno)));
        return;
    }
    m_notifier = new QSocketNotifier(m_eventSocket, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this,
            &HMNetlinkReachabilitySource::onEventsReadable);
}

HMNetlinkReachabilitySource::~HMNetlinkReachabilitySource()
{
    delete m_notifier;
    if (m_eventSocket >= 0) {
        close(m_eventSocket);
    }
    if (m_querySocket >= 0) {
        close(m_querySocket);
    }
}

void HMNetlinkReachabilitySource::onEventsReadable()
{
    // The content does not matter: any change means "look again". Drain everything queued
    // so a burst of messages costs one lookup.
    char buffer[16384];
    for (;;) {
        const ssize_t got = recv(m_eventSocket, buffer, sizeof(buffer), 0);
        if (got > 0) {
            continue;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        // ENOBUFS: the kernel dropped messages; a fresh lookup covers whatever they said.
        if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS) {
            HMLogError(QStringLiteral("Reachability: reading network changes failed (%1)")
                           .arg(errnoText(errno)));
            m_notifier->setEnabled(false);
        }
        break;
    }
    Q_EMIT flagsReported(currentFlags());
}

bool HMNetlinkReachabilitySource::query(const QByteArray &request, const Visit &visit)
{
    const quint32 sequence = readAt<nlmsghdr>(request, 0).nlmsg_seq;
    if (send(m_querySocket, request.constData(), static_cast<size_t>(request.size()), 0) < 0) {
        HMLogError(QStringLiteral("Reachability: route query failed (%1)").arg(errnoText(errno)));
        return false;
    }
    QByteArray buffer(32768, Qt::Uninitialized);
    for (;;) {
        const ssize_t got =
            recv(m_querySocket, buffer.data(), static_cast<size_t>(buffer.size()), 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            HMLogError(QStringLiteral("Reachability: no answer to the route query (%1)")
                           .arg(errnoText(errno)));
            return false;
        }
        const QByteArray bytes = buffer.left(got);
        qsizetype offset = 0;
        while (offset + static_cast<qsizetype>(sizeof(nlmsghdr)) <= bytes.size()) {
            const nlmsghdr nh = readAt<nlmsghdr>(bytes, offset);
            if (nh.nlmsg_len < sizeof(nlmsghdr) || offset + nh.nlmsg_len > bytes.size()) {
                break;
            }
            if (nh.nlmsg_seq == sequence &&
                visit(nh.nlmsg_type,
                      bytes.mid(offset + static_cast<qsizetype>(NLMSG_HDRLEN),
                                nh.nlmsg_len - static_cast<qsizetype>(NLMSG_HDRLEN)))) {
                return true;
            }
            offset += static_cast<qsizetype>(NLMSG_ALIGN(nh.nlmsg_len));
        }
    }
}

bool HMNetlinkReachabilitySource::exchange(const QByteArray &request, quint16 expectedType,
                                           QByteArray *answer, int *errorCode)
{
    *errorCode = 0;
    bool found = false;
    const bool answered = query(request, [&](quint16 type, const QByteArray &payload) {
        if (type == NLMSG_ERROR && payload.size() >= static_cast<qsizetype>(sizeof(int))) {
            *errorCode = readAt<int>(payload, 0);
            return true;
        }
        if (type == expectedType) {
            *answer = payload;
            found = true;
            return true;
        }
        return false;
    });
    return answered && found;
}

bool HMNetlinkReachabilitySource::lookupRoute(Route *route)
{
    QByteArray request = header(RTM_GETROUTE, ++m_sequence);
    rtmsg lookup{};
    lookup.rtm_family = AF_INET;
    lookup.rtm_dst_len = 32;
    append(request, lookup);
    in_addr destination{};
    inet_pton(AF_INET, kProbeAddress, &destination);
    rtattr attribute{};
    attribute.rta_type = RTA_DST;
    attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(sizeof(destination)));
    append(request, attribute);
    append(request, destination);
    padTo4(request);
    finish(request);

    QByteArray answer;
    int errorCode = 0;
    if (!exchange(request, RTM_NEWROUTE, &answer, &errorCode)) {
        // ENETUNREACH and friends are the kernel's "no route": an answer, not a failure.
        return false;
    }
    if (answer.size() < static_cast<qsizetype>(sizeof(rtmsg))) {
        return false;
    }
    route->type = readAt<rtmsg>(answer, 0).rtm_type;
    forEachAttribute(answer, static_cast<qsizetype>(NLMSG_ALIGN(sizeof(rtmsg))),
                     [route](unsigned short type, const QByteArray &payload) {
                         if (type == RTA_OIF &&
                             payload.size() >= static_cast<qsizetype>(sizeof(int))) {
                             route->ifindex = readAt<int>(payload, 0);
                         } else if (type == RTA_GATEWAY) {
                             route->hasGateway = true;
                         }
                     });
    return route->ifindex > 0;
}

bool HMNetlinkReachabilitySource::linkFlags(int ifindex, unsigned *flags)
{
    QByteArray request = header(RTM_GETLINK, ++m_sequence);
    ifinfomsg link{};
    link.ifi_family = AF_UNSPEC;
    link.ifi_index = ifindex;
    append(request, link);
    finish(request);

    QByteArray answer;
    int errorCode = 0;
    if (!exchange(request, RTM_NEWLINK, &answer, &errorCode) ||
        answer.size() < static_cast<qsizetype>(sizeof(ifinfomsg))) {
        return false; // the interface went away between the two questions
    }
    *flags = readAt<ifinfomsg>(answer, 0).ifi_flags;
    return true;
}

quint32 HMNetlinkReachabilitySource::currentFlags()
{
    if (m_querySocket < 0) {
        return 0;
    }
    Route route;
    unsigned interfaceFlags = 0;
    if (!lookupRoute(&route)) {
        return 0;
    }
    const int tunnel = m_tunnelDevice.isEmpty()
                           ? 0
                           : static_cast<int>(if_nametoindex(m_tunnelDevice.toLocal8Bit()));
    if (tunnel > 0 && route.ifindex == tunnel) {
        route = Route();
        if (!lookupRouteAvoiding(tunnel, &route)) {
            return 0;
        }
    }
    if (!linkFlags(route.ifindex, &interfaceFlags)) {
        return 0;
    }
    // Up alone is not enough: a cable pulled or a radio disassociated leaves the routes in
    // place but clears the carrier.
    if (!(interfaceFlags & IFF_UP) || !(interfaceFlags & IFF_RUNNING)) {
        return 0;
    }
    quint32 flags = HMReachability::Reachable;
    if (!route.hasGateway) {
        flags |= HMReachability::IsDirect;
    }
    if (route.type == RTN_LOCAL) {
        flags |= HMReachability::IsLocalAddress;
    }
    if (interfaceFlags & IFF_POINTOPOINT) {
        flags |= HMReachability::TransientConnection;
    }
    return flags;
}
