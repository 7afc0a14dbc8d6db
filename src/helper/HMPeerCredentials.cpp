#include "HMPeerCredentials.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
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

bool HMPeerCredentials::isMemberOf(gid_t group) const
{
    return gid == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool HMPeerCredentials::isAllowed(const QString &groupName) const
{
    if (isRoot()) {
        return true;
    }
    struct group entry
    {
    };
    struct group *found = nullptr;
    std::vector<char> buffer(16384);
    const QByteArray name = groupName.toLocal8Bit();
    if (::getgrnam_r(name.constData(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        !found) {
        return false;
    }
    return isMemberOf(found->gr_gid);
}

QString HMPeerCredentials::describe() const
{
    return QStringLiteral("uid %1 gid %2 pid %3").arg(uid).arg(gid).arg(pid);
}
