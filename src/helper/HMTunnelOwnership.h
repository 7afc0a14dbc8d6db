// Whose tunnel is running. The uid that started OpenVPN owns the tunnel, its DNS proxy and its
// logs for as long as it runs: requests that would stop, replace, read or steer it (startVPN,
// stopVPN, getLogs, startDNSProxy, stopDNSProxy, suicide) are refused to every other group
// member, while root may do anything and, with no tunnel running, any allowed user may start
// one. The owner is recorded in the helper's private run directory beside OpenVPN's pid file,
// so a helper that exited and was started again by its socket still knows it; whether a
// tunnel runs is decided by the tracked OpenVPN itself (HMTrackedProcess), never by the record.
#pragma once

#include "HMHelperConfig.h"
#include "HMTrackedProcess.h"

#include <QString>
#include <optional>
#include <sys/types.h>

class HMPeerCredentials;

class HMTunnelOwnership
{
public:
    explicit HMTunnelOwnership(const HMHelperConfig &config);

    // Empty when the peer may perform the action now; otherwise the refusal's text.
    QString check(const HMPeerCredentials &peer, const QString &action) const;
    // Records the peer as the owner of the tunnel it is about to start; false with the reason
    // when the record cannot be written (the tunnel must then not start).
    bool claim(const HMPeerCredentials &peer, QString *error) const;
    // Forgets the owner once the tunnel has stopped.
    void release() const;
    // The uid owning the running tunnel; nullopt when none runs. A running tunnel without a
    // readable record belongs to root alone.
    std::optional<uid_t> owner() const;

    QString recordPath() const { return m_recordPath; }

private:
    HMTrackedProcess m_openVPN;
    QString m_recordPath;
};
