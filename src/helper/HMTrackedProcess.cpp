#include "HMTrackedProcess.h"

#include "HMPathTrust.h"

#include <QByteArray>
#include <QFile>
#include <QSaveFile>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int pidfdOpen(pid_t pid)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int pidfdSignal(int pidfd, int signal)
{
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

// Waits for the process behind pidfd to end; reaps it when it is the helper's child (the
// helper is a child subreaper, so a daemonised OpenVPN becomes one).
bool waitForExit(int pidfd, pid_t pid, int timeoutMs)
{
    struct pollfd pfd
    {
        pidfd, POLLIN, 0
    };
    int ready;
    do {
        ready = ::poll(&pfd, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return false;
    }
    int status = 0;
    ::waitpid(pid, &status, WNOHANG);
    return true;
}

} // namespace

HMTrackedProcess::HMTrackedProcess(const QString &executable, const QString &pidFile)
    : m_executable(executable), m_pidFile(pidFile)
{}

bool HMTrackedProcess::runsExecutable(pid_t pid) const
{
    if (pid <= 1) {
        return false;
    }
    const QByteArray link = QByteArrayLiteral("/proc/") + QByteArray::number(pid) + "/exe";
    char target[PATH_MAX];
    const ssize_t length = ::readlink(link.constData(), target, sizeof(target) - 1);
    if (length <= 0) {
        return false; // gone, or a zombie
    }
    const QString running = QString::fromLocal8Bit(target, static_cast<int>(length));
    if (HMPathTrust::sameFile(QString::fromLatin1(link), m_executable)) {
        return true;
    }
    // After a package update the running image is the replaced file.
    const QString expected = HMPathTrust::resolved(m_executable);
    return !expected.isEmpty() && running == expected + QStringLiteral(" (deleted)");
}

pid_t HMTrackedProcess::running() const
{
    QFile file(m_pidFile);
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    bool ok = false;
    const qlonglong pid = file.read(32).trimmed().toLongLong(&ok);
    if (!ok || pid <= 1 || pid > INT_MAX) {
        return 0;
    }
    return runsExecutable(static_cast<pid_t>(pid)) ? static_cast<pid_t>(pid) : 0;
}

pid_t HMTrackedProcess::spawn(const QStringList &arguments, QString *error) const
{
    std::vector<QByteArray> storage;
    storage.push_back(m_executable.toLocal8Bit());
    for (const QString &argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    std::vector<char *> argv;
    for (QByteArray &item : storage) {
        argv.push_back(item.data());
    }
    argv.push_back(nullptr);
    char *emptyEnvironment[] = {nullptr};

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        *error = QStringLiteral("cannot start %1: no pipe").arg(m_executable);
        return 0;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(report[0]);
        ::close(report[1]);
        *error = QStringLiteral("cannot start %1: %2")
                     .arg(m_executable, QString::fromLocal8Bit(std::strerror(errno)));
        return 0;
    }
    if (child == 0) {
        ::setsid();
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int sig = 1; sig < NSIG; ++sig) {
            ::signal(sig, SIG_DFL);
        }
        const int devNull = ::open("/dev/null", O_RDWR);
        if (devNull >= 0) {
            ::dup2(devNull, 0);
            ::dup2(devNull, 1);
            ::dup2(devNull, 2);
        }
        // Everything else (the listening socket, client connections) stays with the helper.
        const unsigned keep = static_cast<unsigned>(report[1]);
        if (::syscall(SYS_close_range, 3u, keep - 1, 0u) != 0 ||
            ::syscall(SYS_close_range, keep + 1, ~0u, 0u) != 0) {
            for (int fd = 3; fd < 4096; ++fd) {
                if (fd != report[1]) {
                    ::close(fd);
                }
            }
        }
        ::umask(077);
        if (::chdir("/") != 0) {
            ::_exit(127);
        }
        ::execve(argv[0], argv.data(), emptyEnvironment);
        const int failure = errno;
        ssize_t ignored = ::write(report[1], &failure, sizeof(failure));
        (void)ignored;
        ::_exit(127);
    }
    ::close(report[1]);
    int failure = 0;
    ssize_t n;
    do {
        n = ::read(report[0], &failure, sizeof(failure));
    } while (n < 0 && errno == EINTR);
    ::close(report[0]);
    if (n == static_cast<ssize_t>(sizeof(failure))) {
        int status = 0;
        ::waitpid(child, &status, 0);
        *error = QStringLiteral("cannot run %1: %2")
                     .arg(m_executable, QString::fromLocal8Bit(std::strerror(failure)));
        return 0;
    }
    QSaveFile pidFile(m_pidFile);
    const QByteArray text = QByteArray::number(child) + '\n';
    if (!pidFile.open(QIODevice::WriteOnly) || pidFile.write(text) != text.size() ||
        !pidFile.commit()) {
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        *error =
            QStringLiteral("cannot record the pid in %1: %2").arg(m_pidFile, pidFile.errorString());
        return 0;
    }
    return child;
}

bool HMTrackedProcess::terminate(int timeoutMs, QString *error) const
{
    const pid_t pid = running();
    if (pid == 0) {
        QFile::remove(m_pidFile);
        return true;
    }
    const int pidfd = pidfdOpen(pid);
    // Checked again through the descriptor's process: the pid may have been reused between.
    if (pidfd < 0 || !runsExecutable(pid)) {
        if (pidfd >= 0) {
            ::close(pidfd);
        }
        int status = 0;
        ::waitpid(pid, &status, WNOHANG);
        QFile::remove(m_pidFile);
        return true;
    }
    bool ended = false;
    if (pidfdSignal(pidfd, SIGTERM) == 0 && waitForExit(pidfd, pid, timeoutMs)) {
        ended = true;
    } else if (pidfdSignal(pidfd, SIGKILL) == 0 || errno == ESRCH) {
        ended = waitForExit(pidfd, pid, 2000);
    }
    ::close(pidfd);
    if (!ended) {
        *error = QStringLiteral("process %1 (%2) did not end").arg(pid).arg(m_executable);
        return false;
    }
    QFile::remove(m_pidFile);
    return true;
}
