#include "HMHostRoutes.h"

#include <algorithm>

HMHostRoutes::HMHostRoutes(HMRouteTable &table, const HMProxyClock &clock)
    : m_table(table), m_clock(clock)
{}

bool HMHostRoutes::ensure(uint32_t address, uint32_t ttlSeconds, HMRouteTable::Via via,
                          std::string *error)
{
    const int64_t expires =
        m_clock.nowMs() + int64_t(std::max(ttlSeconds, kMinimumTtlSeconds)) * 1000;
    auto found = m_routes.find(address);
    if (found != m_routes.end() && found->second.via == via) {
        found->second.expiresMs = std::max(found->second.expiresMs, expires);
        return true;
    }
    if (!m_table.addHostRoute(address, via, error)) {
        return false;
    }
    m_routes[address] = Route{expires, via};
    return true;
}

size_t HMHostRoutes::expire()
{
    const int64_t now = m_clock.nowMs();
    size_t removed = 0;
    for (auto it = m_routes.begin(); it != m_routes.end();) {
        if (it->second.expiresMs <= now) {
            std::string ignored;
            m_table.removeHostRoute(it->first, &ignored);
            it = m_routes.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed;
}

void HMHostRoutes::removeAll()
{
    for (const auto &[address, route] : m_routes) {
        std::string ignored;
        m_table.removeHostRoute(address, &ignored);
    }
    m_routes.clear();
}
