#include "HMCountryValueTransformer.h"

#include "HMCountryNames.h"

#include <QFile>

namespace {

QVariant stringOrAbsent(const QString &text)
{
    return text.isNull() ? QVariant() : QVariant(text);
}

} // namespace

QVariant HMCountryValueTransformer::transformedValue(const QVariant &code)
{
    if (!code.isValid()) {
        return QVariant();
    }
    return stringOrAbsent(HMCountryNames::nameForCode(code.toString()));
}

QVariant HMCountryValueTransformer::reverseTransformedValue(const QVariant &name)
{
    if (!name.isValid()) {
        return QVariant();
    }
    return stringOrAbsent(HMCountryNames::codeForName(name.toString()));
}

QPixmap wisp_image_for_country(const QString &code)
{
    const QString name = HMCountryNames::imageNameForCountry(code);
    for (const char *suffix : {".svg", ".png"}) {
        const QString path = QStringLiteral(":/images/") + name + QLatin1String(suffix);
        if (QFile::exists(path)) {
            return QPixmap(path);
        }
    }
    return QPixmap();
}
