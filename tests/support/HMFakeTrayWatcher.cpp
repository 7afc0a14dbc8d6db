// hm-fake-tray-watcher: a StatusNotifierWatcher for tests, on the session bus.
//
//   hm-fake-tray-watcher [--host]
//
// With --host a tray host counts as registered from the start; otherwise one appears when
// someone calls RegisterStatusNotifierHost. Items that register are kept and listed in
// RegisteredStatusNotifierItems as "<sender><path>", the way desktop watchers list them.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QStringList>
#include <cstdio>

class HMFakeTrayWatcher : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hasHost)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
public:
    explicit HMFakeTrayWatcher(bool host) : m_host(host) {}
    QStringList items() const { return m_items; }
    bool hasHost() const { return m_host; }
    int protocolVersion() const { return 0; }

public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString &serviceOrPath)
    {
        const QString item = serviceOrPath.startsWith(QLatin1Char('/'))
                                 ? message().service() + serviceOrPath
                                 : serviceOrPath + QStringLiteral("/StatusNotifierItem");
        m_items.append(item);
        Q_EMIT StatusNotifierItemRegistered(item);
    }
    void RegisterStatusNotifierHost(const QString &)
    {
        m_host = true;
        Q_EMIT StatusNotifierHostRegistered();
    }

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString &item);
    void StatusNotifierHostRegistered();

private:
    bool m_host;
    QStringList m_items;
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    HMFakeTrayWatcher watcher(app.arguments().contains(QStringLiteral("--host")));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                QDBusConnection::ExportAllProperties) ||
        !bus.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"))) {
        std::fprintf(stderr, "hm-fake-tray-watcher: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    return app.exec();
}

#include "HMFakeTrayWatcher.moc"
