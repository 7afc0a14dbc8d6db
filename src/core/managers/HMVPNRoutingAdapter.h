// Tunnel control's view of selective routing, read from the selective-routing manager.
#pragma once

#include "HMVPNRoutingSource.h"

class HMWisprouteManager;

class HMVPNRoutingAdapter : public HMVPNRoutingSource
{
public:
    explicit HMVPNRoutingAdapter(HMWisprouteManager &routing) : m_routing(routing) {}

    bool isSupported() const override;
    int wisprouteMode() const override;

private:
    HMWisprouteManager &m_routing;
};
