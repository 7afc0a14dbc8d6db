// Sleep and wake as logind reports them, with a delay inhibitor held while awake.
//
// logind's PrepareForSleep(true) arrives before the machine suspends; while the delay
// inhibitor is held, logind waits (up to its InhibitDelayMaxSec) until it is released, so
// the application can send its disconnect first. The owner calls releaseInhibitor() once
// that is done; after waking (PrepareForSleep(false)) the inhibitor is taken again. No
// system bus or no logind is logged once and simply means no sleep notices.
#pragma once

#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QObject>

class HMSleepWatcher : public QObject
{
    Q_OBJECT
public:
    explicit HMSleepWatcher(const QDBusConnection &systemBus, QObject *parent = nullptr);

    // Subscribes to PrepareForSleep and takes the inhibitor; false when logind is not there.
    bool start();
    bool holdsInhibitor() const { return m_inhibitor.isValid(); }
    void releaseInhibitor();

Q_SIGNALS:
    void willSleep();
    void didWake();

private Q_SLOTS:
    void prepareForSleep(bool sleeping);

private:
    void takeInhibitor();

    QDBusConnection m_bus;
    QDBusUnixFileDescriptor m_inhibitor;
};
