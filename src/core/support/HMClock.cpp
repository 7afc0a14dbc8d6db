#include "HMClock.h"

#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QPointer>
#include <QTimer>
#include <algorithm>
#include <limits>

HMClock &HMClock::system()
{
    static HMSystemClock clock;
    return clock;
}

QDateTime HMSystemClock::now() const
{
    return QDateTime::currentDateTime();
}

namespace {
const QElapsedTimer &monotonicOrigin()
{
    static const QElapsedTimer origin = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return origin;
}
} // namespace

qint64 HMSystemClock::monotonicMs() const
{
    return monotonicOrigin().elapsed();
}

qint64 HMSystemClock::monotonicNs() const
{
    return monotonicOrigin().nsecsElapsed();
}

namespace {
QMutex g_timersMutex;
QHash<HMClock::TimerId, QPointer<QTimer>> g_timers;
HMClock::TimerId g_nextTimer = 1;
} // namespace

HMClock::TimerId HMSystemClock::singleShot(qint64 ms, QObject *context,
                                           std::function<void()> callback)
{
    auto *timer = new QTimer(context);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    TimerId id = 0;
    {
        QMutexLocker locker(&g_timersMutex);
        id = g_nextTimer++;
        g_timers.insert(id, timer);
    }
    QObject::connect(timer, &QTimer::timeout, timer, [timer, id, callback = std::move(callback)] {
        {
            QMutexLocker locker(&g_timersMutex);
            g_timers.remove(id);
        }
        timer->deleteLater();
        callback();
    });
    timer->start(static_cast<int>(std::clamp<qint64>(ms, 0, std::numeric_limits<int>::max())));
    return id;
}

void HMSystemClock::cancel(TimerId id)
{
    QPointer<QTimer> timer;
    {
        QMutexLocker locker(&g_timersMutex);
        timer = g_timers.take(id);
    }
    if (timer) {
        timer->stop();
        timer->deleteLater();
    }
}
