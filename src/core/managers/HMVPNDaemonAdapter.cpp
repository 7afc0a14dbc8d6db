#include "HMVPNDaemonAdapter.h"

#include "HMDaemonManager.h"

namespace {
// Each of the two requests may take this long to be written; a helper that is not
// listening at all fails at once.
constexpr int kQuitWriteBoundMs = 200;
} // namespace

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

void HMVPNDaemonAdapter::stopBeforeExit()
{
    m_daemon.writeStopRequests(kQuitWriteBoundMs);
}
