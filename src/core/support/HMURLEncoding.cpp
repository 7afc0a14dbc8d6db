#include "HMURLEncoding.h"

#include <QStringList>
#include <QUrl>

QString url_encode(const QString &string)
{
    // toPercentEncoding leaves only letters, digits and "-._~"; the standard escaping
    // also leaves the sub-delimiters below alone, the reserved ones are escaped.
    return QString::fromLatin1(QUrl::toPercentEncoding(string, QByteArrayLiteral("!'()*")));
}

QString url_encode_dict(const HMStringPairs &dictionary)
{
    QStringList parts;
    parts.reserve(dictionary.size());
    for (const auto &pair : dictionary) {
        parts.append(url_encode(pair.first) + QLatin1Char('=') + url_encode(pair.second));
    }
    return parts.join(QLatin1Char('&'));
}
