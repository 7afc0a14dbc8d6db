// The proxy's decisions on DNS messages, free of sockets so that tests feed it real packets.
// A query is parsed by ldns and either refused at once (malformed, truncated, oversized,
// compression loops, more than one question, not a standard query: a DNS error carrying the
// client's id, or nothing when not even a header could be read) or sent to the tunnel's or
// the original resolvers, chosen by mode and list:
//
//   off        every name through the tunnel
//   inclusion  listed names through the tunnel, each answer address routed through it;
//              other names by the original resolvers, routes untouched
//   exclusion  listed names by the original resolvers, each answer address routed via the
//              original gateway; other names through the tunnel
//
// The tunnel carries IPv4 only, so AAAA records are taken out of every answer that came
// through it: a client then has nothing to reach over IPv6 outside the tunnel.
#pragma once

#include "HMDomainMatcher.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class HMHostRoutes;

class HMDNSQueryHandler
{
public:
    enum class Mode
    {
        Off,
        Inclusion,
        Exclusion,
    };
    enum class Path
    {
        Tunnel,
        Original,
    };

    static constexpr size_t kMaxQuerySize = 4096;

    struct Question
    {
        std::string name; // as asked, without the final "."
        uint16_t type = 0;
        Path path = Path::Tunnel;
        bool listed = false;
    };

    struct Inspection
    {
        // Set when the query is answered at once (an error); empty with no question when the
        // message is dropped without a word (not even its id could be read).
        std::vector<uint8_t> reply;
        std::optional<Question> question;
        std::string problem;
    };

    struct Completion
    {
        std::vector<uint8_t> reply; // empty: not an answer to this question, keep waiting
        size_t routesAdded = 0;
        size_t recordsRemoved = 0;
        std::string problem;
    };

    // routes may be null (no route is then set: the off mode needs none).
    HMDNSQueryHandler(Mode mode, HMDomainMatcher matcher, HMHostRoutes *routes);

    Inspection inspect(const uint8_t *data, size_t size) const;
    // The client's answer from the resolver's reply to `question` (the reply's id already
    // being the client's). Sets the routes the answer earns.
    Completion complete(const Question &question, const uint8_t *data, size_t size);
    // An error answer (SERVFAIL when no resolver answered, for instance) to a query that
    // passed inspect().
    static std::vector<uint8_t> errorReply(const uint8_t *query, size_t size, int rcode);
    // An error answer that repeats nothing but the query's id.
    static std::vector<uint8_t> refusal(uint16_t id, int rcode);

    Mode mode() const { return m_mode; }

private:
    // Picks the question's way by mode and list.
    Inspection steer(Question question) const;

    Mode m_mode;
    HMDomainMatcher m_matcher;
    HMHostRoutes *m_routes;
};
