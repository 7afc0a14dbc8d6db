#include "HMLogTail.h"

#include "HMLogDeflater.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Where `bytes` may be cut without splitting a UTF-8 sequence that the following bytes
// could complete: before a trailing lead byte whose sequence is still incomplete.
qsizetype completeSequences(QByteArrayView bytes)
{
    for (qsizetype back = 1; back <= qMin<qsizetype>(3, bytes.size()); ++back) {
        const auto byte = static_cast<unsigned char>(bytes[bytes.size() - back]);
        if ((byte & 0xc0) == 0x80) {
            continue; // a continuation byte: look further back for its lead
        }
        const int length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
        return length > back ? bytes.size() - back : bytes.size();
    }
    return bytes.size();
}

} // namespace

void HMLogTail::scan(const QString &path, qint64 limit,
                     const std::function<void(QByteArrayView)> &sink)
{
    const int fd = ::open(path.toLocal8Bit().constData(),
                          O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return;
    }
    struct stat st
    {
    };
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return;
    }
    const off_t end = st.st_size;
    off_t at = end > limit ? end - limit : 0;
    // The cut left a partial first line behind: it is dropped.
    bool atLineStart = at == 0;
    char buffer[16 * 1024];
    while (at < end) {
        const ssize_t n =
            ::pread(fd, buffer, static_cast<size_t>(qMin<off_t>(sizeof buffer, end - at)), at);
        if (n <= 0) {
            break; // the file shrank: keep what was read
        }
        at += n;
        QByteArrayView slice(buffer, n);
        if (!atLineStart) {
            const qsizetype newline = slice.indexOf('\n');
            if (newline < 0) {
                continue;
            }
            slice = slice.sliced(newline + 1);
            atLineStart = true;
        }
        sink(slice);
    }
    ::close(fd);
}

QString HMLogTail::read(const QString &path, qint64 limit)
{
    QByteArray bytes;
    scan(path, limit, [&bytes](QByteArrayView slice) { bytes.append(slice); });
    return QString::fromUtf8(bytes);
}

HMDeflatedLog HMLogTail::readDeflated(const QString &path, qint64 limit)
{
    HMLogDeflater deflater;
    QByteArray carried; // the start of a UTF-8 sequence the next slice completes
    scan(path, limit, [&deflater, &carried](QByteArrayView slice) {
        const QByteArray bytes = carried + slice;
        const qsizetype whole = completeSequences(bytes);
        deflater.add(QString::fromUtf8(QByteArrayView(bytes).first(whole)).toUtf8());
        carried = bytes.sliced(whole);
    });
    deflater.add(QString::fromUtf8(carried).toUtf8());
    return deflater.finish();
}
