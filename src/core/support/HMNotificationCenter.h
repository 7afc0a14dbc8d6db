// The application-wide centre for named notifications ("HMDidLogOutNotification", ...).
//
// Notifications carry no sender and no payload: observers learn only that the named thing
// happened. Observers always run on the main thread; a post made on the main thread runs
// them before it returns, a post from another thread queues them to the main thread.
#pragma once

#include <QHash>
#include <QMutex>
#include <QString>
#include <functional>

class HMNotificationCenter
{
public:
    using Token = quint64;

    static HMNotificationCenter &defaultCenter();

    // Constructible for tests that want an isolated centre.
    HMNotificationCenter() = default;
    HMNotificationCenter(const HMNotificationCenter &) = delete;
    HMNotificationCenter &operator=(const HMNotificationCenter &) = delete;

    Token addObserverForName(const QString &name, std::function<void()> block);
    void removeObserver(Token token);
    void postNotificationName(const QString &name);

private:
    struct Observer
    {
        QString name;
        std::function<void()> block;
    };
    void deliver(const QString &name);

    QMutex m_mutex;
    QHash<Token, Observer> m_observers;
    Token m_nextToken = 1;
};
