// Keeps the log uploads the service receives, for tests to open and people to read.
//
// Each upload lands in the uploads folder as "upload-N.zip" ("upload-N.bin" when the data
// is no zip archive) with "upload-N.json" beside it: the form fields, the parts and, for an
// archive, its members (name, size, time stamp). Both files are written under a temporary
// name and renamed, so a reader never finds half an upload. A line on standard error says
// where each upload went.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <optional>

namespace RefUploadStore {

// `meta` completed with "index", "path", "size" and "members"; nullopt with `error` when
// the upload could not be stored.
std::optional<QJsonObject> keep(const QString &directory, int index, QJsonObject meta,
                                const QByteArray &data, QString *error);

struct ZipEntry
{
    QString name;
    QByteArray data; // inflated
    int method = -1; // 0 stored, 8 deflated
    QDateTime time;  // local time, as stamped
};

// Every member of the zip archive at `path`, in archive order; empty for anything that is
// no archive. Also what the tests open received archives with.
QList<ZipEntry> readZip(const QString &path);

// The members of the zip archive at `path` (name, sizes, method, time) for the listing.
QJsonArray zipMembers(const QString &path);

} // namespace RefUploadStore
