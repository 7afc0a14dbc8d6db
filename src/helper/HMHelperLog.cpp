#include "HMHelperLog.h"

#include <QDateTime>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

HMHelperLog::HMHelperLog(const QString &path, qint64 rollSize) : m_path(path), m_rollSize(rollSize)
{}

void HMHelperLog::write(const QString &message)
{
    QString clean = message;
    // A client's text in a refusal must not be able to forge further log lines.
    clean.replace(QLatin1Char('\n'), QLatin1String("\\n"))
        .replace(QLatin1Char('\r'), QLatin1String("\\r"));
    const QByteArray line =
        (QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")) +
         QStringLiteral(" hmwispd[%1]: ").arg(::getpid()) + clean + QLatin1Char('\n'))
            .toUtf8();
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);

    const QByteArray path = m_path.toLocal8Bit();
    struct stat st
    {
    };
    if (::lstat(path.constData(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > m_rollSize) {
        const QByteArray rolled = path + ".1";
        ::rename(path.constData(), rolled.constData());
    }
    const int fd =
        ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    ssize_t written = 0;
    while (written < line.size()) {
        const ssize_t n =
            ::write(fd, line.constData() + written, static_cast<size_t>(line.size() - written));
        if (n <= 0) {
            break;
        }
        written += n;
    }
    ::close(fd);
}
