// HMDaemonManager: the argument lists the helper's start requests carry.
//
// The lists are built exactly from the forms the helper shares (HMOpenVPNArgumentForms): it
// accepts only those shapes, and OpenVPN reads the certificate and key names relative to
// "--cd".
#include "HMDaemonManager.h"

#include "HMAccountManager.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMWisprouteManager.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QString kDNSLog = QStringLiteral("/var/log/hmwispd/dns.log");

// A stored value as one argument. Arguments travel as text, so a port stored as a number
// goes out as its decimal digits.
QString argumentText(const QVariant &value)
{
    if (value.typeId() == QMetaType::Double) {
        const double number = value.toDouble();
        if (number == static_cast<double>(static_cast<qint64>(number))) {
            return QString::number(static_cast<qint64>(number));
        }
    }
    return value.toString();
}

} // namespace

QVariantMap HMDaemonManager::getDaemonConfig() const
{
    const QDir directory(m_paths.executableDirectory);
    return {{QStringLiteral("openVPNPath"), directory.filePath(QStringLiteral("openvpn"))},
            {QStringLiteral("dnsProxyPath"), directory.filePath(QStringLiteral("wisproute"))}};
}

QStringList HMDaemonManager::getVPNConfig() const
{
    QStringList config = HMOpenVPNArgumentForms::head(m_paths.resourceDirectory);
    const QVariant configFile = m_store.value(QStringLiteral("vpnConfigFile"));
    const QString configPath =
        configFile.typeId() == QMetaType::QString ? configFile.toString() : QString();
    if (!configPath.isEmpty() && QFileInfo::exists(configPath)) {
        config << QStringLiteral("--config") << configPath;
    } else if (m_routing && m_routing->isSupported()) {
        config << HMOpenVPNArgumentForms::body(HMOpenVPNArgumentForms::Body::SelectiveRouting);
    } else {
        config << HMOpenVPNArgumentForms::body(HMOpenVPNArgumentForms::Body::FullTunnel);
    }

    config << getVPNServers();
    return config;
}

// The "--remote host port proto" entries, in the account's order.
QStringList HMDaemonManager::getVPNServers() const
{
    QStringList remotes;
    if (!m_account) {
        return remotes;
    }
    const bool forceTCP = pref_bool_value(m_store.value(QStringLiteral("vpnForceTCP")));
    const QVariantList servers = m_account->vpnServers();
    for (const QVariant &entry : servers) {
        const QVariantMap server = entry.toMap();
        QString protocol = QStringLiteral("tcp");
        if (!forceTCP && pref_bool_value(server.value(QStringLiteral("isUdp")))) {
            protocol = QStringLiteral("udp");
        }
        remotes << QStringLiteral("--remote") << argumentText(server.value(QStringLiteral("host")))
                << argumentText(server.value(QStringLiteral("port"))) << protocol;
    }
    return remotes;
}

QStringList HMDaemonManager::getDNSProxyConfigWithWisproute(int mode, const QString &tap) const
{
    QString domainsFile = QStringLiteral("nothing");
    if (mode != HMWisprouteManager::ModeOff) {
        // Every non-zero mode other than 1 uses the inclusion list, also unknown ones.
        domainsFile = HMWisprouteManager::getDomainsFilePathWithExlusion(
            mode == HMWisprouteManager::ModeExclusion);
    }
    QStringList config{QStringLiteral("-f"),      domainsFile,
                       QStringLiteral("-s"),      m_paths.resourceDirectory,
                       QStringLiteral("-log"),    kDNSLog,
                       QStringLiteral("-server"), m_connectedIp ? m_connectedIp() : QString(),
                       QStringLiteral("-tap"),    tap};
    if (mode != HMWisprouteManager::ModeOff) {
        config << QStringLiteral("-wisproute")
               << (mode == HMWisprouteManager::ModeExclusion ? QStringLiteral("wisprouteEx")
                                                             : QStringLiteral("wisproute"));
    }
    const QVariant debug = m_store.value(QStringLiteral("debugWisproute"));
    if (debug.isValid()) {
        config << QStringLiteral("-debug") << argumentText(debug);
    }
    return config;
}
