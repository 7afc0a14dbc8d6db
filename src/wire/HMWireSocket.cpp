#include "HMWireSocket.h"

#include <QFile>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A frame's payload is read into memory at most this much ahead of what has arrived.
constexpr std::size_t kReadChunk = 64 * 1024;

HMWireError socketsError(long code, const QString &description)
{
    return HMWireError{HMWire::kSocketsDomain, code, description};
}

QString systemText(int code)
{
    return QString::fromLocal8Bit(std::strerror(code));
}

void setError(HMWireMaybeError *out, HMWireError error)
{
    if (out) {
        *out = std::move(error);
    }
}

ssize_t sendAll(int fd, const void *bytes, std::size_t length)
{
    ssize_t wrote = ::send(fd, bytes, length, MSG_NOSIGNAL);
    if (wrote < 0 && errno == ENOTSOCK) {
        wrote = ::write(fd, bytes, length);
    }
    return wrote;
}

} // namespace

int unix_socket(const QString &path, HMWireMaybeError *error)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        const int code = errno;
        setError(error,
                 socketsError(code, QStringLiteral("socket() failed: %1").arg(systemText(code))));
        return -1;
    }

    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const QByteArray encoded = QFile::encodeName(path);
    std::memcpy(address.sun_path, encoded.constData(),
                std::min<std::size_t>(static_cast<std::size_t>(encoded.size()), kHMWirePathLimit));
    static_assert(sizeof(sockaddr_un) >= kHMWireAddressLength,
                  "address length exceeds sockaddr_un");

    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), kHMWireAddressLength) != 0) {
        const int code = errno;
        ::close(fd);
        setError(error,
                 socketsError(code,
                              QStringLiteral("socket connect() failed: %1").arg(systemText(code))));
        return -1;
    }
    return fd;
}

HMWireMaybeError write_data(int fd, const QByteArray &data)
{
    const std::uint64_t length = static_cast<std::uint64_t>(data.size());
    // Left unchecked: a failure here shows up as the payload write failing right after.
    (void)sendAll(fd, &length, sizeof(length));

    const ssize_t wrote = sendAll(fd, data.constData(), static_cast<std::size_t>(data.size()));
    if (wrote < static_cast<ssize_t>(data.size())) {
        return socketsError(
            HMWire::kShortWriteCode,
            QString::asprintf("socket connect() failed: tried to write %zd, but wrote %zd",
                              static_cast<ssize_t>(data.size()), wrote));
    }
    return std::nullopt;
}

int read_bytes(std::size_t length, int fd, char *buffer, std::size_t *received)
{
    std::size_t done = 0;
    int result = 0;
    if (fd < 0 && length > 0) {
        result = EBADF; // poll() ignores negative descriptors and would wait for ever
    }
    while (result == 0 && done < length) {
        pollfd watch{fd, POLLIN, 0};
        const int ready = ::poll(&watch, 1, 1000);
        if (ready == 0) {
            continue; // no overall time-out: keep waiting
        }
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            result = errno;
            break;
        }
        errno = 0;
        const ssize_t got = ::read(fd, buffer + done, length - done);
        if (got > 0) {
            done += static_cast<std::size_t>(got);
            continue;
        }
        if (got == 0) {
            result = errno; // peer closed; normally 0
            break;
        }
        if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) {
            continue;
        }
        result = errno;
        break;
    }
    if (received) {
        *received = done;
    }
    return result;
}

namespace {

// read_bytes, with a peer that closed early reported as ECONNRESET instead of success.
int readExactly(std::size_t length, int fd, char *buffer)
{
    std::size_t received = 0;
    const int result = read_bytes(length, fd, buffer, &received);
    if (result == 0 && received < length) {
        return ECONNRESET;
    }
    return result;
}

} // namespace

std::optional<QByteArray> read_data(int fd, HMWireMaybeError *error)
{
    std::uint64_t length = 0;
    int result = readExactly(sizeof(length), fd, reinterpret_cast<char *>(&length));
    if (result != 0) {
        setError(
            error,
            socketsError(result, QStringLiteral("read() size failed: %1").arg(systemText(result))));
        return std::nullopt;
    }

    // QByteArray sizes are signed and keep room for a terminating zero.
    constexpr std::uint64_t maxSize = std::numeric_limits<qsizetype>::max() / 2;
    if (length > maxSize) {
        setError(error,
                 socketsError(EMSGSIZE,
                              QStringLiteral("read() reply failed: %1").arg(systemText(EMSGSIZE))));
        return std::nullopt;
    }

    // Grow with the data rather than trusting the announced length up front.
    QByteArray payload;
    std::uint64_t done = 0;
    while (done < length) {
        const std::size_t step =
            static_cast<std::size_t>(std::min<std::uint64_t>(length - done, kReadChunk));
        payload.resize(static_cast<qsizetype>(done + step));
        result = readExactly(step, fd, payload.data() + done);
        if (result != 0) {
            setError(error, socketsError(
                                result,
                                QStringLiteral("read() reply failed: %1").arg(systemText(result))));
            return std::nullopt;
        }
        done += step;
    }
    return payload;
}
