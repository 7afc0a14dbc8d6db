#include "HMCtlBus.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>

namespace {

const QString kService = QStringLiteral("com.hollowmere.Hollowmere");
const QString kPath = QStringLiteral("/com/hollowmere/Hollowmere");
const QString kInterface = QStringLiteral("com.hollowmere.Hollowmere");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");

HMCtlBus::Failure notRunning()
{
    return {HMCtlBus::NotRunning,
            QStringLiteral("Hollowmere is not running: start it from the applications menu or "
                           "with \"hollowmere &\", then try again")};
}

// The application's own errors carry a message meant for people; the bus's errors are
// translated into what they mean here.
HMCtlBus::Failure failureFromReply(const QDBusMessage &reply)
{
    const QString name = reply.errorName();
    if (name == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
        name == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner")) {
        return notRunning();
    }
    if (name == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
        name == QLatin1String("org.freedesktop.DBus.Error.Timeout")) {
        return {HMCtlBus::TimedOut, QStringLiteral("Hollowmere did not answer in time")};
    }
    if (name == QLatin1String("org.freedesktop.DBus.Error.UnknownMethod") ||
        name.endsWith(QLatin1String(".Error.NotAvailable"))) {
        return {HMCtlBus::NotAvailable,
                name.endsWith(QLatin1String(".Error.NotAvailable"))
                    ? reply.errorMessage()
                    : QStringLiteral("The running Hollowmere does not offer this (%1)")
                          .arg(reply.errorMessage())};
    }
    if (name.startsWith(kInterface + QStringLiteral(".Error."))) {
        return {HMCtlBus::Refused, reply.errorMessage()};
    }
    return {HMCtlBus::Refused, QStringLiteral("%1 (%2)").arg(reply.errorMessage(), name)};
}

} // namespace

HMCtlBus::HMCtlBus() : m_bus(QDBusConnection::sessionBus()) {}

std::optional<HMCtlBus::Failure> HMCtlBus::reach()
{
    if (!m_bus.isConnected()) {
        return Failure{NotRunning,
                       QStringLiteral("No D-Bus session bus here (%1): run hollowmerectl as the "
                                      "desktop user, inside the desktop session")
                           .arg(m_bus.lastError().message())};
    }
    if (!m_bus.interface()->isServiceRegistered(kService)) {
        return notRunning();
    }
    return std::nullopt;
}

std::optional<HMCtlBus::Failure> HMCtlBus::call(const QString &method,
                                                const QVariantList &arguments, int timeoutMs)
{
    QDBusMessage message = QDBusMessage::createMethodCall(kService, kPath, kInterface, method);
    message.setArguments(arguments);
    const QDBusMessage reply = m_bus.call(message, QDBus::Block, timeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return failureFromReply(reply);
    }
    return std::nullopt;
}

std::optional<HMCtlBus::Failure> HMCtlBus::properties(QVariantMap *out)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(kService, kPath, kProperties, QStringLiteral("GetAll"));
    message << kInterface;
    const QDBusMessage reply = m_bus.call(message, QDBus::Block, 10000);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        return failureFromReply(reply);
    }
    if (reply.arguments().isEmpty()) {
        return Failure{Refused, QStringLiteral("Hollowmere sent an empty answer")};
    }
    *out = plain(reply.arguments().constFirst()).toMap();
    return std::nullopt;
}

bool HMCtlBus::watch(std::function<void(const QVariantMap &)> changed)
{
    m_changed = std::move(changed);
    // QDBusConnection::connect has no function-pointer form: the slot goes by its signature.
    return m_bus.connect(kService, kPath, kProperties, QStringLiteral("PropertiesChanged"), this,
                         SLOT(propertiesChanged(QString, QVariantMap, QStringList)));
}

void HMCtlBus::propertiesChanged(const QString &interface, const QVariantMap &changed,
                                 const QStringList &)
{
    if (interface == kInterface && m_changed) {
        m_changed(plain(changed).toMap());
    }
}

QVariant HMCtlBus::plain(const QVariant &value)
{
    if (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>()) {
        return plain(value.value<QDBusVariant>().variant());
    }
    if (value.userType() == qMetaTypeId<QDBusArgument>()) {
        const QDBusArgument argument = value.value<QDBusArgument>();
        switch (argument.currentType()) {
        case QDBusArgument::MapType: {
            QVariantMap map;
            argument >> map;
            return plain(map);
        }
        case QDBusArgument::ArrayType: {
            QVariantList list;
            argument >> list;
            return plain(list);
        }
        default:
            return argument.asVariant();
        }
    }
    if (value.userType() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it) {
            it.value() = plain(it.value());
        }
        return map;
    }
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant &item : list) {
            item = plain(item);
        }
        return list;
    }
    return value;
}
