// The four snapshots of the machine's network set-up that go with the logs.
//
// Each report is one archive member filled from the first of its commands that runs and
// exits 0, else from its fallback (a file or the environment): the resolver's status
// (resolvectl, else /etc/resolv.conf), the desktop proxy settings (gsettings, else the
// *_proxy variables), the IPv4 routing tables and the kernel's socket buffer limits. A
// report never fails: a missing or failing command contributes its possibly empty output,
// a command that hangs is killed after the time-out and keeps what it printed so far, and
// only output that is not UTF-8 leaves its member out. Runs on the background pool only:
// every command blocks its calling thread.
//
// Proxy passwords (in gsettings keys or in a proxy URL) are masked before anything
// leaves the machine.
#pragma once

#include <QList>
#include <QStringList>
#include <functional>
#include <optional>

struct HMReportCommand
{
    QString program; // a bare name is looked up in PATH, then in /usr/sbin and /sbin
    QStringList arguments;
};

struct HMSystemReport
{
    QString member;
    QList<HMReportCommand> commands;
    // Used when no command gave a usable answer; may be empty.
    std::function<std::optional<QString>()> fallback;
};

namespace HMSystemReports {

constexpr int kDefaultTimeoutMs = 5000;

// In the order they are run and listed: dns.log, proxy.log, routes.log, maxsockbuf.log.
QList<HMSystemReport> linuxReports();

// The member's content, or nullopt when it is to be left out.
std::optional<QString> produce(const HMSystemReport &report, int timeoutMs = kDefaultTimeoutMs);

struct HMReportRun
{
    bool started = false;
    bool timedOut = false;
    int status = -1; // the exit status; -1 when it crashed or was killed
    // Trimmed standard output; nullopt when it is not UTF-8 or nothing started.
    std::optional<QString> output;
};

// Runs one command with standard input closed, killing it (and what it started) after
// `timeoutMs`; a killed command keeps the output it gave so far.
HMReportRun runBounded(const HMReportCommand &command, int timeoutMs);

// "user:secret@" in URLs and the values of "*password*" keys replaced by "********".
QString maskProxyPasswords(const QString &text);

} // namespace HMSystemReports
