#include "HMVPNRoutingAdapter.h"

#include "HMWisprouteManager.h"

bool HMVPNRoutingAdapter::isSupported() const
{
    return m_routing.isSupported();
}

int HMVPNRoutingAdapter::wisprouteMode() const
{
    return m_routing.wisprouteMode();
}
