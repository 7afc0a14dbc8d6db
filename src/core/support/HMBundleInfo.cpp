#include "HMBundleInfo.h"

#include "HMBuildInfo.h"

#include <QHash>
#include <QUuid>
#include <sys/utsname.h>

QVariant info_plist_var(const QString &key)
{
    static const QHash<QString, QString> values = {
        {QStringLiteral("CFBundleShortVersionString"), QStringLiteral(HM_VERSION_STRING)},
        {QStringLiteral("CFBundleVersion"), QStringLiteral(HM_BUILD_NUMBER)},
        {QStringLiteral("CFBundleIdentifier"), QStringLiteral(HM_BUNDLE_IDENTIFIER)},
        {QStringLiteral("CFBundleName"), QStringLiteral("Hollowmere")},
        {QStringLiteral("CFBundleExecutable"), QStringLiteral("hollowmere")},
    };
    const auto it = values.constFind(key);
    return it == values.constEnd() ? QVariant() : QVariant(*it);
}

QString app_version()
{
    return info_plist_var(QStringLiteral("CFBundleShortVersionString")).toString();
}

QString app_bundle_identifier()
{
    return info_plist_var(QStringLiteral("CFBundleIdentifier")).toString();
}

QString platform_id()
{
    struct utsname name
    {
    };
    if (uname(&name) != 0) {
        return QString();
    }
    return QString::fromUtf8(name.machine);
}

QString generate_UUID()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}
