#include "HMStreamExchange.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

HMStreamExchange::~HMStreamExchange()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool HMStreamExchange::start(uint32_t address, uint16_t port, const std::vector<uint8_t> &query,
                             std::string *error)
{
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    m_out.resize(2 + query.size());
    m_out[0] = static_cast<uint8_t>(query.size() >> 8);
    m_out[1] = static_cast<uint8_t>(query.size() & 0xff);
    std::memcpy(m_out.data() + 2, query.data(), query.size());
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = address;
    if (::connect(m_fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) != 0 &&
        errno != EINPROGRESS) {
        *error = std::string("connect: ") + std::strerror(errno);
        return false;
    }
    return true;
}

short HMStreamExchange::events() const
{
    return m_written < m_out.size() ? POLLOUT : POLLIN;
}

HMStreamExchange::State HMStreamExchange::fail(const std::string &problem)
{
    m_problem = problem;
    return State::Failed;
}

HMStreamExchange::State HMStreamExchange::advance()
{
    if (!m_connected) {
        int error = 0;
        socklen_t length = sizeof(error);
        if (::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            return fail(std::string("connect: ") + std::strerror(error ? error : errno));
        }
        m_connected = true;
    }
    while (m_written < m_out.size()) {
        const ssize_t sent =
            ::send(m_fd, m_out.data() + m_written, m_out.size() - m_written, MSG_NOSIGNAL);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR
                       ? State::Busy
                       : fail(std::string("send: ") + std::strerror(errno));
        }
        m_written += static_cast<size_t>(sent);
    }
    for (;;) {
        const bool inPrefix = m_prefixRead < 2;
        uint8_t *into =
            inPrefix ? m_prefix + m_prefixRead : m_in.data() + (m_in.size() - m_expected);
        const size_t want = inPrefix ? 2 - m_prefixRead : m_expected;
        const ssize_t got = ::recv(m_fd, into, want, 0);
        if (got == 0) {
            return fail("the resolver closed the connection before answering");
        }
        if (got < 0) {
            return errno == EAGAIN || errno == EINTR
                       ? State::Busy
                       : fail(std::string("recv: ") + std::strerror(errno));
        }
        if (inPrefix) {
            m_prefixRead += static_cast<size_t>(got);
            if (m_prefixRead == 2) {
                m_expected = size_t(m_prefix[0]) << 8 | m_prefix[1];
                m_in.resize(m_expected);
                if (m_expected == 0) {
                    return fail("an empty answer");
                }
            }
            continue;
        }
        m_expected -= static_cast<size_t>(got);
        if (m_expected == 0) {
            return State::Done;
        }
    }
}
