#include "HMDNSProxy.h"

#include "HMHostRoutes.h"
#include "HMProxyLog.h"
#include "HMProxyOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ldns/ldns.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kDatagramSize = 65535;
constexpr uint16_t kDnsPort = 53;
// Deadlines are seconds apart; looking for missed ones on every poll round would cost a walk
// over every query in flight per round.
constexpr int64_t kDeadlineCheckMs = 50;

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

sockaddr_in resolverAddress(uint32_t address)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kDnsPort);
    to.sin_addr.s_addr = address;
    return to;
}

const char *pathName(HMDNSQueryHandler::Path path)
{
    return path == HMDNSQueryHandler::Path::Tunnel ? "tunnel" : "original";
}

} // namespace

HMDNSProxy::HMDNSProxy(HMDNSQueryHandler &handler, HMProxyLog &log, const HMProxyClock &clock,
                       HMHostRoutes *routes)
    : m_handler(handler), m_log(log), m_clock(clock), m_routes(routes), m_upstream(kAttemptMs),
      m_tcpClients(
          [this](const uint8_t *data, size_t size, uint64_t number) {
              Client client;
              client.tcp = number;
              handleQuery(data, size, client);
          },
          [this](const std::string &what) { noteRefusal(what); }),
      m_queries(HMDNSQueryHandler::kMaxQuerySize + 1), m_answers(kDatagramSize)
{
    m_pending.reserve(kMaxPending);
}

HMDNSProxy::~HMDNSProxy()
{
    for (int fd : {m_udp, m_tcp}) {
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
    return m_upstream.open(error);
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

// Unpredictable, so that nobody off the path can forge a resolver's answer. Drawn from the
// kernel a block at a time: one getrandom() per query was a tenth of the proxy's time.
uint16_t HMDNSProxy::randomId()
{
    if (m_randomUsed == m_randomIds.size()) {
        if (::getrandom(m_randomIds.data(), sizeof(m_randomIds), 0) !=
            static_cast<ssize_t>(sizeof(m_randomIds))) {
            ::arc4random_buf(m_randomIds.data(), sizeof(m_randomIds));
        }
        m_randomUsed = 0;
    }
    return m_randomIds[m_randomUsed++];
}

void HMDNSProxy::run(int stopFd)
{
    m_nowMs = m_clock.nowMs();
    m_nextSweepMs = m_nowMs + kSweepMs;
    std::vector<pollfd> fds;
    // After the first three entries: the upstream sockets', then the TCP clients', then the
    // resolver streams'.
    std::vector<uint64_t> owners;
    std::vector<HMUpstreamSockets::Socket> answering;
    for (;;) {
        fds.assign({{stopFd, POLLIN, 0}, {m_udp, POLLIN, 0}, {m_tcp, POLLIN, 0}});
        const std::vector<HMUpstreamSockets::Socket> &upstream = m_upstream.sockets();
        for (const HMUpstreamSockets::Socket &socket : upstream) {
            fds.push_back({socket.fd, POLLIN, 0});
        }
        const size_t firstOwned = fds.size();
        owners.clear();
        m_tcpClients.watch(fds, owners);
        const size_t clientCount = owners.size();
        for (uint16_t id : m_streams) {
            const HMStreamExchange &stream = *m_pending.at(id).stream;
            fds.push_back({stream.fd(), stream.events(), 0});
            owners.push_back(id);
        }
        const int ready = ::poll(fds.data(), fds.size(), 250);
        if (ready < 0 && errno != EINTR) {
            m_log.write(std::string("poll failed: ") + std::strerror(errno));
            return;
        }
        m_nowMs = m_clock.nowMs();
        if (fds[0].revents) {
            return;
        }
        if (fds[2].revents) {
            m_tcpClients.accept(m_tcp, m_nowMs);
        }
        // A socket is read again at once only when the last read filled a whole batch: a read
        // that finds nothing costs as much as the poll that would have said so, and most
        // rounds carry less than a batch.
        bool clients = fds[1].revents != 0;
        answering.clear();
        for (size_t i = 0; i < upstream.size(); ++i) {
            if (fds[3 + i].revents) {
                answering.push_back(upstream[i]);
            }
        }
        while (clients || !answering.empty()) {
            const size_t queries = clients ? readUdpClients() : 0;
            size_t full = 0;
            for (const HMUpstreamSockets::Socket &socket : answering) {
                if (readUpstream(socket) == HMDatagramBatch::kCapacity) {
                    answering[full++] = socket;
                }
            }
            answering.resize(full);
            flushUpstream();
            flushAnswers();
            clients = queries == HMDatagramBatch::kCapacity;
        }
        for (size_t i = 0; i < owners.size(); ++i) {
            const short revents = fds[firstOwned + i].revents;
            if (revents == 0) {
                continue;
            }
            if (i < clientCount) {
                m_tcpClients.serve(owners[i], revents, m_nowMs);
            } else {
                advanceStream(static_cast<uint16_t>(owners[i]));
            }
        }
        timeOut();
        flushUpstream();
        flushAnswers();
    }
}

size_t HMDNSProxy::readUdpClients()
{
    const size_t count = m_queries.receive(m_udp);
    for (size_t i = 0; i < count; ++i) {
        Client client;
        client.udp = m_queries.from(i);
        // A datagram cut to the buffer still says, by its size, that it was oversized.
        handleQuery(m_queries.data(i),
                    m_queries.truncated(i) ? HMDNSQueryHandler::kMaxQuerySize + 1
                                           : m_queries.size(i),
                    client);
    }
    return count;
}

size_t HMDNSProxy::readUpstream(const HMUpstreamSockets::Socket &socket)
{
    const size_t count = m_answers.receive(socket.fd);
    for (size_t i = 0; i < count; ++i) {
        const size_t size = m_answers.size(i);
        if (size < LDNS_HEADER_SIZE || m_answers.truncated(i)) {
            continue;
        }
        uint8_t *data = m_answers.data(i);
        const auto found = m_pending.find(ldns_read_uint16(data));
        if (found == m_pending.end() || found->second.stream ||
            found->second.socket != socket.serial) {
            continue;
        }
        Pending &pending = found->second;
        const auto &servers = resolvers(pending.question.path);
        const sockaddr_in &from = m_answers.from(i);
        if (from.sin_port != htons(kDnsPort) || pending.attempt >= servers.size() ||
            from.sin_addr.s_addr != servers[pending.attempt]) {
            continue;
        }
        if (deliver(pending, data, size)) {
            m_pending.erase(found);
        }
    }
    return count;
}

bool HMDNSProxy::deliver(Pending &pending, uint8_t *data, size_t size)
{
    ldns_write_uint16(data, pending.clientId);
    const HMDNSQueryHandler::Completion done = m_handler.complete(pending.question, data, size);
    if (!done.problem.empty()) {
        m_log.write(pending.question.name + ": " + done.problem);
    }
    if (done.reply.empty()) {
        return false;
    }
    if (m_log.level() >= 2) {
        m_log.write(pending.question.name + ": " + std::to_string(done.routesAdded) +
                    " route(s), " + std::to_string(done.recordsRemoved) +
                    " AAAA record(s) removed");
    }
    answer(pending.client, done.reply);
    return true;
}

void HMDNSProxy::handleQuery(const uint8_t *data, size_t size, const Client &client)
{
    HMDNSQueryHandler::Inspection inspection = m_handler.inspect(data, size);
    if (!inspection.question) {
        noteRefusal(inspection.problem);
        if (!inspection.reply.empty()) {
            answer(client, inspection.reply);
        }
        return;
    }
    HMDNSQueryHandler::Question &question = *inspection.question;
    const auto &servers = resolvers(question.path);
    if (servers.empty() || m_pending.size() >= kMaxPending) {
        m_log.write("cannot forward " + question.name + ": " +
                    (servers.empty() ? std::string("no ") + pathName(question.path) + " resolver"
                                     : std::string("too many queries in flight")));
        answer(client, HMDNSQueryHandler::errorReply(data, size, LDNS_RCODE_SERVFAIL));
        return;
    }
    if (m_log.level() >= 1) {
        m_log.write("query " + question.name + " type " + std::to_string(question.type) +
                    (question.listed ? " (listed)" : "") + " via " + pathName(question.path) +
                    (client.tcp ? " over TCP" : ""));
    }
    uint16_t id = randomId();
    while (m_pending.count(id) != 0) {
        ++id;
    }
    Pending &pending = m_pending[id];
    pending.question = std::move(question);
    pending.query.assign(data, data + size);
    pending.clientId = ldns_read_uint16(data);
    ldns_write_uint16(pending.query.data(), id);
    pending.client = client;
    if (!sendUpstream(id, pending)) {
        m_pending.erase(id);
    }
}

bool HMDNSProxy::sendUpstream(uint16_t id, Pending &pending)
{
    const auto &servers = resolvers(pending.question.path);
    pending.deadlineMs = m_nowMs + kAttemptMs;
    if (pending.client.tcp == 0 && pending.attempt < servers.size()) {
        // Sent with the round's other datagrams; a failure comes back through flushUpstream.
        pending.socket = m_upstream.current().serial;
        m_toResolvers.add(resolverAddress(servers[pending.attempt]), pending.query.data(),
                          pending.query.size(), id);
        return true;
    }
    for (; pending.attempt < servers.size(); ++pending.attempt) {
        pending.stream = std::make_unique<HMStreamExchange>();
        std::string error;
        if (pending.stream->start(servers[pending.attempt], kDnsPort, pending.query, &error)) {
            m_streams.insert(id);
            return true;
        }
        m_log.write("cannot reach resolver " +
                    HMProxyOptions::formatAddress(servers[pending.attempt]) +
                    " over TCP: " + error);
    }
    pending.stream.reset();
    m_streams.erase(id);
    std::vector<uint8_t> query = pending.query;
    ldns_write_uint16(query.data(), pending.clientId);
    answer(pending.client,
           HMDNSQueryHandler::errorReply(query.data(), query.size(), LDNS_RCODE_SERVFAIL));
    return false;
}

void HMDNSProxy::flushUpstream()
{
    // sendUpstream() may queue the failed query again for its next resolver, so the count
    // is read on every turn.
    const int fd = m_upstream.current().fd;
    for (size_t start = 0; start < m_toResolvers.count();) {
        start += static_cast<size_t>(m_toResolvers.send(fd, start));
        if (start >= m_toResolvers.count()) {
            break;
        }
        const int error = errno;
        const auto found = m_pending.find(static_cast<uint16_t>(m_toResolvers.tag(start)));
        ++start;
        if (found == m_pending.end()) {
            continue;
        }
        Pending &pending = found->second;
        const auto &servers = resolvers(pending.question.path);
        m_log.write("cannot reach resolver " +
                    HMProxyOptions::formatAddress(servers[pending.attempt]) + ": " +
                    std::strerror(error));
        ++pending.attempt;
        if (!sendUpstream(found->first, pending)) {
            m_pending.erase(found);
        }
    }
    m_upstream.noteSent(m_toResolvers.count(), m_nowMs);
    m_toResolvers.clear();
}

void HMDNSProxy::advanceStream(uint16_t id)
{
    const auto found = m_pending.find(id);
    if (found == m_pending.end() || !found->second.stream) {
        m_streams.erase(id);
        return;
    }
    Pending &pending = found->second;
    HMStreamExchange &stream = *pending.stream;
    const HMStreamExchange::State state = stream.advance();
    if (state == HMStreamExchange::State::Busy) {
        return;
    }
    std::vector<uint8_t> &reply = stream.answer();
    if (state == HMStreamExchange::State::Done && reply.size() >= LDNS_HEADER_SIZE &&
        ldns_read_uint16(reply.data()) == id && deliver(pending, reply.data(), reply.size())) {
        m_streams.erase(id);
        m_pending.erase(found);
        return;
    }
    m_log.write(pending.question.name + ": resolver " +
                HMProxyOptions::formatAddress(resolvers(pending.question.path)[pending.attempt]) +
                " over TCP: " +
                (state == HMStreamExchange::State::Failed ? stream.problem()
                                                          : std::string("not an answer")));
    ++pending.attempt;
    if (!sendUpstream(id, pending)) {
        m_pending.erase(found);
    }
}

void HMDNSProxy::timeOut()
{
    if (m_nowMs >= m_nextDeadlineCheckMs) {
        m_nextDeadlineCheckMs = m_nowMs + kDeadlineCheckMs;
        for (auto it = m_pending.begin(); it != m_pending.end();) {
            if (it->second.deadlineMs > m_nowMs) {
                ++it;
                continue;
            }
            ++it->second.attempt;
            m_log.debug(1, it->second.question.name + ": a resolver did not answer in time");
            if (sendUpstream(it->first, it->second)) {
                ++it;
            } else {
                it = m_pending.erase(it);
            }
        }
    }
    m_tcpClients.closeIdle(m_nowMs);
    const std::string problem = m_upstream.maintain(m_nowMs);
    if (!problem.empty()) {
        m_log.write(problem);
    }
    if (m_nowMs < m_nextSweepMs) {
        return;
    }
    m_nextSweepMs = m_nowMs + kSweepMs;
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

void HMDNSProxy::noteRefusal(const std::string &what)
{
    if (++m_refusals <= kRefusalsLogged) {
        m_log.write("refused " + what);
    }
}

void HMDNSProxy::answer(const Client &client, const std::vector<uint8_t> &reply)
{
    if (reply.empty()) {
        return;
    }
    if (client.tcp == 0) {
        m_toClients.add(client.udp, reply.data(), reply.size());
    } else {
        m_tcpClients.send(client.tcp, reply, m_nowMs);
    }
}

void HMDNSProxy::flushAnswers()
{
    // A client whose answer could not be sent asks again, as it would after a lost datagram.
    for (size_t start = 0; start < m_toClients.count(); ++start) {
        start += static_cast<size_t>(m_toClients.send(m_udp, start));
    }
    m_toClients.clear();
}
