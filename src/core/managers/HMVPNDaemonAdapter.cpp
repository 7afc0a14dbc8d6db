#include "HMVPNDaemonAdapter.h"

#include "HMDaemonManager.h"

void HMVPNDaemonAdapter::startVPN(Completion completion)
{
    m_daemon.startVPN(std::move(completion));
}

void HMVPNDaemonAdapter::stopVPN(Completion completion)
{
    m_daemon.stopVPN(std::move(completion));
}

void HMVPNDaemonAdapter::startDNSProxy(const QString &tap, int wisprouteMode, Completion completion)
{
    m_daemon.startDNSProxyWithTap(tap, wisprouteMode, std::move(completion));
}

void HMVPNDaemonAdapter::stopDNSProxy(Completion completion)
{
    m_daemon.stopDNSProxy(std::move(completion));
}
