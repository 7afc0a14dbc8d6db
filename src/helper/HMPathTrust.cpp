#include "HMPathTrust.h"

#include <climits>
#include <cstdlib>
#include <sys/stat.h>

namespace {

QString describeOwnerProblem(const QString &path, const struct stat &st, bool allowSticky)
{
    if (st.st_uid != 0) {
        return QStringLiteral("%1 is not owned by root").arg(path);
    }
    const bool writableByOthers = (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (writableByOthers && !(allowSticky && (st.st_mode & S_ISVTX))) {
        return QStringLiteral("%1 is writable by users other than root").arg(path);
    }
    return QString();
}

} // namespace

QString HMPathTrust::resolved(const QString &path)
{
    if (path.isEmpty()) {
        return QString();
    }
    char buffer[PATH_MAX];
    if (!::realpath(path.toLocal8Bit().constData(), buffer)) {
        return QString();
    }
    return QString::fromLocal8Bit(buffer);
}

QString HMPathTrust::check(const QString &path, Kind kind)
{
    if (!path.startsWith(QLatin1Char('/'))) {
        return QStringLiteral("%1 is not an absolute path").arg(path);
    }
    const QString real = resolved(path);
    if (real.isEmpty()) {
        return QStringLiteral("%1 does not exist").arg(path);
    }

    struct stat st
    {
    };
    if (::stat(real.toLocal8Bit().constData(), &st) != 0) {
        return QStringLiteral("%1 cannot be examined").arg(path);
    }
    switch (kind) {
    case Kind::Directory:
        if (!S_ISDIR(st.st_mode)) {
            return QStringLiteral("%1 is not a directory").arg(path);
        }
        break;
    case Kind::Executable:
        if (!S_ISREG(st.st_mode) || !(st.st_mode & S_IXUSR)) {
            return QStringLiteral("%1 is not an executable file").arg(path);
        }
        break;
    case Kind::RegularFile:
        if (!S_ISREG(st.st_mode)) {
            return QStringLiteral("%1 is not a regular file").arg(path);
        }
        break;
    }
    QString problem = describeOwnerProblem(path, st, false);
    if (!problem.isEmpty()) {
        return problem;
    }

    // Every directory above must be root's too, or someone could swap the file out.
    QString dir = real;
    while (dir != QLatin1String("/")) {
        const int slash = dir.lastIndexOf(QLatin1Char('/'));
        dir = slash <= 0 ? QStringLiteral("/") : dir.left(slash);
        struct stat dirStat
        {
        };
        if (::stat(dir.toLocal8Bit().constData(), &dirStat) != 0) {
            return QStringLiteral("%1 cannot be examined").arg(dir);
        }
        problem = describeOwnerProblem(dir, dirStat, true);
        if (!problem.isEmpty()) {
            return problem;
        }
    }
    return QString();
}

bool HMPathTrust::sameFile(const QString &a, const QString &b)
{
    if (a.isEmpty() || b.isEmpty()) {
        return false;
    }
    struct stat sa
    {
    };
    struct stat sb
    {
    };
    if (::stat(a.toLocal8Bit().constData(), &sa) != 0 ||
        ::stat(b.toLocal8Bit().constData(), &sb) != 0) {
        return false;
    }
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}
