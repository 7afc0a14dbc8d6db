#include "HMSerialQueue.h"

#include <QThread>

HMSerialQueue::HMSerialQueue(const QString &label) : m_label(label)
{
    m_thread.reset(QThread::create([this] { runLoop(); }));
    m_thread->setObjectName(label);
    m_thread->start();
}

HMSerialQueue::~HMSerialQueue()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_pending.clear();
    }
    m_wake.notify_all();
    m_thread->wait();
}

void HMSerialQueue::async(std::function<void()> work)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            return;
        }
        m_pending.push_back(std::move(work));
    }
    m_wake.notify_one();
}

void HMSerialQueue::sync(std::function<void()> work)
{
    if (isCurrent()) {
        work();
        return;
    }
    // Shared so that a waiter that gives up early (never, today) leaves nothing dangling.
    struct Done
    {
        std::mutex mutex;
        std::condition_variable condition;
        bool finished = false;
    };
    auto done = std::make_shared<Done>();
    async([work = std::move(work), done] {
        work();
        std::lock_guard<std::mutex> lock(done->mutex);
        done->finished = true;
        done->condition.notify_all();
    });
    std::unique_lock<std::mutex> lock(done->mutex);
    done->condition.wait(lock, [&] { return done->finished; });
}

bool HMSerialQueue::isCurrent() const
{
    return QThread::currentThread() == m_thread.get();
}

void HMSerialQueue::runLoop()
{
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_pending.empty(); });
            if (m_stopping) {
                return;
            }
            work = std::move(m_pending.front());
            m_pending.pop_front();
        }
        work();
    }
}
