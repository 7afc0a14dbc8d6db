#include "HMDispatch.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QThreadPool>

void dispatch_to_bg(std::function<void()> block)
{
    bg_queue_default()->start(std::move(block));
}

void dispatch_to_main(std::function<void()> block)
{
    QCoreApplication *app = QCoreApplication::instance();
    Q_ASSERT_X(app, "dispatch_to_main", "needs a QCoreApplication");
    QMetaObject::invokeMethod(app, std::move(block), Qt::QueuedConnection);
}

QThreadPool *bg_queue_default()
{
    return QThreadPool::globalInstance();
}

bool is_main_thread()
{
    QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}
