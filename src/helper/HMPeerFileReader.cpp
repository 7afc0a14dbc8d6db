#include "HMPeerFileReader.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The child reports one of these in its first byte, then the file's bytes.
enum Outcome : unsigned char
{
    Read = 0,
    CannotDropPrivileges,
    SymbolicLink,
    NotFound,
    AccessDenied,
    CannotOpen,
    NotRegular,
    ForeignOwner,
    TooLarge,
    ReadFailed
};

bool writeAll(int fd, const char *data, size_t length)
{
    while (length > 0) {
        const ssize_t n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

int openWithoutLinks(const char *path)
{
    struct open_how how
    {
    };
    how.flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof(how));
    if (fd >= 0 || errno != ENOSYS) {
        return static_cast<int>(fd);
    }
    // Kernels before 5.6: at least the last component must not be a link.
    return ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

[[noreturn]] void childRead(int out, const QByteArray &path, const HMPeerCredentials &peer,
                            qint64 maxSize)
{
    const auto finish = [out](Outcome outcome) {
        const unsigned char code = outcome;
        writeAll(out, reinterpret_cast<const char *>(&code), 1);
        ::_exit(0);
    };
    if (!peer.isRoot()) {
        if (::setgroups(peer.groups.size(), peer.groups.data()) != 0 ||
            ::setresgid(peer.gid, peer.gid, peer.gid) != 0 ||
            ::setresuid(peer.uid, peer.uid, peer.uid) != 0 || ::geteuid() != peer.uid) {
            finish(CannotDropPrivileges);
        }
    }
    const int fd = openWithoutLinks(path.constData());
    if (fd < 0) {
        switch (errno) {
        case ELOOP:
            finish(SymbolicLink);
            break;
        case ENOENT:
        case ENOTDIR:
            finish(NotFound);
            break;
        case EACCES:
        case EPERM:
            finish(AccessDenied);
            break;
        default:
            finish(CannotOpen);
        }
    }
    struct stat st
    {
    };
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        finish(NotRegular);
    }
    if (st.st_uid != peer.uid && st.st_uid != 0) {
        finish(ForeignOwner);
    }
    if (st.st_size > maxSize) {
        finish(TooLarge);
    }
    QByteArray data(static_cast<qsizetype>(maxSize + 1), '\0');
    qint64 got = 0;
    while (got <= maxSize) {
        const ssize_t n = ::read(fd, data.data() + got, static_cast<size_t>(maxSize + 1 - got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            finish(ReadFailed);
        }
        if (n == 0) {
            break;
        }
        got += n;
    }
    if (got > maxSize) {
        finish(TooLarge);
    }
    const unsigned char code = Read;
    if (writeAll(out, reinterpret_cast<const char *>(&code), 1)) {
        writeAll(out, data.constData(), static_cast<size_t>(got));
    }
    ::_exit(0);
}

QString describe(Outcome outcome, const QString &path, qint64 maxSize)
{
    switch (outcome) {
    case CannotDropPrivileges:
        return QStringLiteral("cannot take on the requesting user's identity to read %1").arg(path);
    case SymbolicLink:
        return QStringLiteral("%1 is or passes through a symbolic link").arg(path);
    case NotFound:
        return QStringLiteral("%1 does not exist").arg(path);
    case AccessDenied:
        return QStringLiteral("%1 cannot be read by the requesting user").arg(path);
    case NotRegular:
        return QStringLiteral("%1 is not a regular file").arg(path);
    case ForeignOwner:
        return QStringLiteral("%1 is owned by another user").arg(path);
    case TooLarge:
        return QStringLiteral("%1 is larger than %2 bytes").arg(path).arg(maxSize);
    case ReadFailed:
        return QStringLiteral("%1 could not be read").arg(path);
    default:
        return QStringLiteral("%1 cannot be opened").arg(path);
    }
}

} // namespace

std::optional<QByteArray> HMPeerFileReader::read(const QString &path, const HMPeerCredentials &peer,
                                                 qint64 maxSize, QString *error)
{
    if (!path.startsWith(QLatin1Char('/')) || path.contains(QChar(0))) {
        *error = QStringLiteral("'%1' is not an absolute file path").arg(path);
        return std::nullopt;
    }
    const QByteArray localPath = path.toLocal8Bit();
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        *error = QStringLiteral("cannot read %1: no pipe").arg(path);
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        *error = QStringLiteral("cannot read %1: cannot start a reader").arg(path);
        return std::nullopt;
    }
    if (child == 0) {
        ::close(pipeFds[0]);
        ::signal(SIGPIPE, SIG_DFL);
        childRead(pipeFds[1], localPath, peer, maxSize);
    }
    ::close(pipeFds[1]);

    QByteArray received;
    char buffer[16384];
    for (;;) {
        // The child never blocks on the file (O_NONBLOCK, regular files only), so this bound
        // only guards against the unexpected.
        struct pollfd pfd
        {
            pipeFds[0], POLLIN, 0
        };
        if (::poll(&pfd, 1, 10000) <= 0) {
            ::kill(child, SIGKILL);
            break;
        }
        const ssize_t n = ::read(pipeFds[0], buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0 || received.size() + n > maxSize + 1) {
            if (n > 0) {
                ::kill(child, SIGKILL);
            }
            break;
        }
        received.append(buffer, n);
    }
    ::close(pipeFds[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (received.isEmpty() || !WIFEXITED(status)) {
        *error = QStringLiteral("cannot read %1: the reader failed").arg(path);
        return std::nullopt;
    }
    const auto outcome = static_cast<Outcome>(static_cast<unsigned char>(received.at(0)));
    if (outcome != Read) {
        *error = describe(outcome, path, maxSize);
        return std::nullopt;
    }
    return received.mid(1);
}
