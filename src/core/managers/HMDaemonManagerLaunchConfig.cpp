// HMDaemonManager: the argument lists the helper's start requests carry.
//
// The lists are built exactly: the helper accepts only these shapes, and OpenVPN reads the
// certificate and key names relative to "--cd". Several entries look wrong and are not:
// "--script-security" takes the old two words "3" "system" (the helper drops "system" for
// OpenVPN 2.6), each script name carries its flags inside one argument, and with
// selective routing available the tunnel gets the local DNS proxy as its only name server
// and no default-route redirection, because the proxy steers the traffic.
#include "HMDaemonManager.h"

#include "HMAccountManager.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMWisprouteManager.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QString kVPNLog = QStringLiteral("/var/log/hmwispd/vpn.log");
const QString kDNSLog = QStringLiteral("/var/log/hmwispd/dns.log");

QStringList bodyUpToPingRestart()
{
    return {QStringLiteral("--auth-user-pass"),
            QStringLiteral("--ca"),
            QStringLiteral("ca.crt"),
            QStringLiteral("--cert"),
            QStringLiteral("key.crt"),
            QStringLiteral("--key"),
            QStringLiteral("key.key"),
            QStringLiteral("--client"),
            QStringLiteral("--comp-lzo"),
            QStringLiteral("--daemon"),
            QStringLiteral("--dev"),
            QStringLiteral("tun0"),
            QStringLiteral("--log"),
            kVPNLog,
            QStringLiteral("--nobind"),
            QStringLiteral("--ns-cert-type"),
            QStringLiteral("server"),
            QStringLiteral("--persist-key"),
            QStringLiteral("--persist-tun"),
            QStringLiteral("--ping"),
            QStringLiteral("10"),
            QStringLiteral("--ping-restart"),
            QStringLiteral("30")};
}

QStringList bodyFromUp()
{
    return {QStringLiteral("--up"),
            QStringLiteral("client.up.tunnelblick.sh -m -w -d -aradsgnwADSGNW"),
            QStringLiteral("--down"),
            QStringLiteral("client.down.tunnelblick.sh -m -w -d -aradsgnwADSGNW"),
            QStringLiteral("--up-restart"),
            QStringLiteral("--hand-window"),
            QStringLiteral("20"),
            QStringLiteral("--resolv-retry"),
            QStringLiteral("infinite"),
            QStringLiteral("--script-security"),
            QStringLiteral("3"),
            QStringLiteral("system"),
            QStringLiteral("--verb"),
            QStringLiteral("3")};
}

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
    QStringList config{QStringLiteral("--cd"),
                       m_paths.resourceDirectory,
                       QStringLiteral("--management"),
                       QStringLiteral("127.0.0.1"),
                       QStringLiteral("5678"),
                       QStringLiteral("--management-hold"),
                       QStringLiteral("--management-query-passwords")};

    const QVariant configFile = m_store.value(QStringLiteral("vpnConfigFile"));
    const QString configPath =
        configFile.typeId() == QMetaType::QString ? configFile.toString() : QString();
    if (!configPath.isEmpty() && QFileInfo::exists(configPath)) {
        config << QStringLiteral("--config") << configPath;
    } else if (m_routing && m_routing->isSupported()) {
        config << bodyUpToPingRestart() << QStringLiteral("--dhcp-option") << QStringLiteral("DNS")
               << QStringLiteral("127.0.0.1") << bodyFromUp();
    } else {
        config << bodyUpToPingRestart() << QStringLiteral("--dhcp-option") << QStringLiteral("DNS")
               << QStringLiteral("8.8.8.8") << QStringLiteral("--dhcp-option")
               << QStringLiteral("DNS") << QStringLiteral("8.8.4.4")
               << QStringLiteral("--redirect-gateway") << QStringLiteral("def1") << bodyFromUp();
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
