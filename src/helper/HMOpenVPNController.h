// Starts and stops the one OpenVPN the helper runs. Starting first ends any OpenVPN the
// helper still tracks, then runs the trusted executable with an already checked argument
// list and waits until that very process listens on the
// management port, 127.0.0.1:5678 - only then is "startVPN" answered "ok". The listener is
// matched to the process's own sockets, so another program squatting on the port does not
// count as OpenVPN having started. OpenVPN stays the helper's child, so an early exit is
// seen at once and reported with the last line of its log.
#pragma once

#include "HMHelperConfig.h"
#include "HMTrackedProcess.h"

#include <QString>
#include <QStringList>

class HMHelperLog;

class HMOpenVPNController
{
public:
    static constexpr quint16 kManagementPort = 5678;

    HMOpenVPNController(const HMHelperConfig &config, HMHelperLog &log);

    // Empty on success, otherwise why OpenVPN is not running.
    QString start(const QStringList &arguments);
    // Empty when no OpenVPN is left running.
    QString stop();

    // True when pid owns a socket listening on 127.0.0.1:port.
    static bool isListening(pid_t pid, quint16 port);

private:
    QString lastLogLine() const;

    HMHelperConfig m_config;
    HMHelperLog &m_log;
    HMTrackedProcess m_process;
};
