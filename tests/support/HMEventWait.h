// Runs the event loop until a callback or a signal reports that what a lab case or a
// benchmark waits for has happened, with a time limit.
//
// Deliberately not QTest::qWaitFor: that one sleeps 10 ms between looks, so every step of a
// timed sequence (a management round trip, a helper reply) is rounded up to the sleep, and a
// switch-on measured through it reads tens of milliseconds slower than the application,
// whose event loop wakes at once. Callbacks made by done() may outlive the wait (a late
// answer after a timeout) and then do nothing.
#pragma once

#include <QEventLoop>
#include <QObject>
#include <QTimer>
#include <functional>
#include <memory>

class HMEventWait
{
public:
    HMEventWait() : m_state(std::make_shared<State>()) {}
    ~HMEventWait() { m_state->loop = nullptr; }
    HMEventWait(const HMEventWait &) = delete;
    HMEventWait &operator=(const HMEventWait &) = delete;

    // A callback that ends the wait.
    std::function<void()> done() const
    {
        return [state = m_state] {
            state->finished = true;
            if (state->loop) {
                state->loop->quit();
            }
        };
    }

    // Ends the wait once `holds` is true, looked at now and after each `signal` of `sender`.
    template <typename Sender, typename Signal, typename Predicate>
    void until(const Sender *sender, Signal signal, Predicate holds)
    {
        if (holds()) {
            done()();
            return;
        }
        QObject::connect(sender, signal, &m_context, [finish = done(), holds] {
            if (holds()) {
                finish();
            }
        });
    }

    // True when the wait ended before `timeoutMs`.
    bool wait(int timeoutMs)
    {
        if (!m_state->finished) {
            QEventLoop loop;
            m_state->loop = &loop;
            QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
            loop.exec();
            m_state->loop = nullptr;
        }
        return m_state->finished;
    }

private:
    struct State
    {
        bool finished = false;
        QEventLoop *loop = nullptr;
    };
    std::shared_ptr<State> m_state;
    QObject m_context; // its end drops the connections of until()
};
