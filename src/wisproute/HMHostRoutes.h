// The host routes that answers earn: each address in an answer for a steered name gets a
// /32 route (through the tunnel or the original gateway) that lives for the answer's TTL,
// at least kMinimumTtlSeconds so that a connection opened right after the answer does not
// lose its route mid-way, and is extended by every later answer naming the address. Expired
// routes go on the next sweep. The routes are kept here as well as in the kernel so that a
// refresh costs no system call.
#pragma once

#include "HMProxyClock.h"
#include "HMRouteTable.h"

#include <cstdint>
#include <string>
#include <unordered_map>

class HMHostRoutes
{
public:
    static constexpr uint32_t kMinimumTtlSeconds = 60;

    HMHostRoutes(HMRouteTable &table, const HMProxyClock &clock);

    // Adds or extends the route; false with the reason when the kernel refused it.
    bool ensure(uint32_t address, uint32_t ttlSeconds, HMRouteTable::Via via, std::string *error);
    // Removes the routes whose time is over; returns how many.
    size_t expire();
    // Removes all of them (on exit).
    void removeAll();

    size_t size() const { return m_routes.size(); }
    bool contains(uint32_t address) const { return m_routes.count(address) != 0; }

private:
    struct Route
    {
        int64_t expiresMs;
        HMRouteTable::Via via;
    };

    HMRouteTable &m_table;
    const HMProxyClock &m_clock;
    std::unordered_map<uint32_t, Route> m_routes;
};
