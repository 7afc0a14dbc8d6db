#include "HMSleepWatcher.h"

#include "HMLog.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {
const QString kService = QStringLiteral("org.freedesktop.login1");
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kInterface = QStringLiteral("org.freedesktop.login1.Manager");
} // namespace

HMSleepWatcher::HMSleepWatcher(const QDBusConnection &systemBus, QObject *parent)
    : QObject(parent), m_bus(systemBus)
{}

bool HMSleepWatcher::start()
{
    if (!m_bus.isConnected()) {
        HMLogError(QStringLiteral("No system bus (%1): the VPN is not disconnected before sleep")
                       .arg(m_bus.lastError().message()));
        return false;
    }
    if (!m_bus.interface()->isServiceRegistered(kService).value() &&
        !m_bus.interface()->activatableServiceNames().value().contains(kService)) {
        HMLogError(QStringLiteral("logind is not running: the VPN is not disconnected before "
                                  "sleep"));
        return false;
    }
    m_bus.connect(kService, kPath, kInterface, QStringLiteral("PrepareForSleep"), this,
                  SLOT(prepareForSleep(bool)));
    takeInhibitor();
    return true;
}

void HMSleepWatcher::takeInhibitor()
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QStringLiteral("Hollowmere")
         << QStringLiteral("Disconnecting the VPN before sleep") << QStringLiteral("delay");
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *w;
        if (reply.isError()) {
            HMLogError(QStringLiteral("logind refused the sleep inhibitor: %1")
                           .arg(reply.error().message()));
            return;
        }
        m_inhibitor = reply.value();
    });
}

void HMSleepWatcher::releaseInhibitor()
{
    // Closing our copy of the descriptor is what releases it.
    m_inhibitor = QDBusUnixFileDescriptor();
}

void HMSleepWatcher::prepareForSleep(bool sleeping)
{
    if (sleeping) {
        Q_EMIT willSleep();
    } else {
        takeInhibitor();
        Q_EMIT didWake();
    }
}
