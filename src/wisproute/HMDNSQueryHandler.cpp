#include "HMDNSQueryHandler.h"

#include "HMHostRoutes.h"

#include <cstdlib>
#include <cstring>
#include <ldns/ldns.h>
#include <memory>

namespace {

struct PacketFree
{
    void operator()(ldns_pkt *packet) const { ldns_pkt_free(packet); }
};
using Packet = std::unique_ptr<ldns_pkt, PacketFree>;

Packet parse(const uint8_t *data, size_t size, ldns_status *status)
{
    ldns_pkt *packet = nullptr;
    *status = ldns_wire2pkt(&packet, data, size);
    if (*status != LDNS_STATUS_OK) {
        ldns_pkt_free(packet);
        return nullptr;
    }
    return Packet(packet);
}

std::vector<uint8_t> wire(const ldns_pkt *packet)
{
    uint8_t *data = nullptr;
    size_t size = 0;
    if (ldns_pkt2wire(&data, packet, &size) != LDNS_STATUS_OK) {
        std::free(data);
        return {};
    }
    std::vector<uint8_t> bytes(data, data + size);
    std::free(data);
    return bytes;
}

// The owner in presentation form without the final dot, from the name ldns has already
// read and checked (labels of at most 63 bytes, 255 in all). A "." or "\\" inside a label is
// escaped, as ldns would print it, so such a label can never pass for two.
std::string dnameText(const ldns_rdf *owner)
{
    const uint8_t *data = ldns_rdf_data(owner);
    const size_t size = ldns_rdf_size(owner);
    std::string name;
    name.reserve(size);
    for (size_t at = 0; at < size && data[at] != 0;) {
        const size_t length = data[at++];
        if (!name.empty()) {
            name += '.';
        }
        for (size_t i = 0; i < length && at < size; ++i, ++at) {
            const char c = static_cast<char>(data[at]);
            if (c == '.' || c == '\\') {
                name += '\\';
            }
            name += c;
        }
    }
    return name;
}

std::string ownerName(const ldns_rr *rr)
{
    return dnameText(ldns_rr_owner(rr));
}

// The question of an ordinary query (one question, no answer or authority records, at most
// one additional record such as EDNS's), read with ldns's wire readers without building a
// whole packet: most queries are of this kind, and building the packet was a good part of
// the proxy's time. Every byte is still read by ldns, and the message must end where its
// records do. Anything else returns false and takes the full parse, which words the refusal.
bool readOrdinaryQuery(const uint8_t *data, size_t size, std::string *name, uint16_t *type)
{
    if (size < LDNS_HEADER_SIZE || LDNS_QR_WIRE(data) || LDNS_TC_WIRE(data) ||
        LDNS_OPCODE_WIRE(data) != LDNS_PACKET_QUERY || LDNS_QDCOUNT(data) != 1 ||
        LDNS_ANCOUNT(data) != 0 || LDNS_NSCOUNT(data) != 0 || LDNS_ARCOUNT(data) > 1) {
        return false;
    }
    size_t at = LDNS_HEADER_SIZE;
    ldns_rdf *owner = nullptr;
    if (ldns_wire2dname(&owner, data, size, &at) != LDNS_STATUS_OK || at + 4 > size) {
        ldns_rdf_deep_free(owner);
        return false;
    }
    *name = dnameText(owner);
    ldns_rdf_deep_free(owner);
    *type = ldns_read_uint16(data + at);
    at += 4;
    if (LDNS_ARCOUNT(data) == 1) {
        ldns_rr *additional = nullptr;
        const ldns_status status =
            ldns_wire2rr(&additional, data, size, &at, LDNS_SECTION_ADDITIONAL);
        ldns_rr_free(additional);
        if (status != LDNS_STATUS_OK) {
            return false;
        }
    }
    return at == size;
}

// A reply that repeats the query's id, opcode, recursion wish and (when it was readable)
// its question.
std::vector<uint8_t> replyTo(uint16_t id, const ldns_pkt *query, ldns_pkt_rcode rcode)
{
    Packet reply(ldns_pkt_new());
    ldns_pkt_set_id(reply.get(), id);
    ldns_pkt_set_qr(reply.get(), true);
    ldns_pkt_set_ra(reply.get(), true);
    ldns_pkt_set_rcode(reply.get(), static_cast<uint8_t>(rcode));
    if (query) {
        ldns_pkt_set_opcode(reply.get(), ldns_pkt_get_opcode(query));
        ldns_pkt_set_rd(reply.get(), ldns_pkt_rd(query));
        const ldns_rr_list *questions = ldns_pkt_question(query);
        if (ldns_pkt_qdcount(query) == 1 && ldns_rr_list_rr_count(questions) == 1) {
            ldns_pkt_push_rr(reply.get(), LDNS_SECTION_QUESTION,
                             ldns_rr_clone(ldns_rr_list_rr(questions, 0)));
        }
    }
    return wire(reply.get());
}

// Drops the AAAA records of one section; returns how many went.
size_t dropAAAA(ldns_pkt *packet, ldns_pkt_section section)
{
    ldns_rr_list *records =
        section == LDNS_SECTION_ANSWER ? ldns_pkt_answer(packet) : ldns_pkt_additional(packet);
    const size_t count = ldns_rr_list_rr_count(records);
    ldns_rr_list *kept = ldns_rr_list_new();
    size_t dropped = 0;
    for (size_t i = 0; i < count; ++i) {
        ldns_rr *rr = ldns_rr_list_rr(records, i);
        if (ldns_rr_get_type(rr) == LDNS_RR_TYPE_AAAA) {
            ++dropped;
        } else {
            ldns_rr_list_push_rr(kept, ldns_rr_clone(rr));
        }
    }
    if (dropped == 0) {
        ldns_rr_list_deep_free(kept); // the clones too
        return 0;
    }
    ldns_rr_list_deep_free(records);
    if (section == LDNS_SECTION_ANSWER) {
        ldns_pkt_set_answer(packet, kept);
        ldns_pkt_set_ancount(packet, static_cast<uint16_t>(ldns_rr_list_rr_count(kept)));
    } else {
        ldns_pkt_set_additional(packet, kept);
        ldns_pkt_set_arcount(packet, static_cast<uint16_t>(ldns_rr_list_rr_count(kept)));
    }
    return dropped;
}

} // namespace

HMDNSQueryHandler::HMDNSQueryHandler(Mode mode, HMDomainMatcher matcher, HMHostRoutes *routes)
    : m_mode(mode), m_matcher(std::move(matcher)), m_routes(routes)
{}

std::vector<uint8_t> HMDNSQueryHandler::refusal(uint16_t id, int rcode)
{
    return replyTo(id, nullptr, static_cast<ldns_pkt_rcode>(rcode));
}

std::vector<uint8_t> HMDNSQueryHandler::errorReply(const uint8_t *query, size_t size, int rcode)
{
    if (size < LDNS_HEADER_SIZE) {
        return {};
    }
    ldns_status status;
    const Packet parsed = parse(query, size, &status);
    return replyTo(ldns_read_uint16(query), parsed.get(), static_cast<ldns_pkt_rcode>(rcode));
}

HMDNSQueryHandler::Inspection HMDNSQueryHandler::inspect(const uint8_t *data, size_t size) const
{
    Inspection result;
    if (size < LDNS_HEADER_SIZE) {
        result.problem = "a message shorter than a DNS header";
        return result;
    }
    Question question;
    if (size <= kMaxQuerySize && readOrdinaryQuery(data, size, &question.name, &question.type)) {
        return steer(std::move(question));
    }
    const uint16_t id = ldns_read_uint16(data);
    if (size > kMaxQuerySize) {
        result.problem = "an oversized query (" + std::to_string(size) + " bytes)";
        result.reply = refusal(id, LDNS_RCODE_FORMERR);
        return result;
    }
    ldns_status status;
    const Packet query = parse(data, size, &status);
    if (!query) {
        result.problem = std::string("a malformed query: ") + ldns_get_errorstr_by_id(status);
        result.reply = replyTo(id, nullptr, LDNS_RCODE_FORMERR);
        return result;
    }
    if (ldns_pkt_qr(query.get())) {
        // Answering an answer could start a loop between two resolvers.
        result.problem = "a reply sent as a query";
        return result;
    }
    if (ldns_pkt_get_opcode(query.get()) != LDNS_PACKET_QUERY) {
        result.problem = "a request that is not a standard query";
        result.reply = replyTo(id, query.get(), LDNS_RCODE_NOTIMPL);
        return result;
    }
    if (ldns_pkt_tc(query.get()) || ldns_pkt_qdcount(query.get()) != 1 ||
        ldns_rr_list_rr_count(ldns_pkt_question(query.get())) != 1) {
        result.problem = "a truncated query or one without exactly one question";
        result.reply = replyTo(id, query.get(), LDNS_RCODE_FORMERR);
        return result;
    }
    const ldns_rr *asked = ldns_rr_list_rr(ldns_pkt_question(query.get()), 0);
    question.name = ownerName(asked);
    question.type = static_cast<uint16_t>(ldns_rr_get_type(asked));
    return steer(std::move(question));
}

HMDNSQueryHandler::Inspection HMDNSQueryHandler::steer(Question question) const
{
    Inspection result;
    question.listed = m_mode != Mode::Off && m_matcher.matches(question.name);
    question.path = (m_mode == Mode::Exclusion && question.listed) ||
                            (m_mode == Mode::Inclusion && !question.listed)
                        ? Path::Original
                        : Path::Tunnel;
    result.question = std::move(question);
    return result;
}

HMDNSQueryHandler::Completion HMDNSQueryHandler::complete(const Question &question,
                                                          const uint8_t *data, size_t size)
{
    Completion result;
    // An answer that earns no route and loses no record is passed on as the resolver sent
    // it: the id and the resolver's address and port already tie it to this query, and the
    // client checks the question itself.
    const bool routed = m_routes && question.listed;
    if (!routed && question.path == Path::Original) {
        if (size < LDNS_HEADER_SIZE || !LDNS_QR_WIRE(data)) {
            result.problem = "an answer without a reply header";
            return result;
        }
        result.reply.assign(data, data + size);
        return result;
    }
    ldns_status status;
    const Packet answer = parse(data, size, &status);
    if (!answer) {
        result.problem = std::string("a malformed answer: ") + ldns_get_errorstr_by_id(status);
        return result;
    }
    const ldns_rr_list *questions = ldns_pkt_question(answer.get());
    if (!ldns_pkt_qr(answer.get()) || ldns_rr_list_rr_count(questions) != 1 ||
        ldns_rr_get_type(ldns_rr_list_rr(questions, 0)) != question.type ||
        HMDomainMatcher::normalised(ownerName(ldns_rr_list_rr(questions, 0))) !=
            HMDomainMatcher::normalised(question.name)) {
        result.problem = "an answer to another question";
        return result;
    }

    if (routed) {
        const HMRouteTable::Via via =
            question.path == Path::Tunnel ? HMRouteTable::Via::Tunnel : HMRouteTable::Via::Original;
        const ldns_rr_list *records = ldns_pkt_answer(answer.get());
        for (size_t i = 0; i < ldns_rr_list_rr_count(records); ++i) {
            const ldns_rr *rr = ldns_rr_list_rr(records, i);
            const ldns_rdf *address =
                ldns_rr_get_type(rr) == LDNS_RR_TYPE_A ? ldns_rr_rdf(rr, 0) : nullptr;
            if (!address || ldns_rdf_size(address) != 4) {
                continue;
            }
            uint32_t ip;
            std::memcpy(&ip, ldns_rdf_data(address), 4);
            std::string problem;
            if (m_routes->ensure(ip, ldns_rr_ttl(rr), via, &problem)) {
                ++result.routesAdded;
            } else if (result.problem.empty()) {
                result.problem = "a host route was refused: " + problem;
            }
        }
    }

    if (question.path == Path::Tunnel) {
        result.recordsRemoved = dropAAAA(answer.get(), LDNS_SECTION_ANSWER) +
                                dropAAAA(answer.get(), LDNS_SECTION_ADDITIONAL);
    }
    if (result.recordsRemoved == 0) {
        result.reply.assign(data, data + size);
    } else {
        result.reply = wire(answer.get());
    }
    return result;
}
