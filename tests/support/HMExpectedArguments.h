// The OpenVPN argument list exactly as the application sends it to the helper (without the
// --remote tail), written out here once, independently of the code that builds or checks it.
#pragma once

#include <QStringList>

namespace HMExpectedArguments {

inline QString upScript()
{
    return QStringLiteral("client.up.tunnelblick.sh -m -w -d -aradsgnwADSGNW");
}

inline QString downScript()
{
    return QStringLiteral("client.down.tunnelblick.sh -m -w -d -aradsgnwADSGNW");
}

// The seven words every form starts with.
inline QStringList head(const QString &resources)
{
    return QStringLiteral("--cd|%1|--management|127.0.0.1|5678|--management-hold|"
                          "--management-query-passwords")
        .arg(resources)
        .split(QLatin1Char('|'));
}

// Head and built-in body: 47 words with the local DNS proxy as the tunnel's name server
// (selective routing), 52 sending everything through the tunnel.
inline QStringList vpnConfig(const QString &resources, bool selectiveRouting)
{
    const QString dns = selectiveRouting ? QStringLiteral("DNS|127.0.0.1")
                                         : QStringLiteral("DNS|8.8.8.8|--dhcp-option|DNS|8.8.4.4|"
                                                          "--redirect-gateway|def1");
    return head(resources) +
           QStringLiteral("--auth-user-pass|--ca|ca.crt|--cert|key.crt|--key|key.key|--client|"
                          "--comp-lzo|--daemon|--dev|tun0|--log|/var/log/hmwispd/vpn.log|"
                          "--nobind|--ns-cert-type|server|--persist-key|--persist-tun|--ping|10|"
                          "--ping-restart|30|--dhcp-option|%1|--up|%2|--down|%3|--up-restart|"
                          "--hand-window|20|--resolv-retry|infinite|--script-security|3|system|"
                          "--verb|3")
               .arg(dns, upScript(), downScript())
               .split(QLatin1Char('|'));
}

} // namespace HMExpectedArguments
