#include "RefMultipart.h"

#include <QRegularExpression>

std::optional<QByteArray> ref_multipart_boundary(const QString &contentType)
{
    static const QRegularExpression pattern(
        QStringLiteral("^multipart/form-data\\s*;\\s*boundary=\"?([^\";]+)\"?\\s*$"),
        QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = pattern.match(contentType);
    if (!match.hasMatch()) {
        return std::nullopt;
    }
    return match.captured(1).toLatin1();
}

namespace {

std::optional<RefMultipartPart> parsePart(const QByteArray &raw)
{
    const qsizetype split = raw.indexOf("\r\n\r\n");
    if (split < 0) {
        return std::nullopt;
    }
    RefMultipartPart part;
    for (const QByteArray &line : raw.left(split).split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed.isEmpty()) {
            continue;
        }
        const qsizetype colon = trimmed.indexOf(':');
        if (colon <= 0) {
            return std::nullopt;
        }
        part.headers.insert(QString::fromLatin1(trimmed.left(colon)).toLower(),
                            QString::fromUtf8(trimmed.mid(colon + 1).trimmed()));
    }
    part.data = raw.mid(split + 4);

    const QString disposition = part.headers.value(QStringLiteral("content-disposition"));
    const QStringList fields = disposition.split(QLatin1Char(';'));
    part.disposition = fields.value(0).trimmed().toLower();
    for (const QString &field : fields.mid(1)) {
        const qsizetype equals = field.indexOf(QLatin1Char('='));
        if (equals < 0) {
            continue;
        }
        const QString key = field.left(equals).trimmed().toLower();
        QString value = field.mid(equals + 1).trimmed();
        if (value.size() >= 2 && value.startsWith(QLatin1Char('"')) &&
            value.endsWith(QLatin1Char('"'))) {
            value = value.mid(1, value.size() - 2);
        }
        if (key == QLatin1String("name")) {
            part.name = value;
        } else if (key == QLatin1String("filename")) {
            part.filename = value;
        }
    }
    if (part.name.isEmpty()) {
        return std::nullopt;
    }
    return part;
}

} // namespace

std::optional<QList<RefMultipartPart>> ref_parse_multipart(const QByteArray &body,
                                                           const QByteArray &boundary)
{
    const QByteArray delimiter = "--" + boundary;
    if (!body.startsWith(delimiter)) {
        return std::nullopt;
    }
    QList<RefMultipartPart> parts;
    qsizetype position = delimiter.size();
    const QByteArray separator = "\r\n" + delimiter;
    while (true) {
        if (body.mid(position, 2) == "--") {
            return parts; // closing delimiter
        }
        if (body.mid(position, 2) != "\r\n") {
            return std::nullopt;
        }
        position += 2;
        const qsizetype next = body.indexOf(separator, position);
        if (next < 0) {
            return std::nullopt;
        }
        const auto part = parsePart(body.mid(position, next - position));
        if (!part) {
            return std::nullopt;
        }
        parts.append(*part);
        position = next + separator.size();
    }
}
