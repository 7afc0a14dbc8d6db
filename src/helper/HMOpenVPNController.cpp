#include "HMOpenVPNController.h"

#include "HMHelperLog.h"
#include "HMLogTail.h"
#include "HMOpenVPNArgumentForms.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
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

// Sets the directory's access list to owner rwx, `uid` pass-through only, nobody else: the
// kernel's extended-attribute form, so no library is needed for five entries.
bool allowPassage(const QByteArray &dir, uid_t uid)
{
    struct Entry
    {
        quint16 tag;
        quint16 permissions;
        quint32 id;
    };
    constexpr quint32 kNoId = 0xffffffffu;
    // Sorted by tag as the kernel requires: user owner, named user, group owner, mask, other.
    const Entry entries[] = {{0x01, 7, kNoId},
                             {0x02, 1, static_cast<quint32>(uid)},
                             {0x04, 0, kNoId},
                             {0x10, 1, kNoId},
                             {0x20, 0, kNoId}};
    QByteArray value;
    const quint32 version = 2;
    value.append(reinterpret_cast<const char *>(&version), sizeof(version));
    for (const Entry &entry : entries) {
        value.append(reinterpret_cast<const char *>(&entry.tag), sizeof(entry.tag));
        value.append(reinterpret_cast<const char *>(&entry.permissions), sizeof(entry.permissions));
        value.append(reinterpret_cast<const char *>(&entry.id), sizeof(entry.id));
    }
    return ::setxattr(dir.constData(), "system.posix_acl_access", value.constData(),
                      static_cast<size_t>(value.size()), 0) == 0;
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

bool HMOpenVPNController::isListening(pid_t pid, const QString &path)
{
    const QSet<QByteArray> inodes = socketInodes(pid);
    if (inodes.isEmpty()) {
        return false;
    }
    QFile table(QStringLiteral("/proc/net/unix"));
    if (!table.open(QIODevice::ReadOnly)) {
        return false;
    }
    // "Num RefCount Protocol Flags Type St Inode Path"; flag 00010000 marks a listener.
    const QByteArray wanted = QFile::encodeName(path);
    const QList<QByteArray> lines = table.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() == 8 && fields.at(3) == "00010000" && fields.at(7) == wanted &&
            inodes.contains(fields.at(6))) {
            return true;
        }
    }
    return false;
}

std::optional<HMOpenVPNArguments::Management>
HMOpenVPNController::prepareManagement(uid_t owner, QString *error) const
{
    struct passwd entry
    {
    };
    struct passwd *found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(owner, &entry, buffer, sizeof(buffer), &found) != 0 || !found) {
        *error = QStringLiteral("user %1 has no entry in the user database").arg(owner);
        return std::nullopt;
    }
    const QByteArray base = QFile::encodeName(m_config.managementDir);
    struct stat info
    {
    };
    // chmod because the helper's umask would keep users out of their own directories.
    if (::mkdir(base.constData(), 0755) == 0) {
        ::chmod(base.constData(), 0755);
    } else if (errno != EEXIST) {
        *error = QStringLiteral("cannot make %1: %2")
                     .arg(m_config.managementDir, QString::fromLocal8Bit(::strerror(errno)));
        return std::nullopt;
    }
    if (::lstat(base.constData(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != 0 ||
        (info.st_mode & 022) != 0) {
        *error = QStringLiteral("%1 is not a root-owned directory that only root may change")
                     .arg(m_config.managementDir);
        return std::nullopt;
    }
    // The user's directory stays root's (OpenVPN, root without the power to override file
    // modes, must create the socket in it) and is opened to that user alone by an access
    // list entry allowing to pass through. Anything else found under its name goes.
    const QString userDir = m_config.managementDir + QLatin1Char('/') + QString::number(owner);
    const QByteArray dir = QFile::encodeName(userDir);
    if (::lstat(dir.constData(), &info) == 0 &&
        (!S_ISDIR(info.st_mode) || info.st_uid != 0 || (info.st_mode & 0007) != 0)) {
        if (S_ISDIR(info.st_mode)) {
            QDir(userDir).removeRecursively();
        } else {
            ::unlink(dir.constData());
        }
    }
    if (::mkdir(dir.constData(), 0700) != 0 && errno != EEXIST) {
        *error = QStringLiteral("cannot make %1: %2")
                     .arg(userDir, QString::fromLocal8Bit(::strerror(errno)));
        return std::nullopt;
    }
    if (owner != 0 && !allowPassage(dir, owner)) {
        *error = QStringLiteral("cannot open %1 to user %2: %3")
                     .arg(userDir)
                     .arg(owner)
                     .arg(QString::fromLocal8Bit(::strerror(errno)));
        return std::nullopt;
    }
    const QString socketPath =
        HMOpenVPNArgumentForms::managementSocketPath(m_config.managementDir, owner);
    ::unlink(QFile::encodeName(socketPath).constData());
    return HMOpenVPNArguments::Management{socketPath, QString::fromLocal8Bit(found->pw_name)};
}

QString HMOpenVPNController::lastLogLine() const
{
    const QStringList lines =
        HMLogTail::read(m_config.vpnLogPath(), 4096).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return lines.isEmpty() ? QStringLiteral("(vpn.log is empty)") : lines.last().trimmed();
}

QString HMOpenVPNController::start(const HMOpenVPNArguments::Launch &launch,
                                   const QString &sanitisedConfig, uid_t owner)
{
    QString why = stop();
    if (!why.isEmpty()) {
        return QStringLiteral("the OpenVPN already running could not be stopped: %1").arg(why);
    }
    const std::optional<HMOpenVPNArguments::Management> management = prepareManagement(owner, &why);
    if (!management) {
        return QStringLiteral("OpenVPN's management interface cannot be prepared: %1").arg(why);
    }
    const QStringList arguments =
        HMOpenVPNArguments::build(launch, m_config, *management, sanitisedConfig);

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
        if (isListening(pid, management->socketPath)) {
            m_log.write(QStringLiteral("OpenVPN (pid %1) listens on its management port").arg(pid));
            return QString();
        }
        // Short: the client's switch-on waits on this loop, and OpenVPN opens the port some
        // 10 to 20 ms after it starts, so a longer step adds most of itself to every start.
        pause(5);
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
