#include "HMTrayHostWatcher.h"

#include "HMLog.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

namespace {
const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kWatcherPath = QStringLiteral("/StatusNotifierWatcher");
} // namespace

HMTrayHostWatcher::HMTrayHostWatcher(const QDBusConnection &bus, QObject *parent)
    : QObject(parent), m_bus(bus)
{}

void HMTrayHostWatcher::start()
{
    if (!m_bus.isConnected()) {
        HMLogError(
            QStringLiteral("No session bus (%1): no tray icon").arg(m_bus.lastError().message()));
        return;
    }
    m_serviceWatcher = new QDBusServiceWatcher(kWatcher, m_bus,
                                               QDBusServiceWatcher::WatchForRegistration |
                                                   QDBusServiceWatcher::WatchForUnregistration,
                                               this);
    connect(m_serviceWatcher, &QDBusServiceWatcher::serviceRegistered, this,
            &HMTrayHostWatcher::watcherAppeared);
    connect(m_serviceWatcher, &QDBusServiceWatcher::serviceUnregistered, this,
            [this] { setHasHost(false); });
    m_bus.connect(kWatcher, kWatcherPath, kWatcher, QStringLiteral("StatusNotifierHostRegistered"),
                  this, SLOT(hostRegistered()));
    m_bus.connect(kWatcher, kWatcherPath, kWatcher,
                  QStringLiteral("StatusNotifierHostUnregistered"), this, SLOT(hostUnregistered()));
    // Answered at once, so that a desktop with a tray never sees the tray-less window flash
    // up at start; a watcher that hangs costs at most this second. One round trip: asked
    // without starting a watcher, the question fails at once where none runs.
    QDBusMessage query = hostQuery();
    query.setAutoStartService(false);
    const QDBusMessage reply = m_bus.call(query, QDBus::Block, 1000);
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
        setHasHost(qdbus_cast<QDBusVariant>(reply.arguments().first()).variant().toBool());
    } else if (reply.errorName() != QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") &&
               reply.errorName() != QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner")) {
        HMLogError(QStringLiteral("The tray watcher did not say whether a tray exists: %1")
                       .arg(reply.errorMessage()));
    }
}

QDBusMessage HMTrayHostWatcher::hostQuery()
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        kWatcher, kWatcherPath, QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    get << kWatcher << QStringLiteral("IsStatusNotifierHostRegistered");
    return get;
}

void HMTrayHostWatcher::watcherAppeared()
{
    auto *call = new QDBusPendingCallWatcher(m_bus.asyncCall(hostQuery()), this);
    connect(call, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *w;
        if (reply.isError()) {
            HMLogError(QStringLiteral("The tray watcher did not say whether a tray exists: %1")
                           .arg(reply.error().message()));
            return;
        }
        setHasHost(reply.value().variant().toBool());
    });
}

void HMTrayHostWatcher::hostRegistered()
{
    setHasHost(true);
}

void HMTrayHostWatcher::hostUnregistered()
{
    // The watcher's signal does not say whether other hosts remain: ask again.
    watcherAppeared();
}

void HMTrayHostWatcher::setHasHost(bool hasHost)
{
    if (hasHost != m_hasHost) {
        m_hasHost = hasHost;
        Q_EMIT hostChanged(hasHost);
    }
}
