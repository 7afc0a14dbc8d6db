// hollowmerectl's side of the session bus: reaching the running application's control
// interface, calling its methods, reading its properties and following PropertiesChanged.
//
// Every failure is turned into an HMCtlBus::Failure that says what a person can do about it
// and which exit status the command line gives it, so the commands never look at D-Bus
// error names themselves.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QVariantMap>
#include <functional>
#include <optional>

class HMCtlBus : public QObject
{
    Q_OBJECT
public:
    // Exit statuses scripts can rely on (also in the man page).
    enum Exit
    {
        Ok = 0,
        Refused = 1,      // the application refused or the operation failed
        Usage = 2,        // wrong command line
        NotRunning = 3,   // no session bus, or the application is not running
        NotAvailable = 4, // this build of the application cannot do it
        TimedOut = 5,     // --wait gave up
    };

    struct Failure
    {
        Exit exit;
        QString message;
    };

    HMCtlBus();

    // Nothing when the application answers on the bus; else why not.
    std::optional<Failure> reach();

    std::optional<Failure> call(const QString &method, const QVariantList &arguments = {},
                                int timeoutMs = 30000);
    std::optional<Failure> properties(QVariantMap *out);
    // Calls `changed` with each PropertiesChanged's changed map (values unwrapped).
    bool watch(std::function<void(const QVariantMap &)> changed);

    // QtDBus hands nested containers over as QDBusArgument; this unwraps them recursively
    // into maps and lists.
    static QVariant plain(const QVariant &value);

private Q_SLOTS:
    void propertiesChanged(const QString &interface, const QVariantMap &changed,
                           const QStringList &invalidated);

private:
    QDBusConnection m_bus;
    std::function<void(const QVariantMap &)> m_changed;
};
