// Tunnel control's view of the network, fed by the reachability manager.
#pragma once

#include "HMVPNReachabilitySource.h"

class HMReachabilityManager;

class HMVPNReachabilityAdapter : public HMVPNReachabilitySource
{
    Q_OBJECT
public:
    explicit HMVPNReachabilityAdapter(HMReachabilityManager &reachability,
                                      QObject *parent = nullptr);

    bool isReachable() const override;
    void setTunnelDevice(const QString &name) override;

private:
    HMReachabilityManager &m_reachability;
};
