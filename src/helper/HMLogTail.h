// The end of one of the helper's log files, for "getLogs": at most a fixed number of bytes,
// starting at a line boundary, decoded leniently. A missing file is an empty text; a file
// that is not a regular file (a planted link or FIFO) is treated the same and never opened
// in a way that could block.
#pragma once

#include <QString>

class HMLogTail
{
public:
    static constexpr qint64 kDefaultLimit = 128 * 1024;

    static QString read(const QString &path, qint64 limit = kDefaultLimit);
};
