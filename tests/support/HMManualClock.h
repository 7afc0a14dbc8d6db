// Virtual time for tests: nothing fires until the test advances the clock.
#pragma once

#include "HMClock.h"

#include <QList>
#include <QPointer>

class HMManualClock : public HMClock
{
public:
    explicit HMManualClock(const QDateTime &start = QDateTime(QDate(2026, 1, 1), QTime(12, 0)));

    QDateTime now() const override { return m_now; }
    qint64 monotonicMs() const override { return m_elapsedMs; }
    TimerId singleShot(qint64 ms, QObject *context, std::function<void()> callback) override;
    void cancel(TimerId id) override;

    // Moves time forward, firing due timers in order of their due time (and of creation for
    // equal times), each seeing the clock at its own due time.
    void advance(qint64 ms);
    void setNow(const QDateTime &now) { m_now = now; }
    int pendingTimers() const { return m_timers.size(); }
    // Due time (ms on the monotonic scale) of the next timer, or -1.
    qint64 nextDueMs() const;

private:
    struct Timer
    {
        TimerId id;
        qint64 dueMs;
        QPointer<QObject> context;
        bool hadContext;
        std::function<void()> callback;
    };
    QDateTime m_now;
    qint64 m_elapsedMs = 0;
    TimerId m_nextId = 1;
    QList<Timer> m_timers;
};
