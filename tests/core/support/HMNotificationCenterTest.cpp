#include "HMNotificationCenter.h"
#include "HMDispatch.h"

#include <QThread>
#include <QtTest>

class HMNotificationCenterTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void deliversOnlyMatchingNames()
    {
        HMNotificationCenter center;
        QStringList calls;
        center.addObserverForName(QStringLiteral("HMDidLogOutNotification"),
                                  [&] { calls << "first"; });
        center.addObserverForName(QStringLiteral("HMDidLogOutNotification"),
                                  [&] { calls << "second"; });
        center.addObserverForName(QStringLiteral("HMDidLogInNotification"),
                                  [&] { calls << "other"; });
        center.postNotificationName(QStringLiteral("HMDidLogOutNotification"));
        QCOMPARE(calls, (QStringList{"first", "second"}));
    }
    void postFromBackgroundRunsOnMainThread()
    {
        HMNotificationCenter center;
        QThread *mainThread = QThread::currentThread();
        QAtomicPointer<QThread> deliveredOn;
        center.addObserverForName(QStringLiteral("HMAPIBlockedNotification"),
                                  [&] { deliveredOn.storeRelease(QThread::currentThread()); });
        dispatch_to_bg(
            [&] { center.postNotificationName(QStringLiteral("HMAPIBlockedNotification")); });
        QTRY_VERIFY(deliveredOn.loadAcquire() != nullptr);
        QCOMPARE(deliveredOn.loadAcquire(), mainThread);
    }
    // Removed after a delivery, or by another observer during one: not called again.
    void removedObserverIsNotCalled()
    {
        HMNotificationCenter center;
        int firstCalls = 0;
        int secondCalls = 0;
        HMNotificationCenter::Token second = 0;
        const auto first = center.addObserverForName(QStringLiteral("N"), [&] {
            ++firstCalls;
            center.removeObserver(second);
        });
        second = center.addObserverForName(QStringLiteral("N"), [&] { ++secondCalls; });
        center.postNotificationName(QStringLiteral("N"));
        center.removeObserver(first);
        center.postNotificationName(QStringLiteral("N"));
        QCOMPARE(firstCalls, 1);
        QCOMPARE(secondCalls, 0);
    }
};

QTEST_GUILESS_MAIN(HMNotificationCenterTest)
#include "HMNotificationCenterTest.moc"
