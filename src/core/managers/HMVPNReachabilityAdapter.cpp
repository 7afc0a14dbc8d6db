#include "HMVPNReachabilityAdapter.h"

#include "HMReachabilityManager.h"

HMVPNReachabilityAdapter::HMVPNReachabilityAdapter(HMReachabilityManager &reachability,
                                                   QObject *parent)
    : HMVPNReachabilitySource(parent), m_reachability(reachability)
{
    QObject::connect(&m_reachability, &HMReachabilityManager::reachableChanged, this,
                     &HMVPNReachabilitySource::reachableChanged);
}

bool HMVPNReachabilityAdapter::isReachable() const
{
    return m_reachability.isReachable();
}

void HMVPNReachabilityAdapter::setTunnelDevice(const QString &name)
{
    m_reachability.setTunnelDevice(name);
}
