#include "RefUploadStore.h"

#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>
#include <iostream>
#include <unzip.h>

namespace RefUploadStore {

namespace {

bool writeWhole(const QString &path, const QByteArray &data, QString *error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit()) {
        *error = path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    return true;
}

} // namespace

QList<ZipEntry> readZip(const QString &path)
{
    QList<ZipEntry> entries;
    unzFile archive = unzOpen64(QFile::encodeName(path).constData());
    if (!archive) {
        return entries;
    }
    for (int status = unzGoToFirstFile(archive); status == UNZ_OK;
         status = unzGoToNextFile(archive)) {
        unz_file_info64 info{};
        char name[512] = {};
        if (unzGetCurrentFileInfo64(archive, &info, name, sizeof name - 1, nullptr, 0, nullptr,
                                    0) != UNZ_OK ||
            unzOpenCurrentFile(archive) != UNZ_OK) {
            break;
        }
        ZipEntry entry;
        entry.name = QString::fromUtf8(name);
        entry.method = static_cast<int>(info.compression_method);
        const auto &date = info.tmu_date;
        entry.time =
            QDateTime(QDate(static_cast<int>(date.tm_year), static_cast<int>(date.tm_mon) + 1,
                            static_cast<int>(date.tm_mday)),
                      QTime(static_cast<int>(date.tm_hour), static_cast<int>(date.tm_min),
                            static_cast<int>(date.tm_sec)));
        char buffer[64 * 1024];
        int read = 0;
        while ((read = unzReadCurrentFile(archive, buffer, sizeof buffer)) > 0) {
            entry.data.append(buffer, read);
        }
        unzCloseCurrentFile(archive);
        entries.append(entry);
    }
    unzClose(archive);
    return entries;
}

QJsonArray zipMembers(const QString &path)
{
    QJsonArray members;
    for (const ZipEntry &entry : readZip(path)) {
        members.append(QJsonObject{{QStringLiteral("name"), entry.name},
                                   {QStringLiteral("size"), static_cast<qint64>(entry.data.size())},
                                   {QStringLiteral("method"), entry.method},
                                   {QStringLiteral("time"), entry.time.toString(Qt::ISODate)}});
    }
    return members;
}

std::optional<QJsonObject> keep(const QString &directory, int index, QJsonObject meta,
                                const QByteArray &data, QString *error)
{
    const bool isZip = data.startsWith(QByteArrayLiteral("PK\x03\x04"));
    const QString base = QStringLiteral("%1/upload-%2").arg(directory).arg(index);
    const QString path = base + (isZip ? QStringLiteral(".zip") : QStringLiteral(".bin"));
    if (!writeWhole(path, data, error)) {
        return std::nullopt;
    }
    meta.insert(QStringLiteral("index"), index);
    meta.insert(QStringLiteral("path"), path);
    meta.insert(QStringLiteral("size"), static_cast<qint64>(data.size()));
    const QJsonArray members = isZip ? zipMembers(path) : QJsonArray();
    meta.insert(QStringLiteral("members"), members);
    if (!writeWhole(base + QStringLiteral(".json"), QJsonDocument(meta).toJson(), error)) {
        QFile::remove(path);
        return std::nullopt;
    }
    std::cerr << "hm-refservice: kept log upload " << index << " (" << data.size() << " bytes, "
              << members.size() << " members) at " << path.toStdString() << std::endl;
    return meta;
}

} // namespace RefUploadStore
