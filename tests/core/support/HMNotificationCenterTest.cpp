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
    void removedObserverIsNotCalled()
    {
        HMNotificationCenter center;
        int calls = 0;
        const auto token = center.addObserverForName(QStringLiteral("N"), [&] { ++calls; });
        center.postNotificationName(QStringLiteral("N"));
        center.removeObserver(token);
        center.postNotificationName(QStringLiteral("N"));
        QCOMPARE(calls, 1);
    }
    void observerMayRemoveAnotherDuringDelivery()
    {
        HMNotificationCenter center;
        int secondCalls = 0;
        HMNotificationCenter::Token second = 0;
        center.addObserverForName(QStringLiteral("N"), [&] { center.removeObserver(second); });
        second = center.addObserverForName(QStringLiteral("N"), [&] { ++secondCalls; });
        center.postNotificationName(QStringLiteral("N"));
        QCOMPARE(secondCalls, 0);
    }
};

QTEST_GUILESS_MAIN(HMNotificationCenterTest)
#include "HMNotificationCenterTest.moc"
