#include "HMTcpClients.h"

#include "HMDNSQueryHandler.h"

#include <cerrno>
#include <ldns/ldns.h>
#include <sys/socket.h>
#include <unistd.h>

HMTcpClients::HMTcpClients(QueryHandler onQuery, RefusalHandler onRefusal)
    : m_onQuery(std::move(onQuery)), m_onRefusal(std::move(onRefusal))
{}

HMTcpClients::~HMTcpClients()
{
    for (auto &[number, client] : m_clients) {
        ::close(client.fd);
    }
}

void HMTcpClients::accept(int listener, int64_t nowMs)
{
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (m_clients.size() >= kMaxClients) {
        m_onRefusal("a TCP client: too many connections");
        ::close(fd);
        return;
    }
    Client &client = m_clients[m_next++];
    client.fd = fd;
    client.lastMs = nowMs;
}

void HMTcpClients::watch(std::vector<pollfd> &fds, std::vector<uint64_t> &numbers) const
{
    for (const auto &[number, client] : m_clients) {
        fds.push_back({client.fd, short(client.out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
        numbers.push_back(number);
    }
}

void HMTcpClients::serve(uint64_t number, short revents, int64_t nowMs)
{
    if (revents & POLLOUT) {
        write(number, nowMs);
    }
    if (revents & ~POLLOUT) {
        read(number, nowMs);
    }
}

void HMTcpClients::read(uint64_t number, int64_t nowMs)
{
    const auto found = m_clients.find(number);
    if (found == m_clients.end()) {
        return; // closed earlier in this round
    }
    Client &client = found->second;
    uint8_t chunk[4096];
    const ssize_t size = ::recv(client.fd, chunk, sizeof(chunk), 0);
    if (size <= 0) {
        if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
            close(number);
        }
        return;
    }
    client.lastMs = nowMs;
    client.in.insert(client.in.end(), chunk, chunk + size);
    while (client.in.size() >= 2) {
        const size_t length = ldns_read_uint16(client.in.data());
        if (length > HMDNSQueryHandler::kMaxQuerySize && client.in.size() >= 2 + 2) {
            // Not worth reading: answer from the id alone and end the connection.
            m_onRefusal("an oversized query (" + std::to_string(length) + " bytes)");
            send(number,
                 HMDNSQueryHandler::refusal(ldns_read_uint16(client.in.data() + 2),
                                            LDNS_RCODE_FORMERR),
                 nowMs);
            close(number);
            return;
        }
        if (client.in.size() < 2 + length) {
            return;
        }
        const std::vector<uint8_t> message(client.in.begin() + 2,
                                           client.in.begin() + 2 + long(length));
        client.in.erase(client.in.begin(), client.in.begin() + 2 + long(length));
        m_onQuery(message.data(), message.size(), number);
        if (m_clients.count(number) == 0) {
            return;
        }
    }
}

void HMTcpClients::write(uint64_t number, int64_t nowMs)
{
    const auto found = m_clients.find(number);
    if (found == m_clients.end()) {
        return;
    }
    Client &client = found->second;
    while (!client.out.empty()) {
        const ssize_t sent = ::send(client.fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                close(number);
            }
            return;
        }
        client.out.erase(client.out.begin(), client.out.begin() + sent);
        client.lastMs = nowMs;
    }
}

void HMTcpClients::send(uint64_t number, const std::vector<uint8_t> &reply, int64_t nowMs)
{
    const auto found = m_clients.find(number);
    if (found == m_clients.end() || reply.empty()) {
        return;
    }
    std::vector<uint8_t> &out = found->second.out;
    if (out.size() + 2 + reply.size() > kMaxBacklog) {
        m_onRefusal("a TCP client that does not read its answers");
        close(number);
        return;
    }
    out.push_back(static_cast<uint8_t>(reply.size() >> 8));
    out.push_back(static_cast<uint8_t>(reply.size() & 0xff));
    out.insert(out.end(), reply.begin(), reply.end());
    write(number, nowMs);
}

void HMTcpClients::close(uint64_t number)
{
    const auto found = m_clients.find(number);
    if (found != m_clients.end()) {
        ::close(found->second.fd);
        m_clients.erase(found);
    }
}

void HMTcpClients::closeIdle(int64_t nowMs)
{
    for (auto it = m_clients.begin(); it != m_clients.end();) {
        if (nowMs - it->second.lastMs > kIdleMs) {
            ::close(it->second.fd);
            it = m_clients.erase(it);
        } else {
            ++it;
        }
    }
}
