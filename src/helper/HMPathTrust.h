// Decides whether a path may be trusted by a root process: only root can have put it there
// and only root can change it. The helper applies this to its configuration file, to the
// executables it runs and to the directories it hands to OpenVPN; a request can never name
// any of them, it can only name paths that must turn out to be the same files.
#pragma once

#include <QString>

class HMPathTrust
{
public:
    enum class Kind
    {
        RegularFile,
        Executable,
        Directory
    };

    // Empty when the path (after resolving links) and every directory above it are owned by
    // root and writable by nobody else; otherwise why not. A world-writable directory with the
    // sticky bit (such as /tmp) may be passed through, as others cannot replace its entries.
    static QString check(const QString &path, Kind kind);

    // True when both paths exist and name the same file (device and inode, links followed).
    static bool sameFile(const QString &a, const QString &b);

    // The fully resolved absolute path, or empty when it does not exist.
    static QString resolved(const QString &path);
};
