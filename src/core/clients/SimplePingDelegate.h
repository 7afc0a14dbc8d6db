// What a SimplePing tells its owner, in the order things can happen.
//
// Every callback is optional: the defaults do nothing. Callbacks run on the thread that
// called start() (the main thread in this program). After simplePingDidFailWithError the
// prober has stopped; it is still alive while the callback runs, and an owner that wants
// to get rid of it there uses deleteLater().
#pragma once

#include "HMError.h"

#include <QByteArray>

class SimplePing;

class SimplePingDelegate
{
public:
    virtual ~SimplePingDelegate() = default;

    // The socket is open and the address known (resolved or given): pings can be sent.
    virtual void simplePingDidStartWithAddress(SimplePing *pinger, const QByteArray &address)
    {
        Q_UNUSED(pinger)
        Q_UNUSED(address)
    }
    // A whole echo request went out.
    virtual void simplePingDidSendPacket(SimplePing *pinger, const QByteArray &packet)
    {
        Q_UNUSED(pinger)
        Q_UNUSED(packet)
    }
    // The request could not be sent; the prober keeps running.
    virtual void simplePingDidFailToSendPacket(SimplePing *pinger, const QByteArray &packet,
                                               const HMError &error)
    {
        Q_UNUSED(pinger)
        Q_UNUSED(packet)
        Q_UNUSED(error)
    }
    // A valid echo reply to one of this prober's requests, as received.
    virtual void simplePingDidReceivePingResponsePacket(SimplePing *pinger,
                                                        const QByteArray &packet)
    {
        Q_UNUSED(pinger)
        Q_UNUSED(packet)
    }
    // Anything else that arrived on the socket.
    virtual void simplePingDidReceiveUnexpectedPacket(SimplePing *pinger, const QByteArray &packet)
    {
        Q_UNUSED(pinger)
        Q_UNUSED(packet)
    }
    // The prober has stopped for good (until the next start()).
    virtual void simplePingDidFailWithError(SimplePing *pinger, const HMError &error)
    {
        Q_UNUSED(pinger)
        Q_UNUSED(error)
    }
};
