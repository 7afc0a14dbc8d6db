// The proxy's command line. The application builds the first part exactly:
//   -f FILE|nothing -s RESDIR -log LOG -server SERVER_IP -tap TUN
//   [-wisproute wisproute|wisprouteEx] [-debug LEVEL]
// and the helper appends what only it knows:
//   -originals FILE   the resolvers in force before the tunnel (resolv.conf form), saved by
//                     the tunnel's up script
//   -tunnel-dns A,B   the tunnel's resolvers
//   -listen ADDR:PORT where to listen (127.0.0.1:53 unless given; benchmarks use others)
// Anything else, a missing value or a file given with "-wisproute" absent (or the reverse)
// is a usage error: the proxy must never guess which way to steer.
#pragma once

#include "HMDNSQueryHandler.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class HMProxyOptions
{
public:
    std::string domainFile; // empty in the off mode
    std::string resourceDir;
    std::string logPath;
    uint32_t server = 0; // network byte order
    std::string tunnel;
    HMDNSQueryHandler::Mode mode = HMDNSQueryHandler::Mode::Off;
    int debug = 0;
    std::string originalsFile;
    std::vector<uint32_t> tunnelResolvers;
    uint32_t listenAddress = 0;
    uint16_t listenPort = 53;

    static std::optional<HMProxyOptions> parse(const std::vector<std::string> &arguments,
                                               std::string *error);
    // The "nameserver" addresses of a resolv.conf text (IPv4 only; the tunnel carries no
    // other).
    static std::vector<uint32_t> resolversFromText(const std::string &text);
    static std::optional<uint32_t> parseAddress(const std::string &text);
    static std::string formatAddress(uint32_t address);
};
