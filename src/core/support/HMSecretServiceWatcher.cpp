#include "HMSecretServiceWatcher.h"

#include <QDBusConnection>

namespace {
const QString kService = QStringLiteral("org.freedesktop.secrets");
}

HMSecretServiceWatcher::HMSecretServiceWatcher(std::function<void()> changed, QObject *parent)
    : QObject(parent), m_changed(std::move(changed))
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.connect(kService, QStringLiteral("/org/freedesktop/secrets"),
                QStringLiteral("org.freedesktop.Secret.Service"),
                QStringLiteral("CollectionChanged"), this, SLOT(collectionChanged()));
    // Any collection: the default one is an alias whose path the service chooses.
    bus.connect(kService, QString(), QStringLiteral("org.freedesktop.DBus.Properties"),
                QStringLiteral("PropertiesChanged"), this, SLOT(collectionChanged()));
}

void HMSecretServiceWatcher::collectionChanged()
{
    m_changed();
}
