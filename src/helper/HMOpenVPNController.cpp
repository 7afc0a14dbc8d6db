#include "HMOpenVPNController.h"

#include "HMHelperLog.h"
#include "HMLogTail.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int64_t nowMs()
{
    struct timespec ts
    {
    };
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void pause(int ms)
{
    struct timespec ts
    {
        0, static_cast<long>(ms) * 1000000L
    };
    ::nanosleep(&ts, nullptr);
}

QSet<QByteArray> socketInodes(pid_t pid)
{
    QSet<QByteArray> inodes;
    const QByteArray dirPath = QByteArrayLiteral("/proc/") + QByteArray::number(pid) + "/fd";
    DIR *dir = ::opendir(dirPath.constData());
    if (!dir) {
        return inodes;
    }
    while (struct dirent *entry = ::readdir(dir)) {
        const QByteArray link = dirPath + '/' + entry->d_name;
        char target[64];
        const ssize_t length = ::readlink(link.constData(), target, sizeof(target) - 1);
        if (length > 9) {
            const QByteArray text(target, static_cast<int>(length));
            if (text.startsWith("socket:[") && text.endsWith(']')) {
                inodes.insert(text.mid(8, text.size() - 9));
            }
        }
    }
    ::closedir(dir);
    return inodes;
}

} // namespace

HMOpenVPNController::HMOpenVPNController(const HMHelperConfig &config, HMHelperLog &log)
    : m_config(config), m_log(log), m_process(config.openVPNPath, config.openVPNPidPath())
{}

bool HMOpenVPNController::isListening(pid_t pid, quint16 port)
{
    const QSet<QByteArray> inodes = socketInodes(pid);
    if (inodes.isEmpty()) {
        return false;
    }
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly)) {
        return false;
    }
    // 127.0.0.1 as the kernel prints it (host byte order), the port in hex; 0A is LISTEN.
    const QByteArray local = QByteArrayLiteral("0100007F:") +
                             QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    const QList<QByteArray> lines = table.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() > 9 && fields.at(1) == local && fields.at(3) == "0A" &&
            inodes.contains(fields.at(9))) {
            return true;
        }
    }
    return false;
}

QString HMOpenVPNController::lastLogLine() const
{
    const QStringList lines =
        HMLogTail::read(m_config.vpnLogPath(), 4096).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return lines.isEmpty() ? QStringLiteral("(vpn.log is empty)") : lines.last().trimmed();
}

QString HMOpenVPNController::start(const QStringList &arguments)
{
    QString why = stop();
    if (!why.isEmpty()) {
        return QStringLiteral("the OpenVPN already running could not be stopped: %1").arg(why);
    }

    const pid_t pid = m_process.spawn(arguments, &why);
    if (pid == 0) {
        return why;
    }
    m_log.write(QStringLiteral("started OpenVPN (pid %1): %2")
                    .arg(pid)
                    .arg(arguments.join(QLatin1Char(' '))));

    const int64_t deadline = nowMs() + m_config.startTimeoutMs;
    while (nowMs() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            QFile::remove(m_config.openVPNPidPath());
            const QString how =
                WIFEXITED(status) ? QStringLiteral("exited with status %1").arg(WEXITSTATUS(status))
                                  : QStringLiteral("was killed by signal %1").arg(WTERMSIG(status));
            return QStringLiteral("OpenVPN %1 before its management port opened: %2")
                .arg(how, lastLogLine());
        }
        if (isListening(pid, kManagementPort)) {
            m_log.write(QStringLiteral("OpenVPN (pid %1) listens on its management port").arg(pid));
            return QString();
        }
        pause(25);
    }
    m_process.terminate(m_config.stopTimeoutMs, &why);
    return QStringLiteral("OpenVPN's management port did not open within %1 ms: %2")
        .arg(m_config.startTimeoutMs)
        .arg(lastLogLine());
}

QString HMOpenVPNController::stop()
{
    const pid_t pid = m_process.running();
    QString why;
    if (!m_process.terminate(m_config.stopTimeoutMs, &why)) {
        return why;
    }
    if (pid != 0) {
        m_log.write(QStringLiteral("stopped OpenVPN (pid %1)").arg(pid));
    }
    return QString();
}
