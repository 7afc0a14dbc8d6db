// DNS messages built and read with ldns, and the recording route table, for the proxy's tests.
#pragma once

#include "HMProxyClock.h"
#include "HMRouteTable.h"

#include <QStringList>

#include <atomic>
#include <ldns/ldns.h>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Packet = std::unique_ptr<ldns_pkt, void (*)(ldns_pkt *)>;
using Via = HMRouteTable::Via;

class SteppedClock : public HMProxyClock
{
public:
    std::atomic<int64_t> now{1000000};
    int64_t nowMs() const override { return now; }
};

// Adds and removes are recorded; with `refuse` set, adds fail as the kernel's would.
class RecordingTable : public HMRouteTable
{
public:
    std::mutex lock; // the proxy's thread adds while the test reads
    std::map<uint32_t, Via> routes;
    int adds = 0;
    bool refuse = false;
    bool addHostRoute(uint32_t address, Via via, std::string *error) override
    {
        std::lock_guard<std::mutex> hold(lock);
        if (refuse) {
            *error = "refused";
            return false;
        }
        ++adds;
        routes[address] = via;
        return true;
    }
    bool removeHostRoute(uint32_t address, std::string *) override
    {
        std::lock_guard<std::mutex> hold(lock);
        return routes.erase(address) == 1;
    }
};

inline Bytes toWire(ldns_pkt *packet) // and frees it
{
    uint8_t *data = nullptr;
    size_t size = 0;
    ldns_pkt2wire(&data, packet, &size);
    Bytes bytes(data, data + size);
    free(data);
    ldns_pkt_free(packet);
    return bytes;
}

inline Packet parsed(const Bytes &wire)
{
    ldns_pkt *packet = nullptr;
    return Packet(ldns_wire2pkt(&packet, wire.data(), wire.size()) == LDNS_STATUS_OK ? packet
                                                                                     : nullptr,
                  ldns_pkt_free);
}

inline ldns_pkt *queryPacket(const QString &name, uint16_t id, ldns_rr_type type)
{
    ldns_pkt *query = ldns_pkt_query_new(ldns_dname_new_frm_str(name.toUtf8().constData()), type,
                                         LDNS_RR_CLASS_IN, LDNS_RD);
    ldns_pkt_set_id(query, id);
    return query;
}

inline Bytes queryFor(const QString &name, uint16_t id, ldns_rr_type type = LDNS_RR_TYPE_A)
{
    return toWire(queryPacket(name, id, type));
}

// A resolver's reply: the question asked, the truncation flag as given, and the records in
// presentation form ("@" for the name asked).
inline Bytes replyTo(const Bytes &query, bool truncated, const QStringList &records)
{
    const Packet asked = parsed(query);
    if (!asked) {
        return {};
    }
    ldns_pkt *reply = ldns_pkt_new();
    ldns_pkt_set_id(reply, ldns_pkt_id(asked.get()));
    ldns_pkt_set_qr(reply, true);
    ldns_pkt_set_rd(reply, true);
    ldns_pkt_set_ra(reply, true);
    ldns_pkt_set_tc(reply, truncated);
    const ldns_rr *question = ldns_rr_list_rr(ldns_pkt_question(asked.get()), 0);
    ldns_pkt_push_rr(reply, LDNS_SECTION_QUESTION, ldns_rr_clone(question));
    char *owner = ldns_rdf2str(ldns_rr_owner(question));
    for (QString record : records) {
        ldns_rr *rr = nullptr;
        if (ldns_rr_new_frm_str(&rr, record.replace("@", owner).toUtf8().constData(), 0, nullptr,
                                nullptr) != LDNS_STATUS_OK) {
            qFatal("bad test record %s", qPrintable(record));
        }
        ldns_pkt_push_rr(reply, LDNS_SECTION_ANSWER, rr);
    }
    free(owner);
    return toWire(reply);
}

// The answer section, one record a line as "owner ttl class type data".
inline QStringList answerRecords(const Bytes &answer)
{
    QStringList records;
    const Packet packet = parsed(answer);
    const ldns_rr_list *list = packet ? ldns_pkt_answer(packet.get()) : nullptr;
    for (size_t i = 0; list && i < ldns_rr_list_rr_count(list); ++i) {
        char *text = ldns_rr2str(ldns_rr_list_rr(list, i));
        records << QString::fromUtf8(text).simplified();
        free(text);
    }
    return records;
}
