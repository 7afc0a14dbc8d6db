#include "HMTunnelOwnership.h"

#include "HMPeerCredentials.h"

#include <QFile>
#include <QSaveFile>
#include <QStringList>

HMTunnelOwnership::HMTunnelOwnership(const HMHelperConfig &config)
    : m_openVPN(config.openVPNPath, config.openVPNPidPath()),
      m_recordPath(config.runDir + QStringLiteral("/tunnel.owner"))
{}

std::optional<uid_t> HMTunnelOwnership::owner() const
{
    if (m_openVPN.running() == 0) {
        return std::nullopt;
    }
    QFile record(m_recordPath);
    bool ok = false;
    uid_t uid = 0;
    if (record.open(QIODevice::ReadOnly)) {
        uid = record.read(32).trimmed().toUInt(&ok);
    }
    return ok ? uid : 0;
}

QString HMTunnelOwnership::check(const HMPeerCredentials &peer, const QString &action) const
{
    static const QStringList guarded = {
        QStringLiteral("startVPN"),      QStringLiteral("stopVPN"),      QStringLiteral("getLogs"),
        QStringLiteral("startDNSProxy"), QStringLiteral("stopDNSProxy"), QStringLiteral("suicide")};
    if (peer.isRoot() || !guarded.contains(action)) {
        return QString();
    }
    const std::optional<uid_t> uid = owner();
    if (!uid || *uid == peer.uid) {
        return QString();
    }
    return QStringLiteral("the running tunnel belongs to uid %1; only that user or root may "
                          "use %2 while it runs")
        .arg(*uid)
        .arg(action);
}

bool HMTunnelOwnership::claim(const HMPeerCredentials &peer, QString *error) const
{
    QSaveFile record(m_recordPath);
    const QByteArray text = QByteArray::number(peer.uid) + '\n';
    if (!record.open(QIODevice::WriteOnly) || record.write(text) != text.size() ||
        !record.commit()) {
        *error = QStringLiteral("cannot record the tunnel's owner in %1: %2")
                     .arg(m_recordPath, record.errorString());
        return false;
    }
    return true;
}

void HMTunnelOwnership::release() const
{
    QFile::remove(m_recordPath);
}
