#include "HMPeerCredentials.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59
#endif

std::optional<HMPeerCredentials> HMPeerCredentials::fromSocket(int fd, QString *error)
{
    struct ucred cred
    {
    };
    socklen_t length = sizeof(cred);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0 || length != sizeof(cred)) {
        *error = QStringLiteral("cannot read the peer's credentials: %1")
                     .arg(QString::fromLocal8Bit(std::strerror(errno)));
        return std::nullopt;
    }
    HMPeerCredentials peer;
    peer.pid = cred.pid;
    peer.uid = cred.uid;
    peer.gid = cred.gid;

    std::vector<gid_t> groups(64);
    for (int attempt = 0; attempt < 4; ++attempt) {
        socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) == 0) {
            groups.resize(bytes / sizeof(gid_t));
            peer.groups = groups;
            return peer;
        }
        if (errno != ERANGE) {
            break;
        }
        groups.resize(bytes / sizeof(gid_t) + 1);
    }
    // Without the supplementary groups a member is only recognised by the primary group;
    // failing closed is the safe direction.
    peer.groups.clear();
    return peer;
}

namespace {

// Calls a reentrant group/passwd lookup with a buffer that grows until the entry fits.
// The entry found points into the buffer, which the caller keeps.
template <typename Lookup> bool lookUp(std::vector<char> &buffer, Lookup lookup)
{
    buffer.resize(4096);
    for (;;) {
        const int result = lookup(buffer);
        if (result != ERANGE || buffer.size() >= (1u << 24)) {
            return result == 0;
        }
        buffer.resize(buffer.size() * 2);
    }
}

} // namespace

bool HMPeerCredentials::isAllowed(const QString &groupName) const
{
    if (isRoot()) {
        return true;
    }
    const QByteArray name = groupName.toLocal8Bit();
    struct group groupEntry
    {
    };
    struct group *group = nullptr;
    std::vector<char> groupBuffer;
    if (!lookUp(groupBuffer,
                [&](std::vector<char> &buffer) {
                    return ::getgrnam_r(name.constData(), &groupEntry, buffer.data(), buffer.size(),
                                        &group);
                }) ||
        !group) {
        return false;
    }
    const gid_t wanted = group->gr_gid;

    // The group database as it stands now decides, not the groups the peer's process was
    // started with: a user just added is served without logging in again, and one just
    // removed no longer is.
    struct passwd userEntry
    {
    };
    struct passwd *user = nullptr;
    std::vector<char> userBuffer;
    if (!lookUp(userBuffer,
                [&](std::vector<char> &buffer) {
                    return ::getpwuid_r(uid, &userEntry, buffer.data(), buffer.size(), &user);
                }) ||
        !user) {
        return false;
    }
    if (user->pw_gid == wanted) {
        return true;
    }
    std::vector<gid_t> listed(64);
    int count = static_cast<int>(listed.size());
    while (::getgrouplist(user->pw_name, user->pw_gid, listed.data(), &count) < 0) {
        if (count <= static_cast<int>(listed.size()) || count > 65536) {
            return false;
        }
        listed.resize(static_cast<size_t>(count));
    }
    listed.resize(static_cast<size_t>(count));
    return std::find(listed.begin(), listed.end(), wanted) != listed.end();
}

QString HMPeerCredentials::describe() const
{
    return QStringLiteral("uid %1 gid %2 pid %3").arg(uid).arg(gid).arg(pid);
}
