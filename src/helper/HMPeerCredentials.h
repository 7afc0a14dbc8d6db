// Who is on the other end of a helper connection, as the kernel reports it for the socket
// (SO_PEERCRED and SO_PEERGROUPS, fixed when the client connected). The helper serves only
// root and the users its group has in the system's group database at that moment, whatever
// groups the connecting process carries; everyone else gets an error and nothing runs. Files that a
// request names are read with these credentials (HMPeerFileReader), never as root.
#pragma once

#include <QString>
#include <optional>
#include <sys/types.h>
#include <vector>

class HMPeerCredentials
{
public:
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups;

    static std::optional<HMPeerCredentials> fromSocket(int fd, QString *error);

    bool isRoot() const { return uid == 0; }
    // Root, or a user whom the group database lists in the named group now (as primary or
    // supplementary group). A group that does not exist on this machine admits nobody but root.
    bool isAllowed(const QString &groupName) const;
    QString describe() const;
};
