#include "HMManualClock.h"

#include <algorithm>

HMManualClock::HMManualClock(const QDateTime &start) : m_now(start) {}

HMClock::TimerId HMManualClock::singleShot(qint64 ms, QObject *context,
                                           std::function<void()> callback)
{
    const TimerId id = m_nextId++;
    m_timers.append(Timer{id, m_elapsedMs + std::max<qint64>(0, ms), QPointer<QObject>(context),
                          context != nullptr, std::move(callback)});
    return id;
}

void HMManualClock::cancel(TimerId id)
{
    m_timers.erase(std::remove_if(m_timers.begin(), m_timers.end(),
                                  [id](const Timer &t) { return t.id == id; }),
                   m_timers.end());
}

qint64 HMManualClock::nextDueMs() const
{
    qint64 next = -1;
    for (const Timer &t : m_timers) {
        if (next < 0 || t.dueMs < next) {
            next = t.dueMs;
        }
    }
    return next;
}

void HMManualClock::advance(qint64 ms)
{
    const qint64 target = m_elapsedMs + ms;
    for (;;) {
        auto due =
            std::min_element(m_timers.begin(), m_timers.end(), [](const Timer &a, const Timer &b) {
                return a.dueMs != b.dueMs ? a.dueMs < b.dueMs : a.id < b.id;
            });
        if (due == m_timers.end() || due->dueMs > target) {
            break;
        }
        Timer timer = *due;
        m_timers.erase(due);
        m_now = m_now.addMSecs(timer.dueMs - m_elapsedMs);
        m_elapsedMs = timer.dueMs;
        if (!timer.hadContext || timer.context) {
            timer.callback();
        }
    }
    m_now = m_now.addMSecs(target - m_elapsedMs);
    m_elapsedMs = target;
}
