#include "HMCtlText.h"

#include <QJsonDocument>
#include <QJsonObject>

QString hm_ctl_text(const QVariant &value)
{
    if (value.userType() == QMetaType::QStringList) {
        return value.toStringList().join(QStringLiteral(", "));
    }
    if (value.userType() == QMetaType::QVariantMap) {
        return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(value.toMap()))
                                     .toJson(QJsonDocument::Compact));
    }
    return value.toString();
}
