// A root process the helper starts and later stops (OpenVPN, and the DNS proxy once it
// exists). It is found again only through its pid file in the helper's private run
// directory and only if /proc/<pid>/exe is the trusted executable, never by name, so a pid
// that was reused by something else is left alone. Started programs get an empty
// environment, /dev/null for standard streams, no inherited descriptors and a session of
// their own.
#pragma once

#include <QString>
#include <QStringList>
#include <sys/types.h>

class HMTrackedProcess
{
public:
    HMTrackedProcess(const QString &executable, const QString &pidFile);

    // The tracked pid when its pid file names a live process running the executable, else 0.
    pid_t running() const;
    // True when pid runs the executable (also when that file was replaced since it started).
    bool runsExecutable(pid_t pid) const;

    // Starts the executable with arguments as the helper's child and records it in the pid
    // file; returns its pid, or 0 with the reason.
    pid_t spawn(const QStringList &arguments, QString *error) const;

    // SIGTERM, up to timeoutMs for it to end, then SIGKILL. True when nothing runs any more,
    // including when nothing ran to begin with.
    bool terminate(int timeoutMs, QString *error) const;

    QString executable() const { return m_executable; }
    QString pidFile() const { return m_pidFile; }

private:
    QString m_executable;
    QString m_pidFile;
};
