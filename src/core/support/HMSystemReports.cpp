#include "HMSystemReports.h"

#include "HMLog.h"
#include "HMProcess.h"

#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>
#include <csignal>
#include <unistd.h>

namespace HMSystemReports {

namespace {

QString findProgram(const QString &program)
{
    if (program.contains(QLatin1Char('/'))) {
        return program;
    }
    // A desktop session's PATH often lacks the sbin folders where ip and sysctl live.
    QString found = QStandardPaths::findExecutable(program);
    if (found.isEmpty()) {
        found = QStandardPaths::findExecutable(
            program, {QStringLiteral("/usr/sbin"), QStringLiteral("/sbin"),
                      QStringLiteral("/usr/bin"), QStringLiteral("/bin")});
    }
    return found;
}

std::optional<QString> readTextFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QString();
    }
    // A resolver file is small; the cap keeps a planted giant from filling the archive.
    return decode_trimmed_utf8(file.read(1024 * 1024));
}

std::optional<QString> proxyVariables()
{
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QStringList lines;
    for (const char *name : {"http_proxy", "https_proxy", "ftp_proxy", "all_proxy", "no_proxy"}) {
        for (const QString &variable :
             {QString::fromLatin1(name), QString::fromLatin1(name).toUpper()}) {
            if (environment.contains(variable)) {
                lines.append(variable + QLatin1Char('=') + environment.value(variable));
            }
        }
    }
    return lines.join(QLatin1Char('\n'));
}

} // namespace

QList<HMSystemReport> linuxReports()
{
    return {
        {QStringLiteral("dns.log"),
         {{QStringLiteral("resolvectl"), {QStringLiteral("status")}}},
         [] { return readTextFile(QStringLiteral("/etc/resolv.conf")); }},
        {QStringLiteral("proxy.log"),
         {{QStringLiteral("gsettings"),
           {QStringLiteral("list-recursively"), QStringLiteral("org.gnome.system.proxy")}}},
         proxyVariables},
        {QStringLiteral("routes.log"),
         {{QStringLiteral("ip"),
           {QStringLiteral("-4"), QStringLiteral("route"), QStringLiteral("show"),
            QStringLiteral("table"), QStringLiteral("all")}}},
         nullptr},
        {QStringLiteral("maxsockbuf.log"),
         {{QStringLiteral("sysctl"),
           {QStringLiteral("net.core.rmem_max"), QStringLiteral("net.core.wmem_max")}}},
         nullptr},
    };
}

HMReportRun runBounded(const HMReportCommand &command, int timeoutMs)
{
    HMReportRun run;
    const QString path = findProgram(command.program);
    if (path.isEmpty()) {
        return run;
    }
    QProcess process;
    process.setProgram(path);
    process.setArguments(command.arguments);
    // Nothing may wait for a terminal, and error chatter is not part of the report.
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    // Its own process group, so a timed-out tool is killed together with what it started.
    process.setChildProcessModifier([] { ::setpgid(0, 0); });
    process.start();
    if (!process.waitForStarted(timeoutMs)) {
        return run;
    }
    run.started = true;
    if (!process.waitForFinished(timeoutMs)) {
        run.timedOut = true;
        ::kill(-static_cast<pid_t>(process.processId()), SIGKILL);
        process.waitForFinished(-1);
    } else if (process.exitStatus() == QProcess::NormalExit) {
        run.status = process.exitCode();
    }
    run.output = decode_trimmed_utf8(process.readAllStandardOutput());
    return run;
}

std::optional<QString> produce(const HMSystemReport &report, int timeoutMs)
{
    std::optional<HMReportRun> first;
    for (const HMReportCommand &command : report.commands) {
        HMReportRun run = runBounded(command, timeoutMs);
        if (run.timedOut) {
            HMLogError(QStringLiteral("%1 did not finish within %2 ms; its output so far is kept")
                           .arg(command.program)
                           .arg(timeoutMs));
        }
        if (run.status == 0 && run.output) {
            return maskProxyPasswords(*run.output);
        }
        if (!first && run.started) {
            first = std::move(run);
        }
    }
    if (report.fallback) {
        if (std::optional<QString> text = report.fallback()) {
            return maskProxyPasswords(*text);
        }
    }
    if (!first) {
        // A missing tool contributes an empty member rather than none, as a failing one does.
        return QString();
    }
    return first->output ? std::optional<QString>(maskProxyPasswords(*first->output))
                         : std::nullopt;
}

QString maskProxyPasswords(const QString &text)
{
    static const QRegularExpression urlCredentials(QStringLiteral("(://[^/@\\s:]*:)[^/@\\s]*@"));
    static const QRegularExpression passwordKey(
        QStringLiteral("^(\\S*\\s+\\S*password\\S*\\s+)'.+'$"),
        QRegularExpression::MultilineOption | QRegularExpression::CaseInsensitiveOption);
    QString masked = text;
    masked.replace(urlCredentials, QStringLiteral("\\1********@"));
    masked.replace(passwordKey, QStringLiteral("\\1'********'"));
    return masked;
}

} // namespace HMSystemReports
