// Socket chores shared by the wire library's tests.
#pragma once

#include <QByteArray>
#include <QtEndian>
#include <algorithm>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// A connected pair: `client` plays the application, `helper` the other end.
struct HMSocketPair
{
    int client = -1;
    int helper = -1;
    HMSocketPair()
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            client = fds[0];
            helper = fds[1];
        }
    }
    ~HMSocketPair()
    {
        closeEnd(client);
        closeEnd(helper);
    }
    HMSocketPair(const HMSocketPair &) = delete;
    HMSocketPair &operator=(const HMSocketPair &) = delete;
    static void closeEnd(int &fd)
    {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
    // Writes everything it can; a peer that went away simply ends the writing.
    static void writeAll(int fd, const QByteArray &bytes)
    {
        qsizetype done = 0;
        ssize_t wrote = 0;
        while (done < bytes.size() &&
               (wrote = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done))) > 0) {
            done += wrote;
        }
    }
};

inline QByteArray hmLengthBytes(quint64 length)
{
    QByteArray bytes(8, '\0');
    qToLittleEndian(length, bytes.data());
    return bytes;
}

inline sockaddr_un hmUnixAddress(const QByteArray &path)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(),
                std::min<size_t>(size_t(path.size()), sizeof(address.sun_path) - 1));
    return address;
}

// A socket listening at the path (however long: cut to what the address holds), or -1.
inline int hmListenAt(const QByteArray &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = hmUnixAddress(path);
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 5) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}
