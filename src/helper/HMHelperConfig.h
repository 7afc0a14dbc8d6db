// The helper's trusted settings: which OpenVPN and DNS proxy it runs, where its resources,
// logs and private run files live, which group may talk to it and how long it waits.
// They come from the build and may be overridden only by a root-owned configuration file
// (HMPathTrust) named on the helper's own command line; nothing a client sends changes them.
//
// File format: "key = value" lines, "#" starts a comment. Keys: openvpn, wisproute,
// resources, logs, run, management, group, client-timeout-ms, start-timeout-ms,
// stop-timeout-ms, tunnel-dns.
#pragma once

#include <QString>
#include <optional>

class HMHelperConfig
{
public:
    QString openVPNPath;
    QString dnsProxyPath;
    QString resourceDir;
    QString logDir;
    QString runDir;
    // Holds one 0700 directory per user for OpenVPN's management socket.
    QString managementDir;
    QString allowedGroup;
    // The resolvers the DNS proxy asks through the tunnel, as the full-tunnel form pushes them.
    QString tunnelResolvers = QStringLiteral("8.8.8.8,8.8.4.4");
    // A client must deliver its whole request within this time.
    int clientTimeoutMs = 5000;
    // OpenVPN must open its management port within this time.
    int startTimeoutMs = 20000;
    // After SIGTERM, OpenVPN gets this long (its down script included) before SIGKILL.
    int stopTimeoutMs = 5000;

    // The build's defaults.
    static HMHelperConfig defaults();
    // The defaults overridden by a trusted file; nullopt with a reason when the file cannot
    // be trusted or does not parse.
    static std::optional<HMHelperConfig> load(const QString &path, QString *error);
    // The default configuration file when it exists, else the build's defaults.
    static std::optional<HMHelperConfig> loadDefault(QString *error);

    QString vpnLogPath() const;
    QString daemonLogPath() const;
    QString dnsLogPath() const;
    QString openVPNPidPath() const;

private:
    bool apply(const QString &key, const QString &value, QString *error);
};
