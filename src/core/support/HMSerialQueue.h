// A named serial queue: one dedicated worker thread that runs submitted work one item at a
// time, in submission order.
//
// The helper client runs every socket exchange on one ("com.hollowmere.daemon.command"),
// so at most one exchange is in flight and a slow or silent helper holds up only the
// exchanges behind it, never the main thread (unless a caller chose sync()). The worker
// thread carries the label as its QThread object name.
//
// Destroying the queue drops work that has not started and waits for the item that is
// running; owners whose work can block unboundedly must unblock it first.
#pragma once

#include <QString>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class QThread;

class HMSerialQueue
{
public:
    explicit HMSerialQueue(const QString &label);
    ~HMSerialQueue();
    HMSerialQueue(const HMSerialQueue &) = delete;
    HMSerialQueue &operator=(const HMSerialQueue &) = delete;

    QString label() const { return m_label; }

    // Queues `work` and returns at once.
    void async(std::function<void()> work);
    // Queues `work` and returns when it has run. Called from the queue's own thread it
    // runs `work` directly instead of waiting for itself for ever.
    void sync(std::function<void()> work);

    // True on the queue's worker thread.
    bool isCurrent() const;

private:
    void runLoop();

    QString m_label;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_pending;
    bool m_stopping = false;
    std::unique_ptr<QThread> m_thread;
};
