#include "HMNotificationManager.h"

#include "HMLog.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

const QString HMNotificationManager::kEnabledKey = QStringLiteral("notificationsEnabled");

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");

// The "image-data" hint: raw RGBA rows, as the desktop notification protocol lays them out.
struct HMNotificationImage
{
    int width = 0;
    int height = 0;
    int rowStride = 0;
    bool hasAlpha = true;
    int bitsPerSample = 8;
    int channels = 4;
    QByteArray data;
};

bool isConnectionNotice(const QString &title)
{
    return title == QLatin1String("Connection secure") ||
           title == QLatin1String("Connection not secure");
}

} // namespace

Q_DECLARE_METATYPE(HMNotificationImage)

QDBusArgument &operator<<(QDBusArgument &argument, const HMNotificationImage &image)
{
    argument.beginStructure();
    argument << image.width << image.height << image.rowStride << image.hasAlpha
             << image.bitsPerSample << image.channels << image.data;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, HMNotificationImage &image)
{
    argument.beginStructure();
    argument >> image.width >> image.height >> image.rowStride >> image.hasAlpha >>
        image.bitsPerSample >> image.channels >> image.data;
    argument.endStructure();
    return argument;
}

HMNotificationManager &HMNotificationManager::instance()
{
    static HMNotificationManager shared(HMPreferenceStore::instance(),
                                        QDBusConnection::sessionBus());
    return shared;
}

HMNotificationManager::HMNotificationManager(HMPreferenceStore &store, const QDBusConnection &bus,
                                             QObject *parent)
    : QObject(parent), m_store(store), m_bus(bus)
{
    qDBusRegisterMetaType<HMNotificationImage>();
}

bool HMNotificationManager::isEnabled() const
{
    return pref_bool_value(m_store.value(kEnabledKey));
}

void HMNotificationManager::setEnabled(bool enabled)
{
    m_store.setValue(kEnabledKey, enabled);
}

bool HMNotificationManager::isAvailable() const
{
    QDBusConnectionInterface *bus = m_bus.isConnected() ? m_bus.interface() : nullptr;
    const bool available = bus && (bus->isServiceRegistered(kService).value() ||
                                   bus->activatableServiceNames().value().contains(kService));
    if (!available && !m_reportedUnavailable) {
        m_reportedUnavailable = true;
        HMLogError(m_bus.isConnected()
                       ? QStringLiteral("No notification server on the session bus; notices are "
                                        "not shown")
                       : QStringLiteral("No session bus (%1); notices are not shown")
                             .arg(m_bus.lastError().message()));
    }
    return available;
}

void HMNotificationManager::sendNotificationWithTitle(const QString &title, const QString &infoText,
                                                      const QString &imageName)
{
    if (!isEnabled() || !isAvailable()) {
        return;
    }
    QVariantMap hints;
    if (!imageName.isEmpty() && m_renderer) {
        const QImage rendered = m_renderer(imageName).convertToFormat(QImage::Format_RGBA8888);
        if (!rendered.isNull()) {
            HMNotificationImage image;
            image.width = rendered.width();
            image.height = rendered.height();
            image.rowStride = int(rendered.bytesPerLine());
            image.data = QByteArray(reinterpret_cast<const char *>(rendered.constBits()),
                                    rendered.sizeInBytes());
            hints.insert(QStringLiteral("image-data"), QVariant::fromValue(image));
        }
    }
    const uint replaces = isConnectionNotice(title) ? m_connectionNoticeId : 0;
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
    call << QStringLiteral("Hollowmere") << replaces << QStringLiteral("hollowmere") << title
         << infoText << QStringList() << hints << -1;
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, title, infoText](QDBusPendingCallWatcher *finished) {
                finished->deleteLater();
                const QDBusPendingReply<uint> reply = *finished;
                if (reply.isError()) {
                    HMLogError(QStringLiteral("The notification server refused \"%1\": %2")
                                   .arg(title, reply.error().message()));
                    return;
                }
                if (isConnectionNotice(title)) {
                    m_connectionNoticeId = reply.value();
                }
                Q_EMIT notificationDelivered(title, infoText, reply.value());
            });
}
