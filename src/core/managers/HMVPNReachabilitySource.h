// Whether the machine has a usable network, as tunnel control needs to know it.
//
// HMVPNReachabilityAdapter feeds it from the reachability manager; tests flip it by hand.
#pragma once

#include <QObject>

class HMVPNReachabilitySource : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~HMVPNReachabilitySource() override = default;

    virtual bool isReachable() const = 0;
    // The tunnel device OpenVPN opened (empty once it is gone): its routes do not count.
    virtual void setTunnelDevice(const QString &name) { Q_UNUSED(name) }

Q_SIGNALS:
    // Emitted for every report of the monitor, also when the value did not change.
    void reachableChanged(bool reachable);
};
