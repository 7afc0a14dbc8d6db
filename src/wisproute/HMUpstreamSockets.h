// The UDP sockets the proxy asks resolvers from. Each is bound by the kernel to a port of
// its own choosing, which it picks at random, and an answer is taken only on the socket its
// query left from: someone off the path who would forge a resolver's answer must guess the
// port as well as the 16-bit query id. One port for the proxy's whole life would let such a
// forger find it once (by probing it) and then need only the id.
//
// So a few sockets take turns: all queries of one poll round leave from the same socket (one
// sendmmsg keeps its batching), the next round takes the next one. A socket is retired once
// it has sent kQueriesPerSocket queries or kLifetimeMs after its first one; a fresh socket on
// a new port takes its place, and the retired one keeps listening for the answers still owed
// to it for drainMs after its last query before it is closed. The turn order is not secret on
// purpose: the ports are what a forger lacks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class HMUpstreamSockets
{
public:
    static constexpr size_t kInUse = 4;
    static constexpr uint32_t kQueriesPerSocket = 1000;
    static constexpr int64_t kLifetimeMs = 10000;

    struct Socket
    {
        int fd = -1;
        uint64_t serial = 0; // never reused, unlike descriptors and ports
        uint32_t sent = 0;
        int64_t firstSentMs = 0;
        int64_t lastSentMs = 0;
    };

    explicit HMUpstreamSockets(int64_t drainMs) : m_drainMs(drainMs) {}
    ~HMUpstreamSockets();
    HMUpstreamSockets(const HMUpstreamSockets &) = delete;
    HMUpstreamSockets &operator=(const HMUpstreamSockets &) = delete;

    bool open(std::string *error);

    // The socket this round's queries leave from.
    const Socket &current() const { return m_sockets[m_turn]; }
    // After the round's queries went out on current(): the next round takes the next socket.
    void noteSent(size_t count, int64_t nowMs);
    // Retires worn sockets, putting fresh ones in their place, and closes the retired ones
    // that owe no more answers. Only between rounds: it moves sockets(). Returns what went
    // wrong, if anything; a socket that could not be replaced stays in use.
    std::string maintain(int64_t nowMs);

    // Every open socket for the poll loop: the kInUse in use first, then the retired ones.
    const std::vector<Socket> &sockets() const { return m_sockets; }

private:
    bool worn(const Socket &socket, int64_t nowMs) const;

    int64_t m_drainMs;
    std::vector<Socket> m_sockets;
    size_t m_turn = 0;
    uint64_t m_nextSerial = 1;
    std::string m_lastProblem;
};
