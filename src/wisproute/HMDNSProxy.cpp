#include "HMDNSProxy.h"

#include "HMHostRoutes.h"
#include "HMProxyLog.h"
#include "HMProxyOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ldns/ldns.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kDatagramSize = 65535;

int boundSocket(int type, uint32_t address, uint16_t port, std::string *error)
{
    const int fd = ::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = address;
    local.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0 ||
        (type == SOCK_STREAM && ::listen(fd, 64) != 0)) {
        *error = "cannot listen on " + HMProxyOptions::formatAddress(address) + ":" +
                 std::to_string(port) + (type == SOCK_STREAM ? " (TCP): " : " (UDP): ") +
                 std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

// Unpredictable, so that nobody off the path can forge a resolver's answer; from the C
// library's own generator, which needs no system call per query.
uint16_t randomId()
{
    return static_cast<uint16_t>(::arc4random() & 0xffff);
}

const char *pathName(HMDNSQueryHandler::Path path)
{
    return path == HMDNSQueryHandler::Path::Tunnel ? "tunnel" : "original";
}

} // namespace

HMDNSProxy::HMDNSProxy(HMDNSQueryHandler &handler, HMProxyLog &log, const HMProxyClock &clock,
                       HMHostRoutes *routes)
    : m_handler(handler), m_log(log), m_clock(clock), m_routes(routes), m_buffer(kDatagramSize)
{}

HMDNSProxy::~HMDNSProxy()
{
    for (auto &[number, client] : m_tcpClients) {
        ::close(client.fd);
    }
    for (int fd : {m_udp, m_tcp, m_upstream}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool HMDNSProxy::listen(uint32_t address, uint16_t port, std::string *error)
{
    m_udp = boundSocket(SOCK_DGRAM, address, port, error);
    if (m_udp < 0) {
        return false;
    }
    m_tcp = boundSocket(SOCK_STREAM, address, port, error);
    if (m_tcp < 0) {
        return false;
    }
    m_upstream = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_upstream < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    return true;
}

void HMDNSProxy::setResolvers(HMDNSQueryHandler::Path path, std::vector<uint32_t> resolvers)
{
    (path == HMDNSQueryHandler::Path::Tunnel ? m_tunnelResolvers : m_originalResolvers) =
        std::move(resolvers);
}

const std::vector<uint32_t> &HMDNSProxy::resolvers(HMDNSQueryHandler::Path path) const
{
    return path == HMDNSQueryHandler::Path::Tunnel ? m_tunnelResolvers : m_originalResolvers;
}

void HMDNSProxy::run(int stopFd)
{
    m_nextSweepMs = m_clock.nowMs() + kSweepMs;
    std::vector<pollfd> fds;
    std::vector<uint64_t> numbers;
    for (;;) {
        fds.assign(
            {{stopFd, POLLIN, 0}, {m_udp, POLLIN, 0}, {m_tcp, POLLIN, 0}, {m_upstream, POLLIN, 0}});
        numbers.clear();
        for (const auto &[number, client] : m_tcpClients) {
            fds.push_back({client.fd, POLLIN, 0});
            numbers.push_back(number);
        }
        const int ready = ::poll(fds.data(), fds.size(), 250);
        if (ready < 0 && errno != EINTR) {
            m_log.write(std::string("poll failed: ") + std::strerror(errno));
            return;
        }
        if (fds[0].revents) {
            return;
        }
        if (fds[2].revents) {
            acceptTcp();
        }
        // Under load, answers come back while queries are still being read: keep serving
        // both sockets until neither has anything, rather than paying a poll for each.
        if (fds[1].revents || fds[3].revents) {
            for (int round = 0; round < 16; ++round) {
                if (readUdpClients() + readUpstream() == 0) {
                    break;
                }
            }
        }
        for (size_t i = 0; i < numbers.size(); ++i) {
            if (fds[4 + i].revents) {
                readTcp(numbers[i]);
            }
        }
        timeOut();
    }
}

int HMDNSProxy::readUdpClients()
{
    std::vector<uint8_t> &buffer = m_buffer;
    int handled = 0;
    for (; handled < 64; ++handled) {
        Client client;
        socklen_t length = sizeof(client.udp);
        const ssize_t size = ::recvfrom(m_udp, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr *>(&client.udp), &length);
        if (size < 0) {
            break;
        }
        handleQuery(buffer.data(), static_cast<size_t>(size), client);
    }
    return handled;
}

void HMDNSProxy::acceptTcp()
{
    const int fd = ::accept4(m_tcp, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (m_tcpClients.size() >= kMaxTcpClients) {
        noteRefusal("a TCP client: too many connections");
        ::close(fd);
        return;
    }
    m_tcpClients[m_nextTcp++] = TcpClient{fd, {}, m_clock.nowMs()};
}

void HMDNSProxy::readTcp(uint64_t number)
{
    const auto found = m_tcpClients.find(number);
    if (found == m_tcpClients.end()) {
        return; // closed earlier in this round
    }
    TcpClient &client = found->second;
    uint8_t chunk[4096];
    const ssize_t size = ::recv(client.fd, chunk, sizeof(chunk), 0);
    if (size <= 0) {
        if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
            closeTcp(number);
        }
        return;
    }
    client.lastMs = m_clock.nowMs();
    client.buffer.insert(client.buffer.end(), chunk, chunk + size);
    while (client.buffer.size() >= 2) {
        const size_t length = ldns_read_uint16(client.buffer.data());
        if (length > HMDNSQueryHandler::kMaxQuerySize && client.buffer.size() >= 2 + 2) {
            // Not worth reading: answer from the id alone and end the connection.
            noteRefusal("an oversized query (" + std::to_string(length) + " bytes)");
            Client who;
            who.tcp = number;
            answer(who, HMDNSQueryHandler::refusal(ldns_read_uint16(client.buffer.data() + 2),
                                                   LDNS_RCODE_FORMERR));
            closeTcp(number);
            return;
        }
        if (client.buffer.size() < 2 + length) {
            return;
        }
        const std::vector<uint8_t> message(client.buffer.begin() + 2,
                                           client.buffer.begin() + 2 + long(length));
        client.buffer.erase(client.buffer.begin(), client.buffer.begin() + 2 + long(length));
        Client who;
        who.tcp = number;
        handleQuery(message.data(), message.size(), who);
        if (m_tcpClients.count(number) == 0) {
            return;
        }
    }
}

void HMDNSProxy::noteRefusal(const std::string &what)
{
    if (++m_refusals <= kRefusalsLogged) {
        m_log.write("refused " + what);
    }
}

void HMDNSProxy::closeTcp(uint64_t number)
{
    const auto found = m_tcpClients.find(number);
    if (found != m_tcpClients.end()) {
        ::close(found->second.fd);
        m_tcpClients.erase(found);
    }
}

void HMDNSProxy::handleQuery(const uint8_t *data, size_t size, const Client &client)
{
    const HMDNSQueryHandler::Inspection inspection = m_handler.inspect(data, size);
    if (!inspection.question) {
        noteRefusal(inspection.problem);
        if (!inspection.reply.empty()) {
            answer(client, inspection.reply);
        }
        return;
    }
    const HMDNSQueryHandler::Question &question = *inspection.question;
    const auto &servers = resolvers(question.path);
    if (servers.empty() || m_pending.size() >= kMaxPending) {
        m_log.write("cannot forward " + question.name + ": " +
                    (servers.empty() ? std::string("no ") + pathName(question.path) + " resolver"
                                     : std::string("too many queries in flight")));
        answer(client, HMDNSQueryHandler::errorReply(data, size, LDNS_RCODE_SERVFAIL));
        return;
    }
    uint16_t id = randomId();
    while (m_pending.count(id) != 0) {
        ++id;
    }
    Pending pending;
    pending.question = question;
    pending.query.assign(data, data + size);
    pending.clientId = ldns_read_uint16(data);
    ldns_write_uint16(pending.query.data(), id);
    pending.client = client;
    if (m_log.level() >= 1) {
        m_log.write("query " + question.name + " type " + std::to_string(question.type) +
                    (question.listed ? " (listed)" : "") + " via " + pathName(question.path));
    }
    if (sendUpstream(pending)) {
        m_pending.emplace(id, std::move(pending));
    }
}

bool HMDNSProxy::sendUpstream(Pending &pending)
{
    const auto &servers = resolvers(pending.question.path);
    while (pending.attempt < servers.size()) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(53);
        to.sin_addr.s_addr = servers[pending.attempt];
        pending.deadlineMs = m_clock.nowMs() + kAttemptMs;
        if (::sendto(m_upstream, pending.query.data(), pending.query.size(), 0,
                     reinterpret_cast<sockaddr *>(&to), sizeof(to)) >= 0) {
            return true;
        }
        m_log.write("cannot reach resolver " + HMProxyOptions::formatAddress(to.sin_addr.s_addr) +
                    ": " + std::strerror(errno));
        ++pending.attempt;
    }
    std::vector<uint8_t> query = pending.query;
    ldns_write_uint16(query.data(), pending.clientId);
    answer(pending.client,
           HMDNSQueryHandler::errorReply(query.data(), query.size(), LDNS_RCODE_SERVFAIL));
    return false;
}

int HMDNSProxy::readUpstream()
{
    std::vector<uint8_t> &buffer = m_buffer;
    int handled = 0;
    for (; handled < 64; ++handled) {
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t size = ::recvfrom(m_upstream, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr *>(&from), &length);
        if (size < 0) {
            break;
        }
        if (size < LDNS_HEADER_SIZE) {
            continue;
        }
        const auto found = m_pending.find(ldns_read_uint16(buffer.data()));
        if (found == m_pending.end()) {
            continue;
        }
        Pending &pending = found->second;
        const auto &servers = resolvers(pending.question.path);
        if (from.sin_port != htons(53) || pending.attempt >= servers.size() ||
            from.sin_addr.s_addr != servers[pending.attempt]) {
            continue;
        }
        ldns_write_uint16(buffer.data(), pending.clientId);
        const HMDNSQueryHandler::Completion done =
            m_handler.complete(pending.question, buffer.data(), static_cast<size_t>(size));
        if (!done.problem.empty()) {
            m_log.write(pending.question.name + ": " + done.problem);
        }
        if (done.reply.empty()) {
            continue;
        }
        if (m_log.level() >= 2) {
            m_log.write(pending.question.name + ": " + std::to_string(done.routesAdded) +
                        " route(s), " + std::to_string(done.recordsRemoved) +
                        " AAAA record(s) removed");
        }
        answer(pending.client, done.reply);
        m_pending.erase(found);
    }
    return handled;
}

void HMDNSProxy::answer(const Client &client, const std::vector<uint8_t> &reply)
{
    if (reply.empty()) {
        return;
    }
    if (client.tcp == 0) {
        ::sendto(m_udp, reply.data(), reply.size(), 0,
                 reinterpret_cast<const sockaddr *>(&client.udp), sizeof(client.udp));
        return;
    }
    const auto found = m_tcpClients.find(client.tcp);
    if (found == m_tcpClients.end()) {
        return;
    }
    std::vector<uint8_t> framed(2 + reply.size());
    ldns_write_uint16(framed.data(), static_cast<uint16_t>(reply.size()));
    std::memcpy(framed.data() + 2, reply.data(), reply.size());
    // A client that does not take a whole answer at once has its connection closed rather
    // than a queue kept for it.
    if (::send(found->second.fd, framed.data(), framed.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(framed.size())) {
        closeTcp(client.tcp);
    }
}

void HMDNSProxy::timeOut()
{
    const int64_t now = m_clock.nowMs();
    for (auto it = m_pending.begin(); it != m_pending.end();) {
        if (it->second.deadlineMs > now) {
            ++it;
            continue;
        }
        ++it->second.attempt;
        m_log.debug(1, it->second.question.name + ": a resolver did not answer in time");
        if (sendUpstream(it->second)) {
            ++it;
        } else {
            it = m_pending.erase(it);
        }
    }
    for (auto it = m_tcpClients.begin(); it != m_tcpClients.end();) {
        if (now - it->second.lastMs > kTcpIdleMs) {
            ::close(it->second.fd);
            it = m_tcpClients.erase(it);
        } else {
            ++it;
        }
    }
    if (now < m_nextSweepMs) {
        return;
    }
    m_nextSweepMs = now + kSweepMs;
    if (m_refusals > kRefusalsLogged) {
        m_log.write("refused " + std::to_string(m_refusals - kRefusalsLogged) + " more queries");
    }
    m_refusals = 0;
    if (m_routes) {
        const size_t expired = m_routes->expire();
        if (expired) {
            m_log.debug(2, std::to_string(expired) + " host route(s) expired");
        }
    }
}
