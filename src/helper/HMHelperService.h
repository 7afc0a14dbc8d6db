// Answers the requests of one helper connection once the peer and the frame have passed
// (HMHelperServer). Each action has an exact schema; anything outside it, and anything the
// trust boundary forbids (another executable, another "--cd", foreign scripts, unknown
// options, an unsafe configuration file), is refused: written to daemon.log and answered
// "status" "error" with the reason in "error". Nothing runs for a refused request.
#pragma once

#include "HMDNSProxyController.h"
#include "HMHelperConfig.h"
#include "HMOpenVPNController.h"
#include "HMTunnelOwnership.h"

#include <QCborMap>
#include <QString>

class HMHelperLog;
class HMPeerCredentials;

class HMHelperService
{
public:
    struct Outcome
    {
        QCborMap reply;
        // Set by "suicide": the helper exits once the reply is out.
        bool exitAfterReply = false;
    };

    HMHelperService(const HMHelperConfig &config, HMHelperLog &log);

    Outcome handle(const QCborMap &request, const HMPeerCredentials &peer);
    // Writes the refusal to the log and builds its reply.
    QCborMap refuse(const HMPeerCredentials &peer, const QString &action, const QString &reason);

    static QCborMap okReply();
    static QCborMap errorReply(const QString &message);

private:
    QString checkKeys(const QCborMap &map, const QStringList &required, const QStringList &optional,
                      const QString &where) const;
    QString checkDaemonConfig(const QCborMap &params, bool openVPN) const;
    QCborMap startVPN(const QCborMap &request, const HMPeerCredentials &peer);
    QCborMap stopVPN(const HMPeerCredentials &peer);
    QCborMap getLogs() const;
    QCborMap startDNSProxy(const QCborMap &request, const HMPeerCredentials &peer);
    QCborMap failure(const HMPeerCredentials &peer, const QString &action, const QString &reason);

    HMHelperConfig m_config;
    HMHelperLog &m_log;
    HMOpenVPNController m_openVPN;
    HMTunnelOwnership m_ownership;
    HMDNSProxyController m_dnsProxy;
};
