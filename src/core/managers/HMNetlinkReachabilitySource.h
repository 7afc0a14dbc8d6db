// Reachability facts from the kernel, over rtnetlink.
//
// The question is the one the client always asked: would a packet to the link-local
// network 169.254.0.0 leave through a working interface? The kernel's own route lookup
// answers it (RTM_GETROUTE), and the interface it names must be up with a carrier. Any
// link, IPv4 address or IPv4 route change announced on the rtnetlink groups triggers a new
// lookup. Flags: Reachable when both hold, plus IsDirect without a gateway, IsLocalAddress
// for a local route and TransientConnection for point-to-point links (tunnels).
//
// Routes over the VPN's own tunnel device (setTunnelDevice) do not count: with the full
// tunnel, OpenVPN's 0.0.0.0/1 and 128.0.0.0/1 routes cover 169.254.0.0 and would hide the
// physical link going away. When the kernel's answer names that device, the main table is
// read and its longest matching route over any other device decides instead.
//
// The sockets belong to the network namespace of the thread that creates the source; the
// lookups are synchronous kernel round trips on the main thread.
#pragma once

#include "HMReachabilitySource.h"

#include <QByteArray>
#include <QString>
#include <functional>

class QSocketNotifier;

class HMNetlinkReachabilitySource : public HMReachabilitySource
{
    Q_OBJECT

public:
    explicit HMNetlinkReachabilitySource(QObject *parent = nullptr);
    ~HMNetlinkReachabilitySource() override;

    quint32 currentFlags() override;
    void setTunnelDevice(const QString &name) override;

private:
    struct Route;

    void onEventsReadable();
    // Sends request and hands each answer message of its sequence to the visitor until it
    // returns true; false with a logged reason when the kernel does not answer.
    using Visit = std::function<bool(quint16 type, const QByteArray &payload)>;
    bool query(const QByteArray &request, const Visit &visit);
    // One request/answer exchange on the query socket; false with a logged reason on
    // failure, and `errorCode` set to the kernel's negative errno when it refused.
    bool exchange(const QByteArray &request, quint16 expectedType, QByteArray *answer,
                  int *errorCode);
    bool lookupRoute(Route *route);
    // The best main-table route to the probe address over any device but `excluded`.
    bool lookupRouteAvoiding(int excluded, Route *route);
    bool linkFlags(int ifindex, unsigned *flags);

    int m_querySocket = -1;
    int m_eventSocket = -1;
    quint32 m_sequence = 0;
    QSocketNotifier *m_notifier = nullptr;
    QString m_tunnelDevice;
};
