// The kernel's IPv4 main routing table, spoken to over rtnetlink. Every route added here
// carries the proxy's own routing-protocol number (kProtocol), which is how a later start,
// the helper's "stopDNSProxy" and the proxy's own exit find and remove exactly these routes
// and nothing an administrator or OpenVPN put there, even after the proxy was killed.
// `ip route show proto 211` lists them.
#pragma once

#include "HMRouteTable.h"

#include <optional>
#include <string>

class HMNetlinkRoutes : public HMRouteTable
{
public:
    static constexpr unsigned char kProtocol = 211;

    struct NextHop
    {
        uint32_t gateway = 0; // network byte order; 0 when the destination is on-link
        int interfaceIndex = 0;
    };

    HMNetlinkRoutes();
    ~HMNetlinkRoutes() override;
    HMNetlinkRoutes(const HMNetlinkRoutes &) = delete;
    HMNetlinkRoutes &operator=(const HMNetlinkRoutes &) = delete;

    // False with the reason when no rtnetlink socket could be opened.
    bool open(std::string *error);

    // How the kernel would reach `address` now.
    std::optional<NextHop> lookup(uint32_t address, std::string *error);

    // Where Via::Tunnel and Via::Original lead.
    void setTunnel(int interfaceIndex) { m_tunnel = interfaceIndex; }
    void setOriginal(const NextHop &hop) { m_original = hop; }

    bool addRoute(uint32_t prefix, int length, const NextHop &hop, std::string *error);
    bool addHostRoute(uint32_t address, Via via, std::string *error) override;
    bool removeHostRoute(uint32_t address, std::string *error) override;

    // Removes every route carrying kProtocol; returns how many, or -1 with the reason.
    int removeOwnRoutes(std::string *error);

private:
    bool request(void *message, std::string *error);

    int m_fd = -1;
    unsigned m_sequence = 0;
    int m_tunnel = 0;
    NextHop m_original;
};
