#include "HMZipWriter.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <cerrno>
#include <cstring>
#include <unistd.h>
#include <zip.h>
#include <zlib.h>

namespace HMZipWriter {

namespace {

// minizip reports the C library's failure through errno; keep the first one seen.
HMError failure(const QString &path, int error)
{
    const QString reason = error ? QString::fromLocal8Bit(std::strerror(error))
                                 : QStringLiteral("the archive library failed");
    return HMError::errorWithCode(error ? error : 1,
                                  QStringLiteral("Could not write the log archive %1: %2")
                                      .arg(QFileInfo(path).fileName(), reason),
                                  reason);
}

zip_fileinfo fileInfo(const QDateTime &stamp)
{
    const QDateTime local = stamp.toLocalTime();
    zip_fileinfo info{};
    info.tmz_date.tm_sec = static_cast<uInt>(local.time().second());
    info.tmz_date.tm_min = static_cast<uInt>(local.time().minute());
    info.tmz_date.tm_hour = static_cast<uInt>(local.time().hour());
    info.tmz_date.tm_mday = static_cast<uInt>(local.date().day());
    info.tmz_date.tm_mon = static_cast<uInt>(local.date().month() - 1);
    info.tmz_date.tm_year = static_cast<uInt>(local.date().year());
    return info;
}

int writeMembers(zipFile archive, const Members &members, const zip_fileinfo &info)
{
    for (const auto &member : members) {
        const QByteArray name = member.first.toUtf8();
        const HMDeflatedLog &log = member.second;
        errno = 0;
        // Raw: the bytes are a finished deflate stream; the level only sets the header's
        // "maximum compression" flag, as for a member compressed here.
        if (zipOpenNewFileInZip2_64(archive, name.constData(), &info, nullptr, 0, nullptr, 0,
                                    nullptr, Z_DEFLATED, Z_BEST_COMPRESSION, 1, 0) != ZIP_OK) {
            return errno ? errno : -1;
        }
        errno = 0;
        if (!log.deflated().isEmpty() &&
            zipWriteInFileInZip(archive, log.deflated().constData(),
                                static_cast<unsigned>(log.deflated().size())) != ZIP_OK) {
            return errno ? errno : -1;
        }
        errno = 0;
        if (zipCloseFileInZipRaw64(archive, static_cast<ZPOS64_T>(log.size()), log.crc32()) !=
            ZIP_OK) {
            return errno ? errno : -1;
        }
    }
    return 0;
}

} // namespace

HMMaybeError write(const QString &path, const Members &members, const QDateTime &stamp)
{
    const QFileInfo target(path);
    const QString partial = target.absolutePath() + QStringLiteral("/.%1-%2-%3.part")
                                                        .arg(target.fileName())
                                                        .arg(::getpid())
                                                        .arg(QRandomGenerator::global()->generate(),
                                                             8, 16, QLatin1Char('0'));
    const QByteArray partialName = QFile::encodeName(partial);
    errno = 0;
    zipFile archive = zipOpen64(partialName.constData(), APPEND_STATUS_CREATE);
    if (!archive) {
        const int error = errno;
        QFile::remove(partial);
        return failure(path, error);
    }
    int error = writeMembers(archive, members, fileInfo(stamp));
    errno = 0;
    // Closing flushes the last buffers: a full disk often shows only here.
    if (zipClose(archive, nullptr) != ZIP_OK && error == 0) {
        error = errno ? errno : -1;
    }
    if (error != 0) {
        QFile::remove(partial);
        return failure(path, error > 0 ? error : 0);
    }
    if (::rename(partialName.constData(), QFile::encodeName(path).constData()) != 0) {
        error = errno;
        QFile::remove(partial);
        return failure(path, error);
    }
    return std::nullopt;
}

} // namespace HMZipWriter
