// Where the proxy's host routes go: through the tunnel device, or the way traffic left
// before the tunnel came up (the original gateway). HMNetlinkRoutes is the kernel's table;
// tests record the calls instead.
#pragma once

#include <cstdint>
#include <string>

class HMRouteTable
{
public:
    enum class Via
    {
        Tunnel,
        Original,
    };

    virtual ~HMRouteTable() = default;
    // IPv4 addresses in network byte order. Adding replaces a route to the same address.
    virtual bool addHostRoute(uint32_t address, Via via, std::string *error) = 0;
    virtual bool removeHostRoute(uint32_t address, std::string *error) = 0;
};
