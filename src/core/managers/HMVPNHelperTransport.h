// The requests tunnel control sends to the root helper.
//
// Each completion runs on the main thread with the reply dictionary and the error (none on
// success); the argument lists travel inside the requests and are the daemon client's
// business. stopVPN hands over the raw reply: its status is deliberately not examined.
// HMVPNDaemonAdapter sends these through the daemon manager.
#pragma once

#include "HMError.h"

#include <QVariantMap>
#include <functional>

class HMVPNHelperTransport
{
public:
    using Completion = std::function<void(const QVariantMap &reply, const HMMaybeError &error)>;

    virtual ~HMVPNHelperTransport() = default;

    virtual void startVPN(Completion completion) = 0;
    virtual void stopVPN(Completion completion) = 0;
    virtual void startDNSProxy(const QString &tap, int wisprouteMode, Completion completion) = 0;
    virtual void stopDNSProxy(Completion completion) = 0;
    // At quit: the stop requests for OpenVPN and the DNS proxy are written before this
    // returns, in bounded time, and their answers are not awaited.
    virtual void stopBeforeExit() = 0;
};
