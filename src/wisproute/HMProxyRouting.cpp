#include "HMProxyRouting.h"

#include "HMNetlinkRoutes.h"

#include <arpa/inet.h>
#include <net/if.h>

bool HMProxyRouting::setUp(const HMProxyOptions &options, const std::vector<uint32_t> &originals,
                           HMNetlinkRoutes &routes, std::string *error)
{
    const unsigned tunnel = ::if_nametoindex(options.tunnel.c_str());
    if (tunnel == 0) {
        *error = "there is no tunnel device " + options.tunnel;
        return false;
    }
    routes.setTunnel(static_cast<int>(tunnel));
    const auto original = routes.lookup(options.server, error);
    if (!original) {
        return false;
    }
    if (original->interfaceIndex == static_cast<int>(tunnel)) {
        *error = "the VPN server is reached through the tunnel itself";
        return false;
    }
    routes.setOriginal(*original);

    using Mode = HMDNSQueryHandler::Mode;
    const bool fullTunnel = options.mode != Mode::Inclusion;
    if (fullTunnel) {
        if (!routes.addHostRoute(options.server, HMRouteTable::Via::Original, error)) {
            return false;
        }
        if (options.mode == Mode::Exclusion) {
            // Each resolver keeps the way it had (it may sit on the local network, off the
            // gateway's path); answers follow the way to the VPN server.
            for (uint32_t resolver : originals) {
                const auto hop = routes.lookup(resolver, error);
                if (!hop || !routes.addRoute(resolver, 32, *hop, error)) {
                    return false;
                }
            }
        }
        HMNetlinkRoutes::NextHop intoTunnel;
        intoTunnel.interfaceIndex = static_cast<int>(tunnel);
        return routes.addRoute(htonl(0x00000000), 1, intoTunnel, error) &&
               routes.addRoute(htonl(0x80000000), 1, intoTunnel, error);
    }
    for (uint32_t resolver : options.tunnelResolvers) {
        if (!routes.addHostRoute(resolver, HMRouteTable::Via::Tunnel, error)) {
            return false;
        }
    }
    return true;
}
