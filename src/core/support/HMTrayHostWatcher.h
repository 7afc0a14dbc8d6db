// Whether the desktop has a tray (a StatusNotifierHost) right now.
//
// Qt decides once per process whether its tray icon goes over D-Bus, at the moment the
// first tray icon is made, so the application must not make one before a host exists.
// This watches org.kde.StatusNotifierWatcher on the session bus: its appearance, its
// IsStatusNotifierHostRegistered property and its StatusNotifierHostRegistered signal.
// No session bus means no host, logged once.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

class QDBusServiceWatcher;

class HMTrayHostWatcher : public QObject
{
    Q_OBJECT
public:
    explicit HMTrayHostWatcher(const QDBusConnection &bus, QObject *parent = nullptr);

    void start();
    bool hasHost() const { return m_hasHost; }

Q_SIGNALS:
    void hostChanged(bool hasHost);

private Q_SLOTS:
    void hostRegistered();
    void hostUnregistered();

private:
    static QDBusMessage hostQuery();
    void watcherAppeared();
    void setHasHost(bool hasHost);

    QDBusConnection m_bus;
    QDBusServiceWatcher *m_serviceWatcher = nullptr;
    bool m_hasHost = false;
};
