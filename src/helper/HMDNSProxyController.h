// The helper's side of selective routing: "startDNSProxy", "stopDNSProxy". The argument
// list must be exactly the one the application builds (see the forms in checkArguments);
// the tap must be the device the helper's own running OpenVPN opened and -server the
// address it connected to (both read from OpenVPN's log, not taken on trust); the domain
// file becomes a checked copy in the run directory (HMDomainFileChecker). The helper then
// runs its trusted wisproute with its own paths in place of the application's, plus what
// only it knows: the resolvers saved by the tunnel's up script and the tunnel's resolvers.
// A start replaces a running proxy; a stop ends it and removes every route it set, also
// when it was killed and could not remove them itself.
#pragma once

#include "HMHelperConfig.h"
#include "HMTrackedProcess.h"

#include <QString>
#include <QStringList>
#include <optional>

class HMHelperLog;
class HMPeerCredentials;

class HMDNSProxyController
{
public:
    // What the application writes after "-log"; the helper's own log path replaces it.
    static const QString kApplicationLogPath;

    struct Request
    {
        QString domainFile; // empty: off
        QString server;
        QString tap;
        QString mode; // "wisproute", "wisprouteEx" or empty
        QString debug;
    };

    HMDNSProxyController(const HMHelperConfig &config, HMHelperLog &log);

    // The request when `arguments` has one of the application's shapes, else the reason.
    std::optional<Request> checkArguments(const QStringList &arguments, QString *error) const;
    // Empty when the tap and server are those of the helper's running OpenVPN.
    QString checkTunnel(const Request &request) const;

    // Empty on success; `refused` tells a refusal (the request's fault) from a failure.
    QString start(const Request &request, const HMPeerCredentials &peer, bool *refused);
    // Empty when no proxy runs and none of its routes is left.
    QString stop();

    // The list wisproute is run with.
    QStringList proxyArguments(const Request &request, const QString &checkedFile) const;
    QString checkedFilePath() const;
    QString originalResolversPath() const;

private:
    QString lastLogLine() const;

    HMHelperConfig m_config;
    HMHelperLog &m_log;
    HMTrackedProcess m_process;
};
