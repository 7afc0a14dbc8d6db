#include "HMOpenVPNArgumentForms.h"

namespace HMOpenVPNArgumentForms {

QString vpnLogPath()
{
    return QStringLiteral("/var/log/hmwispd/vpn.log");
}

QString managementDirectory()
{
    return QStringLiteral("/run/hmwispd-management");
}

QString managementSocketPath(const QString &directory, uint uid)
{
    return directory + QLatin1Char('/') + QString::number(uid) + QStringLiteral("/management");
}

QStringList head(const QString &resourceDirectory)
{
    return {QStringLiteral("--cd"),
            resourceDirectory,
            QStringLiteral("--management"),
            QStringLiteral("127.0.0.1"),
            QStringLiteral("5678"),
            QStringLiteral("--management-hold"),
            QStringLiteral("--management-query-passwords")};
}

QStringList body(Body body)
{
    QStringList list = {QStringLiteral("--auth-user-pass"),
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
                        vpnLogPath(),
                        QStringLiteral("--nobind"),
                        QStringLiteral("--ns-cert-type"),
                        QStringLiteral("server"),
                        QStringLiteral("--persist-key"),
                        QStringLiteral("--persist-tun"),
                        QStringLiteral("--ping"),
                        QStringLiteral("10"),
                        QStringLiteral("--ping-restart"),
                        QStringLiteral("30")};
    if (body == Body::SelectiveRouting) {
        list << QStringLiteral("--dhcp-option") << QStringLiteral("DNS")
             << QStringLiteral("127.0.0.1");
    } else {
        list << QStringLiteral("--dhcp-option") << QStringLiteral("DNS")
             << QStringLiteral("8.8.8.8") << QStringLiteral("--dhcp-option")
             << QStringLiteral("DNS") << QStringLiteral("8.8.4.4")
             << QStringLiteral("--redirect-gateway") << QStringLiteral("def1");
    }
    list << QStringLiteral("--up")
         << QStringLiteral("client.up.tunnelblick.sh -m -w -d -aradsgnwADSGNW")
         << QStringLiteral("--down")
         << QStringLiteral("client.down.tunnelblick.sh -m -w -d -aradsgnwADSGNW")
         << QStringLiteral("--up-restart") << QStringLiteral("--hand-window")
         << QStringLiteral("20") << QStringLiteral("--resolv-retry") << QStringLiteral("infinite")
         << QStringLiteral("--script-security") << QStringLiteral("3") << QStringLiteral("system")
         << QStringLiteral("--verb") << QStringLiteral("3");
    return list;
}

} // namespace HMOpenVPNArgumentForms
