// The proxy's sockets: UDP and TCP listeners for clients and the UDP sockets towards the
// resolvers (HMUpstreamSockets, whose ports change), all served by one poll loop (a DNS
// exchange is short; a thread per client would cost more than it saves). Datagrams are read
// and written in batches (HMDatagramBatch); TCP clients are kept by HMTcpClients.
//
// Each forwarded query gets a fresh random id, so answers are matched only to queries this
// proxy sent, only from the resolver it asked and only on the socket it asked from; a
// resolver that stays silent for kAttemptMs is replaced by the next of its kind, and when
// none is left the client gets SERVFAIL. A UDP answer that came back truncated is passed on
// as it is, so the client asks again over TCP; queries from TCP clients go to the resolvers
// over TCP (HMStreamExchange), so the full answer gets the same routes and the same AAAA
// stripping.
#pragma once

#include "HMDNSQueryHandler.h"
#include "HMDatagramBatch.h"
#include "HMProxyClock.h"
#include "HMStreamExchange.h"
#include "HMTcpClients.h"
#include "HMUpstreamSockets.h"

#include <array>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class HMHostRoutes;
class HMProxyLog;

class HMDNSProxy
{
public:
    static constexpr int64_t kAttemptMs = 1500;
    static constexpr int64_t kSweepMs = 5000;
    static constexpr size_t kMaxPending = 4096;
    // Refusals written to the log per sweep; a local program sending garbage must not fill
    // the disk, so the rest are only counted.
    static constexpr int kRefusalsLogged = 20;

    HMDNSProxy(HMDNSQueryHandler &handler, HMProxyLog &log, const HMProxyClock &clock,
               HMHostRoutes *routes);
    ~HMDNSProxy();
    HMDNSProxy(const HMDNSProxy &) = delete;
    HMDNSProxy &operator=(const HMDNSProxy &) = delete;

    bool listen(uint32_t address, uint16_t port, std::string *error);
    void setResolvers(HMDNSQueryHandler::Path path, std::vector<uint32_t> resolvers);

    // Serves until stopFd becomes readable (a signalfd in the program).
    void run(int stopFd);

private:
    struct Client
    {
        sockaddr_in udp{};
        uint64_t tcp = 0; // HMTcpClients' number; 0 for UDP clients
    };
    struct Pending
    {
        HMDNSQueryHandler::Question question;
        std::vector<uint8_t> query; // as the resolvers get it (our id)
        uint16_t clientId = 0;
        Client client;
        size_t attempt = 0;
        int64_t deadlineMs = 0;
        uint64_t socket = 0;                      // the upstream socket's serial, for UDP
        std::unique_ptr<HMStreamExchange> stream; // for TCP clients
    };

    // Each returns how many datagrams it handled.
    size_t readUdpClients();
    size_t readUpstream(const HMUpstreamSockets::Socket &socket);
    void advanceStream(uint16_t id);
    void handleQuery(const uint8_t *data, size_t size, const Client &client);
    // Sends the query to the resolver of its current attempt, or on to the next ones; false
    // (the client having got SERVFAIL) when none is left.
    bool sendUpstream(uint16_t id, Pending &pending);
    void flushUpstream();
    // Hands a resolver's answer (our id) to the client; false when it was not an answer to
    // this query.
    bool deliver(Pending &pending, uint8_t *data, size_t size);
    void answer(const Client &client, const std::vector<uint8_t> &reply);
    void flushAnswers();
    void noteRefusal(const std::string &what);
    void timeOut();
    uint16_t randomId();
    const std::vector<uint32_t> &resolvers(HMDNSQueryHandler::Path path) const;

    HMDNSQueryHandler &m_handler;
    HMProxyLog &m_log;
    const HMProxyClock &m_clock;
    HMHostRoutes *m_routes;
    int m_udp = -1;
    int m_tcp = -1;
    HMUpstreamSockets m_upstream;
    std::vector<uint32_t> m_tunnelResolvers;
    std::vector<uint32_t> m_originalResolvers;
    std::unordered_map<uint16_t, Pending> m_pending;
    std::unordered_set<uint16_t> m_streams; // pending ids asked over TCP
    HMTcpClients m_tcpClients;
    HMDatagramBatch m_queries;
    HMDatagramBatch m_answers;
    HMDatagramQueue m_toResolvers;
    HMDatagramQueue m_toClients;
    std::array<uint16_t, 128> m_randomIds{};
    size_t m_randomUsed = 128;
    int64_t m_nowMs = 0; // read once per poll round
    int m_refusals = 0;
    int64_t m_nextSweepMs = 0;
    int64_t m_nextDeadlineCheckMs = 0;
};
