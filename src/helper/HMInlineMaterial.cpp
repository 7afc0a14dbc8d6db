#include "HMInlineMaterial.h"

#include <QList>
#include <QRegularExpression>

namespace {

const QByteArray kStaticKeyLabel = "OpenVPN Static key V1";

enum class Body
{
    Base64,
    Hex
};

bool isBodyCharacter(char c, Body body)
{
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (body == Body::Hex) {
        return hex;
    }
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

// The body's characters, checked and re-wrapped; empty with the reason set when refused.
QByteArray rewrap(const QByteArray &joined, Body body, QString *error)
{
    for (const char c : joined) {
        if (!isBodyCharacter(c, body)) {
            *error = body == Body::Hex
                         ? QStringLiteral("a static key holds a non-hex character")
                         : QStringLiteral("key material holds a non-base64 character");
            return QByteArray();
        }
    }
    if (body == Body::Base64 &&
        !QByteArray::fromBase64Encoding(joined, QByteArray::AbortOnBase64DecodingErrors)) {
        *error = QStringLiteral("key material is not valid base64");
        return QByteArray();
    }
    if (joined.isEmpty()) {
        *error = QStringLiteral("key material is empty");
        return QByteArray();
    }
    QByteArray out;
    for (qsizetype at = 0; at < joined.size(); at += HMInlineMaterial::kLineWidth) {
        out += joined.mid(at, HMInlineMaterial::kLineWidth) + '\n';
    }
    return out;
}

QByteArray armourLabel(const QByteArray &line, const QByteArray &word)
{
    static const QRegularExpression label(
        QStringLiteral("^[A-Za-z0-9]([A-Za-z0-9 -]*[A-Za-z0-9])?$"));
    const QByteArray prefix = "-----" + word + ' ';
    if (!line.startsWith(prefix) || !line.endsWith("-----")) {
        return QByteArray();
    }
    const QByteArray name = line.mid(prefix.size(), line.size() - prefix.size() - 5);
    return label.match(QString::fromLatin1(name)).hasMatch() ? name : QByteArray();
}

} // namespace

std::optional<QByteArray> HMInlineMaterial::reemit(const QByteArray &tag,
                                                   const QList<QByteArray> &lines, QString *error)
{
    QList<QByteArray> trimmed;
    for (const QByteArray &line : lines) {
        if (!line.trimmed().isEmpty()) {
            trimmed << line.trimmed();
        }
    }
    if (tag == "pkcs12") {
        const QByteArray body = rewrap(trimmed.join(), Body::Base64, error);
        return body.isEmpty() ? std::nullopt : std::optional<QByteArray>(body);
    }
    const bool staticKey = tag == "tls-auth" || tag == "tls-crypt";
    QByteArray out;
    QByteArray label;
    QByteArray body;
    for (const QByteArray &line : trimmed) {
        if (label.isEmpty()) {
            label = armourLabel(line, "BEGIN");
            if (!label.isEmpty() && staticKey != (label == kStaticKeyLabel)) {
                *error = staticKey ? QStringLiteral("<%1> must hold an OpenVPN static key")
                                         .arg(QString::fromLatin1(tag))
                                   : QStringLiteral("<%1> may not hold an OpenVPN static key")
                                         .arg(QString::fromLatin1(tag));
                return std::nullopt;
            }
            continue;
        }
        if (armourLabel(line, "END") == label) {
            const QByteArray wrapped = rewrap(body, staticKey ? Body::Hex : Body::Base64, error);
            if (wrapped.isEmpty()) {
                return std::nullopt;
            }
            out += "-----BEGIN " + label + "-----\n" + wrapped + "-----END " + label + "-----\n";
            label.clear();
            body.clear();
        } else if (line.contains(':')) {
            *error = QStringLiteral("encrypted PEM keys are not supported");
            return std::nullopt;
        } else {
            body += line;
        }
    }
    if (!label.isEmpty()) {
        *error = QStringLiteral("'-----BEGIN %1-----' has no matching END line")
                     .arg(QString::fromLatin1(label));
        return std::nullopt;
    }
    if (out.isEmpty()) {
        *error = QStringLiteral("<%1> holds no PEM material").arg(QString::fromLatin1(tag));
        return std::nullopt;
    }
    return out;
}
