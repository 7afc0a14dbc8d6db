#include "HMNetlinkRoutes.h"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// The kernel's NLMSG_* and RTA_* macros are C casts through and through; the buffers they
// walk come from the allocator and the kernel keeps every message aligned.
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wcast-align"

namespace {

constexpr size_t kBufferSize = 32 * 1024;

struct RouteMessage
{
    struct nlmsghdr header;
    struct rtmsg route;
    char attributes[64];
};

void addAttribute(RouteMessage &message, unsigned short type, const void *data, size_t size)
{
    auto *attribute = reinterpret_cast<struct rtattr *>(reinterpret_cast<char *>(&message) +
                                                        NLMSG_ALIGN(message.header.nlmsg_len));
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
    std::memcpy(RTA_DATA(attribute), data, size);
    message.header.nlmsg_len =
        NLMSG_ALIGN(message.header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);
}

RouteMessage routeMessage(unsigned short type, unsigned short flags, uint32_t prefix, int length)
{
    RouteMessage message{};
    message.header.nlmsg_len = NLMSG_LENGTH(sizeof(struct rtmsg));
    message.header.nlmsg_type = type;
    message.header.nlmsg_flags = static_cast<unsigned short>(NLM_F_REQUEST | flags);
    message.route.rtm_family = AF_INET;
    message.route.rtm_dst_len = static_cast<unsigned char>(length);
    message.route.rtm_table = RT_TABLE_MAIN;
    message.route.rtm_protocol = HMNetlinkRoutes::kProtocol;
    message.route.rtm_scope = RT_SCOPE_UNIVERSE;
    message.route.rtm_type = RTN_UNICAST;
    if (type == RTM_DELROUTE) {
        // As `ip route del` does: any scope matches.
        message.route.rtm_scope = RT_SCOPE_NOWHERE;
    }
    if (length > 0 || type == RTM_GETROUTE) {
        addAttribute(message, RTA_DST, &prefix, sizeof(prefix));
    }
    return message;
}

std::string systemError(const char *what, int number)
{
    return std::string(what) + ": " + std::strerror(number);
}

} // namespace

HMNetlinkRoutes::HMNetlinkRoutes() = default;

HMNetlinkRoutes::~HMNetlinkRoutes()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool HMNetlinkRoutes::open(std::string *error)
{
    m_fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (m_fd < 0) {
        *error = systemError("cannot open rtnetlink", errno);
        return false;
    }
    struct timeval timeout
    {
        2, 0
    };
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    return true;
}

// Sends one request and reads until its acknowledgement.
bool HMNetlinkRoutes::request(void *data, std::string *error)
{
    auto *header = static_cast<struct nlmsghdr *>(data);
    header->nlmsg_seq = ++m_sequence;
    header->nlmsg_flags |= NLM_F_ACK;
    if (::send(m_fd, data, header->nlmsg_len, 0) < 0) {
        *error = systemError("rtnetlink send", errno);
        return false;
    }
    std::vector<char> buffer(kBufferSize);
    for (;;) {
        const ssize_t received = ::recv(m_fd, buffer.data(), buffer.size(), 0);
        if (received < 0) {
            *error = systemError("rtnetlink receive", errno);
            return false;
        }
        size_t left = static_cast<size_t>(received);
        for (auto *reply = reinterpret_cast<struct nlmsghdr *>(buffer.data());
             NLMSG_OK(reply, left); reply = NLMSG_NEXT(reply, left)) {
            if (reply->nlmsg_seq != m_sequence || reply->nlmsg_type != NLMSG_ERROR) {
                continue;
            }
            const auto *answer = static_cast<const struct nlmsgerr *>(NLMSG_DATA(reply));
            if (answer->error != 0) {
                *error = systemError("rtnetlink", -answer->error);
                return false;
            }
            return true;
        }
    }
}

std::optional<HMNetlinkRoutes::NextHop> HMNetlinkRoutes::lookup(uint32_t address,
                                                                std::string *error)
{
    RouteMessage message = routeMessage(RTM_GETROUTE, 0, address, 32);
    message.route.rtm_protocol = 0;
    message.route.rtm_table = 0;
    message.route.rtm_type = 0;
    message.header.nlmsg_seq = ++m_sequence;
    if (::send(m_fd, &message, message.header.nlmsg_len, 0) < 0) {
        *error = systemError("rtnetlink send", errno);
        return std::nullopt;
    }
    std::vector<char> buffer(kBufferSize);
    for (;;) {
        const ssize_t received = ::recv(m_fd, buffer.data(), buffer.size(), 0);
        if (received < 0) {
            *error = systemError("route lookup", errno);
            return std::nullopt;
        }
        size_t left = static_cast<size_t>(received);
        for (auto *reply = reinterpret_cast<struct nlmsghdr *>(buffer.data());
             NLMSG_OK(reply, left); reply = NLMSG_NEXT(reply, left)) {
            if (reply->nlmsg_seq != m_sequence) {
                continue;
            }
            if (reply->nlmsg_type == NLMSG_ERROR) {
                const auto *answer = static_cast<const struct nlmsgerr *>(NLMSG_DATA(reply));
                *error = systemError("route lookup", -answer->error);
                return std::nullopt;
            }
            if (reply->nlmsg_type != RTM_NEWROUTE) {
                continue;
            }
            NextHop hop;
            auto *route = static_cast<struct rtmsg *>(NLMSG_DATA(reply));
            int length = static_cast<int>(RTM_PAYLOAD(reply));
            for (auto *attribute = RTM_RTA(route); RTA_OK(attribute, length);
                 attribute = RTA_NEXT(attribute, length)) {
                if (attribute->rta_type == RTA_GATEWAY && RTA_PAYLOAD(attribute) == 4) {
                    std::memcpy(&hop.gateway, RTA_DATA(attribute), 4);
                } else if (attribute->rta_type == RTA_OIF && RTA_PAYLOAD(attribute) == 4) {
                    std::memcpy(&hop.interfaceIndex, RTA_DATA(attribute), 4);
                }
            }
            if (hop.interfaceIndex == 0) {
                *error = "route lookup: no outgoing interface";
                return std::nullopt;
            }
            return hop;
        }
    }
}

bool HMNetlinkRoutes::addRoute(uint32_t prefix, int length, const NextHop &hop, std::string *error)
{
    RouteMessage message = routeMessage(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE, prefix, length);
    if (hop.gateway != 0) {
        addAttribute(message, RTA_GATEWAY, &hop.gateway, sizeof(hop.gateway));
    } else {
        message.route.rtm_scope = RT_SCOPE_LINK;
    }
    addAttribute(message, RTA_OIF, &hop.interfaceIndex, sizeof(hop.interfaceIndex));
    return request(&message, error);
}

bool HMNetlinkRoutes::addHostRoute(uint32_t address, Via via, std::string *error)
{
    if (via == Via::Tunnel) {
        NextHop hop;
        hop.interfaceIndex = m_tunnel;
        return addRoute(address, 32, hop, error);
    }
    return addRoute(address, 32, m_original, error);
}

bool HMNetlinkRoutes::removeHostRoute(uint32_t address, std::string *error)
{
    RouteMessage message = routeMessage(RTM_DELROUTE, 0, address, 32);
    return request(&message, error);
}

int HMNetlinkRoutes::removeOwnRoutes(std::string *error)
{
    // Collect first, delete afterwards: deleting while the dump runs would disturb it.
    struct Route
    {
        uint32_t prefix;
        unsigned char length;
    };
    std::vector<Route> own;
    RouteMessage dump = routeMessage(RTM_GETROUTE, NLM_F_DUMP, 0, 0);
    dump.header.nlmsg_len = NLMSG_LENGTH(sizeof(struct rtmsg));
    dump.header.nlmsg_seq = ++m_sequence;
    if (::send(m_fd, &dump, dump.header.nlmsg_len, 0) < 0) {
        *error = systemError("rtnetlink send", errno);
        return -1;
    }
    std::vector<char> buffer(kBufferSize);
    bool done = false;
    while (!done) {
        const ssize_t received = ::recv(m_fd, buffer.data(), buffer.size(), 0);
        if (received < 0) {
            *error = systemError("route dump", errno);
            return -1;
        }
        size_t left = static_cast<size_t>(received);
        for (auto *reply = reinterpret_cast<struct nlmsghdr *>(buffer.data());
             NLMSG_OK(reply, left); reply = NLMSG_NEXT(reply, left)) {
            if (reply->nlmsg_seq != m_sequence) {
                continue;
            }
            if (reply->nlmsg_type == NLMSG_DONE || reply->nlmsg_type == NLMSG_ERROR) {
                done = true;
                break;
            }
            auto *route = static_cast<struct rtmsg *>(NLMSG_DATA(reply));
            if (route->rtm_protocol != kProtocol || route->rtm_table != RT_TABLE_MAIN) {
                continue;
            }
            Route entry{0, route->rtm_dst_len};
            int length = static_cast<int>(RTM_PAYLOAD(reply));
            for (auto *attribute = RTM_RTA(route); RTA_OK(attribute, length);
                 attribute = RTA_NEXT(attribute, length)) {
                if (attribute->rta_type == RTA_DST && RTA_PAYLOAD(attribute) == 4) {
                    std::memcpy(&entry.prefix, RTA_DATA(attribute), 4);
                }
            }
            own.push_back(entry);
        }
    }
    int removed = 0;
    for (const Route &route : own) {
        RouteMessage message = routeMessage(RTM_DELROUTE, 0, route.prefix, route.length);
        std::string problem;
        if (request(&message, &problem)) {
            ++removed;
        } else if (error->empty()) {
            *error = problem;
        }
    }
    return removed;
}
