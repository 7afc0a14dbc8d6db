#include "HMUpstreamSockets.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Port 0: the kernel picks a free ephemeral port at random.
int freshSocket(std::string *error)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0) {
        *error = std::string("cannot open a socket towards the resolvers: ") + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return -1;
    }
    return fd;
}

} // namespace

HMUpstreamSockets::~HMUpstreamSockets()
{
    for (const Socket &socket : m_sockets) {
        ::close(socket.fd);
    }
}

bool HMUpstreamSockets::open(std::string *error)
{
    while (m_sockets.size() < kInUse) {
        const int fd = freshSocket(error);
        if (fd < 0) {
            return false;
        }
        m_sockets.push_back({fd, m_nextSerial++});
    }
    return true;
}

void HMUpstreamSockets::noteSent(size_t count, int64_t nowMs)
{
    if (count == 0) {
        return;
    }
    Socket &socket = m_sockets[m_turn];
    if (socket.sent == 0) {
        socket.firstSentMs = nowMs;
    }
    socket.sent += static_cast<uint32_t>(count);
    socket.lastSentMs = nowMs;
    m_turn = (m_turn + 1) % kInUse;
}

bool HMUpstreamSockets::worn(const Socket &socket, int64_t nowMs) const
{
    return socket.sent >= kQueriesPerSocket ||
           (socket.sent > 0 && nowMs - socket.firstSentMs >= kLifetimeMs);
}

std::string HMUpstreamSockets::maintain(int64_t nowMs)
{
    std::string problem;
    for (size_t slot = 0; slot < kInUse; ++slot) {
        if (!worn(m_sockets[slot], nowMs)) {
            continue;
        }
        const int fd = freshSocket(&problem);
        if (fd < 0) {
            break;
        }
        const Socket retired = m_sockets[slot];
        m_sockets[slot] = {fd, m_nextSerial++};
        m_sockets.push_back(retired); // behind the ones in use, until it owes no answers
    }
    size_t kept = kInUse;
    for (size_t i = kInUse; i < m_sockets.size(); ++i) {
        if (nowMs - m_sockets[i].lastSentMs >= m_drainMs) {
            ::close(m_sockets[i].fd);
        } else {
            m_sockets[kept++] = m_sockets[i];
        }
    }
    m_sockets.resize(kept);
    // Said once, not on every round while the descriptors stay short.
    if (problem == m_lastProblem) {
        return std::string();
    }
    m_lastProblem = problem;
    return problem;
}
