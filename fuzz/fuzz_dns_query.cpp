// libFuzzer target for the DNS proxy's query path: any bytes a local client sends, through
// inspection and, when they pass, through completion as if a resolver had echoed them back.
// Neither may crash, leak or read out of bounds; an error reply must itself be a DNS message.
#include "HMDNSQueryHandler.h"
#include "HMHostRoutes.h"

#include <cstdlib>
#include <ldns/ldns.h>

namespace {

class NullTable : public HMRouteTable
{
public:
    bool addHostRoute(uint32_t, Via, std::string *) override { return true; }
    bool removeHostRoute(uint32_t, std::string *) override { return true; }
};

class FixedClock : public HMProxyClock
{
public:
    int64_t nowMs() const override { return 0; }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static NullTable table;
    static FixedClock clock;
    static HMHostRoutes routes(table, clock);
    static HMDNSQueryHandler handler(HMDNSQueryHandler::Mode::Inclusion,
                                     HMDomainMatcher::fromText("example.com\nb.test\n"), &routes);
    const auto inspection = handler.inspect(data, size);
    if (!inspection.reply.empty()) {
        ldns_pkt *packet = nullptr;
        if (ldns_wire2pkt(&packet, inspection.reply.data(), inspection.reply.size()) !=
            LDNS_STATUS_OK) {
            std::abort();
        }
        ldns_pkt_free(packet);
    }
    if (inspection.question) {
        std::vector<uint8_t> echoed(data, data + size);
        echoed[2] |= 0x80; // as a reply
        handler.complete(*inspection.question, echoed.data(), echoed.size());
    }
    routes.removeAll();
    return 0;
}
