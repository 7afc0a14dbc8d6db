// Time as the managers see it: wall-clock reads and one-shot timers.
//
// Everything that waits (the usage loop, connection back-off, log rolling by age, probe
// time-outs) asks a clock instead of QTimer or QDateTime directly, so tests drive virtual
// time with HMManualClock and never sleep through a real minute.
#pragma once

#include <QDateTime>
#include <QObject>
#include <functional>

class HMClock
{
public:
    using TimerId = quint64;

    virtual ~HMClock() = default;

    virtual QDateTime now() const = 0;
    // Milliseconds on a monotonic scale, for measuring intervals.
    virtual qint64 monotonicMs() const = 0;
    // The same scale in nanoseconds, for intervals far below a millisecond (ICMP round trips
    // on a local network). Clocks without a finer scale use the milliseconds.
    virtual qint64 monotonicNs() const { return monotonicMs() * 1000000; }
    // Runs `callback` on the calling thread's event loop after `ms`; the call is dropped if
    // `context` is destroyed first. Returns an id for cancel().
    virtual TimerId singleShot(qint64 ms, QObject *context, std::function<void()> callback) = 0;
    virtual void cancel(TimerId id) = 0;

    // The real clock, shared by the whole process.
    static HMClock &system();
};

class HMSystemClock : public HMClock
{
public:
    QDateTime now() const override;
    qint64 monotonicMs() const override;
    qint64 monotonicNs() const override;
    TimerId singleShot(qint64 ms, QObject *context, std::function<void()> callback) override;
    void cancel(TimerId id) override;
};
