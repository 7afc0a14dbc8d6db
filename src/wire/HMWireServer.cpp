#include "HMWireServer.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

void setError(HMWireMaybeError *out, HMWireError error)
{
    if (out) {
        *out = std::move(error);
    }
}

HMWireError socketsError(int code, const char *call)
{
    return HMWireError{HMWire::kSocketsDomain, code,
                       QStringLiteral("%1 failed: %2")
                           .arg(QLatin1String(call), QString::fromLocal8Bit(std::strerror(code)))};
}

HMWireError wireError(long code, const QString &description)
{
    return HMWireError{HMWire::kWireDomain, code, description};
}

using SteadyClock = std::chrono::steady_clock;

int remainingMs(SteadyClock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now())
            .count();
    return left <= 0 ? 0 : static_cast<int>(left);
}

enum class ReadOutcome
{
    Complete,
    Closed,
    Deadline,
    Failed,
};

// Reads `length` bytes before `deadline`; on Failed, `failure` holds the system error.
ReadOutcome readBefore(int fd, char *buffer, std::size_t length, SteadyClock::time_point deadline,
                       std::size_t *received, int *failure)
{
    std::size_t done = 0;
    ReadOutcome outcome = ReadOutcome::Complete;
    while (done < length) {
        const int wait = remainingMs(deadline);
        if (wait == 0) {
            outcome = ReadOutcome::Deadline;
            break;
        }
        pollfd watch{fd, POLLIN, 0};
        const int ready = ::poll(&watch, 1, wait);
        if (ready == 0) {
            continue; // the loop head sees the deadline has passed
        }
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            *failure = errno;
            outcome = ReadOutcome::Failed;
            break;
        }
        const ssize_t got = ::read(fd, buffer + done, length - done);
        if (got > 0) {
            done += static_cast<std::size_t>(got);
        } else if (got == 0) {
            outcome = ReadOutcome::Closed;
            break;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            *failure = errno;
            outcome = ReadOutcome::Failed;
            break;
        }
    }
    *received = done;
    return outcome;
}

HMWireError readError(ReadOutcome outcome, int failure, std::size_t received,
                      std::uint64_t expected, int deadlineMs, const char *what)
{
    if (outcome == ReadOutcome::Closed) {
        return wireError(HMWire::FrameTruncated,
                         QStringLiteral("client closed the connection after %1 of %2 %3 bytes")
                             .arg(received)
                             .arg(expected)
                             .arg(QLatin1String(what)));
    }
    if (outcome == ReadOutcome::Deadline) {
        return wireError(HMWire::FrameDeadline,
                         QStringLiteral("client sent %1 of %2 %3 bytes within %4 ms")
                             .arg(received)
                             .arg(expected)
                             .arg(QLatin1String(what))
                             .arg(deadlineMs));
    }
    return socketsError(failure, "read()");
}

} // namespace

int get_listener_fd()
{
    char **names = nullptr;
    const int count = sd_listen_fds_with_names(1, &names);
    int chosen = -1;
    if (count > 0) {
        chosen = SD_LISTEN_FDS_START;
        for (int i = 0; names && i < count; ++i) {
            if (std::strcmp(names[i], "MasterSocket") == 0) {
                chosen = SD_LISTEN_FDS_START + i;
                break;
            }
        }
    }
    if (names) {
        for (int i = 0; i < count; ++i) {
            std::free(names[i]);
        }
        std::free(names);
    }
    if (chosen < 0) {
        return -1;
    }
    if (sd_is_socket_unix(chosen, SOCK_STREAM, -1, nullptr, 0) <= 0) {
        return -1;
    }
    if (::listen(chosen, kHMWireListenBacklog) != 0) {
        return -1;
    }
    return chosen;
}

int get_connection_fd(int listener, int timeoutMs)
{
    if (listener < 0) {
        return -2; // poll() would silently ignore it and report a time-out
    }
    const auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        pollfd watch{listener, POLLIN, 0};
        const int ready = ::poll(&watch, 1, remainingMs(deadline));
        if (ready == 0) {
            return -1;
        }
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -2;
        }
        if (watch.revents & (POLLERR | POLLNVAL)) {
            return -2;
        }
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            return fd;
        }
        // A client that gave up between poll() and accept() is not the listener's fault.
        if (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN || errno == EWOULDBLOCK) {
            if (remainingMs(deadline) == 0) {
                return -1;
            }
            continue;
        }
        return -2;
    }
}

std::optional<HMWirePeer> peer_credentials(int fd, HMWireMaybeError *error)
{
    ucred credentials;
    socklen_t size = sizeof(credentials);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        setError(error, socketsError(errno, "getsockopt(SO_PEERCRED)"));
        return std::nullopt;
    }
    return HMWirePeer{credentials.pid, credentials.uid, credentials.gid};
}

std::optional<QByteArray> read_frame(int fd, std::uint64_t maxLength, int deadlineMs,
                                     HMWireMaybeError *error)
{
    const auto deadline = SteadyClock::now() + std::chrono::milliseconds(deadlineMs);

    std::uint64_t length = 0;
    std::size_t received = 0;
    int failure = 0;
    ReadOutcome outcome = readBefore(fd, reinterpret_cast<char *>(&length), sizeof(length),
                                     deadline, &received, &failure);
    if (outcome != ReadOutcome::Complete) {
        setError(error,
                 readError(outcome, failure, received, sizeof(length), deadlineMs, "length"));
        return std::nullopt;
    }
    if (length == 0) {
        setError(error,
                 wireError(HMWire::FrameEmpty, QStringLiteral("frame announces an empty payload")));
        return std::nullopt;
    }
    if (length > maxLength) {
        setError(error,
                 wireError(HMWire::FrameTooLarge,
                           QStringLiteral("frame announces %1 bytes, more than the %2 allowed")
                               .arg(length)
                               .arg(maxLength)));
        return std::nullopt;
    }

    QByteArray payload(static_cast<qsizetype>(length), Qt::Uninitialized);
    outcome = readBefore(fd, payload.data(), static_cast<std::size_t>(length), deadline, &received,
                         &failure);
    if (outcome != ReadOutcome::Complete) {
        setError(error, readError(outcome, failure, received, length, deadlineMs, "payload"));
        return std::nullopt;
    }
    return payload;
}
