// Whether the machine has a usable network at all.
//
// The API client refuses requests without it, the VPN manager reacts to it coming and
// going, the connection sequence and start-up consult it before retrying or reconnecting.
// The manager owns one monitor (reachability()), created with the manager and kept for the
// process's life, and mirrors its "reachable" property. The process-wide instance watches
// the kernel's routing for the link-local network 169.254.0.0; tests construct their own
// with another source.
#pragma once

#include <QObject>
#include <memory>

class HMReachability;
class HMReachabilitySource;

class HMReachabilityManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool reachable READ isReachable NOTIFY reachableChanged)

public:
    static HMReachabilityManager &instance();

    explicit HMReachabilityManager(std::unique_ptr<HMReachabilitySource> source,
                                   QObject *parent = nullptr);
    ~HMReachabilityManager() override;

    HMReachability *reachability() const { return m_reachability.get(); }
    bool isReachable() const;
    // See HMReachabilitySource::setTunnelDevice.
    void setTunnelDevice(const QString &name);

Q_SIGNALS:
    void reachableChanged(bool reachable);

private:
    std::unique_ptr<HMReachability> m_reachability;
};
