// The proxy's TCP clients: connections taken from the listener, each with the bytes it has
// sent so far (queries framed by a two-byte length) and the answers it has not taken yet.
// Whole queries go to the proxy through the handler given at construction; a query longer
// than any the proxy accepts is refused from its id alone and ends the connection. A client
// silent for kIdleMs, or leaving more than kMaxBacklog of answers unread, is closed rather
// than kept at the expense of the others.
#pragma once

#include <cstdint>
#include <functional>
#include <poll.h>
#include <string>
#include <unordered_map>
#include <vector>

class HMTcpClients
{
public:
    static constexpr int64_t kIdleMs = 10000;
    static constexpr size_t kMaxClients = 64;
    static constexpr size_t kMaxBacklog = 256 * 1024;

    // A whole query from connection `number`.
    using QueryHandler = std::function<void(const uint8_t *data, size_t size, uint64_t number)>;
    // Why a client or one of its queries was turned away, for the log.
    using RefusalHandler = std::function<void(const std::string &what)>;

    HMTcpClients(QueryHandler onQuery, RefusalHandler onRefusal);
    ~HMTcpClients();
    HMTcpClients(const HMTcpClients &) = delete;
    HMTcpClients &operator=(const HMTcpClients &) = delete;

    void accept(int listener, int64_t nowMs);
    // Appends one entry per client to `fds` and its number to `numbers`.
    void watch(std::vector<pollfd> &fds, std::vector<uint64_t> &numbers) const;
    // Serves a client poll() found ready.
    void serve(uint64_t number, short revents, int64_t nowMs);
    // Queues one answer, framed, and sends what the client takes at once.
    void send(uint64_t number, const std::vector<uint8_t> &reply, int64_t nowMs);
    void closeIdle(int64_t nowMs);

private:
    struct Client
    {
        int fd = -1;
        std::vector<uint8_t> in;
        std::vector<uint8_t> out;
        int64_t lastMs = 0;
    };

    void read(uint64_t number, int64_t nowMs);
    void write(uint64_t number, int64_t nowMs);
    void close(uint64_t number);

    QueryHandler m_onQuery;
    RefusalHandler m_onRefusal;
    std::unordered_map<uint64_t, Client> m_clients;
    uint64_t m_next = 1; // 0 stands for "not a TCP client"
};
