// Tunnel control's helper requests, sent through the daemon manager.
#pragma once

#include "HMVPNHelperTransport.h"

class HMDaemonManager;

class HMVPNDaemonAdapter : public HMVPNHelperTransport
{
public:
    explicit HMVPNDaemonAdapter(HMDaemonManager &daemon) : m_daemon(daemon) {}

    void startVPN(Completion completion) override;
    void stopVPN(Completion completion) override;
    void startDNSProxy(const QString &tap, int wisprouteMode, Completion completion) override;
    void stopDNSProxy(Completion completion) override;
    void stopBeforeExit() override;

private:
    HMDaemonManager &m_daemon;
};
