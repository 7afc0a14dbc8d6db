// The serial queue behind the helper client: one named worker, strict order, sync waits.
#include "HMSerialQueue.h"

#include <QThread>
#include <QtTest>
#include <atomic>
#include <mutex>
#include <thread>

class HMSerialQueueTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void runsOnOneNamedThreadInSubmissionOrder()
    {
        HMSerialQueue queue(QStringLiteral("com.hollowmere.daemon.command"));
        std::mutex mutex;
        QList<int> order;
        QSet<QThread *> threads;
        QStringList names;
        for (int i = 0; i < 50; ++i) {
            queue.async([&, i] {
                std::lock_guard<std::mutex> lock(mutex);
                order.append(i);
                threads.insert(QThread::currentThread());
                names.append(QThread::currentThread()->objectName());
            });
        }
        queue.sync([] {}); // returns only once everything before it ran
        std::lock_guard<std::mutex> lock(mutex);
        QCOMPARE(order.size(), 50);
        for (int i = 0; i < 50; ++i) {
            QCOMPARE(order.at(i), i);
        }
        QCOMPARE(threads.size(), 1);
        QVERIFY(!threads.contains(QThread::currentThread()));
        QCOMPARE(names.first(), QStringLiteral("com.hollowmere.daemon.command"));
    }

    void syncFromTheQueueItselfRunsInline()
    {
        HMSerialQueue queue(QStringLiteral("serial"));
        bool inner = false;
        bool onQueue = false;
        queue.sync([&] {
            onQueue = queue.isCurrent();
            queue.sync([&] { inner = true; }); // would wait for itself for ever otherwise
        });
        QVERIFY(onQueue);
        QVERIFY(inner);
        QVERIFY(!queue.isCurrent());
    }

    void destructionDropsWorkThatHasNotStarted()
    {
        std::atomic<int> ran{0};
        {
            HMSerialQueue queue(QStringLiteral("serial"));
            std::atomic<bool> started{false};
            queue.async([&] {
                started = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                ++ran;
            });
            for (int i = 0; i < 10; ++i) {
                queue.async([&] { ++ran; });
            }
            QTRY_VERIFY(started);
        }
        // The running item finished; the ten behind it never ran.
        QCOMPARE(ran.load(), 1);
    }
};

QTEST_GUILESS_MAIN(HMSerialQueueTest)
#include "HMSerialQueueTest.moc"
