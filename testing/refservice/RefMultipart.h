// Multipart bodies as the client sends them.
//
// The client marks its file parts "attachment", which the HTTP library's own parser
// refuses (it only knows "form-data"), so bodies are split here and every part's headers
// are kept for the tests to look at.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <optional>

struct RefMultipartPart
{
    QMap<QString, QString> headers; // lower-case names
    QString disposition;            // "form-data", "attachment", ...
    QString name;
    std::optional<QString> filename;
    QByteArray data;
};

// The boundary of a "multipart/form-data; boundary=..." content type, quotes removed.
std::optional<QByteArray> ref_multipart_boundary(const QString &contentType);

// The parts of `body`, or nullopt when it is not a well-formed multipart body.
std::optional<QList<RefMultipartPart>> ref_parse_multipart(const QByteArray &body,
                                                           const QByteArray &boundary);
