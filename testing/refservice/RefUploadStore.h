// Keeps the log uploads the service receives, for tests to open and people to read.
//
// Each upload lands in the uploads folder as "upload-N.zip" ("upload-N.bin" when the data
// is no zip archive) with "upload-N.json" beside it: the form fields, the parts and, for an
// archive, its members (name, size, time stamp). Both files are written under a temporary
// name and renamed, so a reader never finds half an upload. A line on standard error says
// where each upload went.
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <optional>

namespace RefUploadStore {

// `meta` completed with "index", "path", "size" and "members"; nullopt with `error` when
// the upload could not be stored.
std::optional<QJsonObject> keep(const QString &directory, int index, QJsonObject meta,
                                const QByteArray &data, QString *error);

// The members of the zip archive at `path`; empty for anything that is no archive.
QJsonArray zipMembers(const QString &path);

} // namespace RefUploadStore
