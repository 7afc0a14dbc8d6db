// The end of one of the helper's log files: at most a fixed number of bytes, starting at a
// line boundary, decoded leniently (stray bytes become replacement characters). For
// "getLogs" it is compressed as it is read, so neither the helper nor its reply ever holds
// the log whole. A missing file is an empty log; a file that is not a regular file (a
// planted link or FIFO) is treated the same and never opened in a way that could block.
#pragma once

#include "HMDeflatedLog.h"

#include <QString>
#include <functional>

class HMLogTail
{
public:
    static constexpr qint64 kDefaultLimit = kHMWireLogTailBytes;

    static QString read(const QString &path, qint64 limit = kDefaultLimit);
    static HMDeflatedLog readDeflated(const QString &path, qint64 limit = kDefaultLimit);

private:
    // Feeds the tail's bytes, from its first whole line, in slices.
    static void scan(const QString &path, qint64 limit,
                     const std::function<void(QByteArrayView)> &sink);
};
