// Where the reachability monitor gets its facts from.
//
// currentFlags() answers at once (it is asked at creation); flagsReported is emitted on the
// main thread whenever the platform says something may have changed, with the flags as
// they are now. A source may report the same flags many times: the monitor drops repeats.
#pragma once

#include <QObject>

class HMReachabilitySource : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~HMReachabilitySource() override = default;

    virtual quint32 currentFlags() = 0;
    // The VPN's own tunnel device, whose routes must not make the network reachable; empty
    // for none. Sources that cannot tell devices apart ignore it.
    virtual void setTunnelDevice(const QString &name) { Q_UNUSED(name) }

Q_SIGNALS:
    void flagsReported(quint32 flags);
};
