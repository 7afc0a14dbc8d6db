// Starts and stops the one OpenVPN the helper runs. Starting first ends any OpenVPN the
// helper still tracks, prepares the requesting user's private management directory, runs the
// trusted executable with an already checked argument list and waits until that very process
// listens on its management socket - only then is "startVPN" answered "ok". The listener is
// matched to the process's own sockets, so another program squatting on the path does not
// count as OpenVPN having started. OpenVPN stays the helper's child, so an early exit is
// seen at once and reported with the last line of its log.
//
// The management socket lies in <management>/<uid>/, a root-owned 0700 directory that an
// access list opens to that user alone (pass-through only), so no other local user can
// even reach it; OpenVPN's own "--management-client-user" check stands behind that.
#pragma once

#include "HMHelperConfig.h"
#include "HMOpenVPNArguments.h"
#include "HMTrackedProcess.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <sys/types.h>

class HMHelperLog;

class HMOpenVPNController
{
public:
    HMOpenVPNController(const HMHelperConfig &config, HMHelperLog &log);

    // Empty on success, otherwise why OpenVPN is not running. owner is the user who asked
    // for the tunnel; only they may use its management interface.
    QString start(const HMOpenVPNArguments::Launch &launch, const QString &sanitisedConfig,
                  uid_t owner);
    // Empty when no OpenVPN is left running.
    QString stop();

    // True when pid owns a Unix socket listening on path.
    static bool isListening(pid_t pid, const QString &path);
    // A listener of that process on 127.0.0.1:port over TCP (the DNS proxy's port).
    static bool isListening(pid_t pid, quint16 port);

private:
    // The owner's management socket path and user name, with the directory ready.
    std::optional<HMOpenVPNArguments::Management> prepareManagement(uid_t owner,
                                                                    QString *error) const;
    QString lastLogLine() const;

    HMHelperConfig m_config;
    HMHelperLog &m_log;
    HMTrackedProcess m_process;
};
