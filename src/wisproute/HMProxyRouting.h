// The routes a mode needs before the first query: in the off and exclusion modes the
// default route moves into the tunnel (two /1 routes, which win over the default route
// without replacing it) with a host route keeping the VPN server itself on the original
// gateway; the resolvers each mode asks get host routes the way their answers must travel
// (the tunnel's through the tunnel, the original ones via the original gateway where the
// default now leads into the tunnel). The original gateway is read before anything changes.
#pragma once

#include "HMProxyOptions.h"

#include <string>

class HMNetlinkRoutes;

class HMProxyRouting
{
public:
    // Leaves routes set through `routes` (all carrying its protocol number); false with the
    // reason when one could not be set.
    static bool setUp(const HMProxyOptions &options, const std::vector<uint32_t> &originals,
                      HMNetlinkRoutes &routes, std::string *error);
};
