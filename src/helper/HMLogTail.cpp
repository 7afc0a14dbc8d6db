#include "HMLogTail.h"

#include <QByteArray>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

QString HMLogTail::read(const QString &path, qint64 limit)
{
    const int fd = ::open(path.toLocal8Bit().constData(),
                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return QString();
    }
    struct stat st
    {
    };
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return QString();
    }
    const off_t start = st.st_size > limit ? st.st_size - limit : 0;
    QByteArray data(static_cast<qsizetype>(st.st_size - start), '\0');
    qsizetype got = 0;
    while (got < data.size()) {
        const ssize_t n =
            ::pread(fd, data.data() + got, static_cast<size_t>(data.size() - got), start + got);
        if (n <= 0) {
            break;
        }
        got += n;
    }
    ::close(fd);
    data.truncate(got);
    if (start > 0) {
        // Drop the partial first line the cut left behind.
        const qsizetype newline = data.indexOf('\n');
        data = newline >= 0 ? data.mid(newline + 1) : QByteArray();
    }
    return QString::fromUtf8(data);
}
