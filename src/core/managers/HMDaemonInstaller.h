// Makes sure the root helper this application was built with is the one installed, and
// repairs the installation through pkexec when it is not.
//
// The helper's service manager is systemd: the installed program is the first word of
// ExecStart= in the service unit (HMDaemonManager::getInstalledDaemonPath). The helper is
// kept only when that program exists, carries the same build version as this
// application, hashes to the SHA-256 pinned into the application at build time, is root's
// and writable by nobody else, and the user is a member of the helper's group as the
// group database says now. Otherwise the old helper is asked to stop ("suicide") when its
// program exists, and `pkexec <install script>` creates the group, adds the user, fixes the
// socket unit and restarts the service. pkexec's exit status 126 means the user dismissed
// the authorisation dialog: the retry dialog then offers exactly one more attempt.
//
// A repair that leaves the helper still failing the checks is an error too: the script
// cannot replace a program the package put there, and asking again at every start would
// only nag. Every system touch point (process runner, dialog, file checks' paths, the
// helper client) is injected, so tests drive every branch without a root prompt.
#pragma once

#include "HMError.h"

#include <QString>
#include <QStringList>
#include <functional>

class HMDaemonManager;

class HMDaemonInstaller
{
public:
    static const QString kLabel;            // "com.hollowmere.mac.hmwispd"
    static const QString kRetryMessage;     // the retry dialog's message
    static const QString kRetryInformative; // the retry dialog's informative text
    static constexpr int kCancelledCode = -60006;
    static constexpr int kPkexecDismissed = 126;

    struct Result
    {
        int exitCode = -1; // -1: could not be started
        QString errorOutput;
    };
    using Runner = std::function<Result(const QString &program, const QStringList &arguments)>;

    struct Environment
    {
        QString shippedVersion;            // the build version this application carries
        QString pinnedSha256;              // hex, lower case
        QString group;                     // the helper's group
        QString installScript;             // run through pkexec
        QString pkexecPath;                // "pkexec" found on PATH unless a test sets one
        Runner runner;                     // runs a program to its end
        std::function<bool()> retryDialog; // true for "Go Back"
        // Whether the user running the application is in the group (the database now).
        std::function<bool(const QString &group)> userInGroup;

        static Environment production();
    };

    HMDaemonInstaller(HMDaemonManager &daemon, Environment environment);

    // Creates the helper client's command queue, then checks and repairs. The error of the
    // last installation attempt, or nothing when none was needed or it succeeded.
    HMMaybeError initializeDaemons();
    bool shouldReinstallDaemon(const QString &label) const;
    // The build version recorded in a helper program ("" when it carries none).
    static QString getInstalledDaemonVersion(const QString &programPath);
    QString getCurrentDaemonVersion() const { return m_env.shippedVersion; }
    HMMaybeError blessHelperWithLabel(const QString &label);

    // What shouldReinstallDaemon found at its first failing step (for the log).
    QString lastReason() const { return m_lastReason; }

private:
    HMDaemonManager &m_daemon;
    Environment m_env;
    mutable QString m_lastReason;
};
