#include "HMNotificationCenter.h"

#include "HMDispatch.h"

#include <QList>
#include <algorithm>

HMNotificationCenter &HMNotificationCenter::defaultCenter()
{
    static HMNotificationCenter center;
    return center;
}

HMNotificationCenter::Token HMNotificationCenter::addObserverForName(const QString &name,
                                                                     std::function<void()> block)
{
    QMutexLocker locker(&m_mutex);
    const Token token = m_nextToken++;
    m_observers.insert(token, Observer{name, std::move(block)});
    return token;
}

void HMNotificationCenter::removeObserver(Token token)
{
    QMutexLocker locker(&m_mutex);
    m_observers.remove(token);
}

void HMNotificationCenter::postNotificationName(const QString &name)
{
    if (is_main_thread()) {
        deliver(name);
    } else {
        dispatch_to_main([this, name] { deliver(name); });
    }
}

void HMNotificationCenter::deliver(const QString &name)
{
    // Snapshot under the lock, run without it: an observer may add or remove observers.
    QList<QPair<Token, std::function<void()>>> matching;
    {
        QMutexLocker locker(&m_mutex);
        for (auto it = m_observers.cbegin(); it != m_observers.cend(); ++it) {
            if (it->name == name) {
                matching.append({it.key(), it->block});
            }
        }
    }
    // Registration order, so observers run in the order they were added.
    std::sort(matching.begin(), matching.end(),
              [](const auto &a, const auto &b) { return a.first < b.first; });
    for (const auto &entry : matching) {
        bool stillRegistered = false;
        {
            QMutexLocker locker(&m_mutex);
            stillRegistered = m_observers.contains(entry.first);
        }
        if (stillRegistered) {
            entry.second();
        }
    }
}
