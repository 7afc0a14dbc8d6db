#include "SimplePingHelper.h"

#include "SimplePing.h"

#include <QCoreApplication>
#include <QThread>

SimplePingHelper *SimplePingHelper::ping(const QString &host, QObject *target,
                                         SuccessCallback success, FailureCallback failure,
                                         HMClock &clock)
{
    auto *probe = new SimplePingHelper(host, target, std::move(success), std::move(failure), clock);
    // A probe frees itself when its time is up; one still in flight when the application
    // quits goes with the application object instead of outliving it.
    if (QCoreApplication *app = QCoreApplication::instance();
        app && app->thread() == QThread::currentThread()) {
        probe->setParent(app);
    }
    probe->go();
    return probe;
}

SimplePingHelper::SimplePingHelper(const QString &address, QObject *target, SuccessCallback success,
                                   FailureCallback failure, HMClock &clock)
    : m_host(address), m_target(target), m_hadTarget(target != nullptr),
      m_success(std::move(success)), m_failure(std::move(failure)), m_clock(clock)
{}

SimplePingHelper::~SimplePingHelper()
{
    if (m_simplePing) {
        m_simplePing->stop();
    }
}

void SimplePingHelper::go()
{
    if (m_started) {
        return;
    }
    m_started = true;
    m_running = true;
    QPointer<SimplePingHelper> self(this);
    if (m_host.isEmpty()) {
        // Server records come from the network and may lack a host. Such a probe fails as
        // an unresolvable name would, on the next pass of the event loop.
        QMetaObject::invokeMethod(
            this,
            [self] {
                if (self && self->m_running) {
                    self->failPing(QStringLiteral("didFailWithError"));
                }
            },
            Qt::QueuedConnection);
    } else {
        m_simplePing = SimplePing::simplePingWithHostName(m_host);
        m_simplePing->setParent(this);
        m_simplePing->setDelegate(this);
        m_simplePing->start();
    }
    m_clock.singleShot(kTimeoutMs, this, [self] {
        self->endTime();
        // The failure callback may have deleted the probe already.
        if (self) {
            self->deleteLater();
        }
    });
}

void SimplePingHelper::killPing()
{
    m_running = false;
    if (!m_simplePing) {
        return;
    }
    // This often runs inside one of the prober's own callbacks: let it finish first.
    SimplePing *pinger = m_simplePing;
    m_simplePing = nullptr;
    pinger->setDelegate(nullptr);
    pinger->stop();
    pinger->deleteLater();
}

void SimplePingHelper::simplePingDidStartWithAddress(SimplePing *pinger, const QByteArray &address)
{
    Q_UNUSED(address)
    if (pinger != m_simplePing) {
        return;
    }
    m_pingStartNs = m_clock.monotonicNs();
    pinger->sendPingWithData();
}

void SimplePingHelper::simplePingDidFailToSendPacket(SimplePing *pinger, const QByteArray &packet,
                                                     const HMError &error)
{
    Q_UNUSED(packet)
    Q_UNUSED(error)
    if (pinger == m_simplePing) {
        failPing(QStringLiteral("didFailToSendPacket"));
    }
}

void SimplePingHelper::simplePingDidReceivePingResponsePacket(SimplePing *pinger,
                                                              const QByteArray &packet)
{
    Q_UNUSED(packet)
    if (pinger != m_simplePing) {
        return;
    }
    m_pingEndNs = m_clock.monotonicNs();
    successPing();
}

void SimplePingHelper::simplePingDidFailWithError(SimplePing *pinger, const HMError &error)
{
    Q_UNUSED(error)
    if (pinger == m_simplePing) {
        failPing(QStringLiteral("didFailWithError"));
    }
}

void SimplePingHelper::successPing()
{
    killPing();
    if (m_success && (!m_hadTarget || m_target)) {
        const double seconds = static_cast<double>(m_pingEndNs - m_pingStartNs) / 1e9;
        m_success(m_host, static_cast<float>(seconds));
    }
}

void SimplePingHelper::failPing(const QString &reason)
{
    m_failureReason = reason;
    killPing();
    if (m_failure && (!m_hadTarget || m_target)) {
        m_failure(m_host);
    }
}

void SimplePingHelper::endTime()
{
    if (m_running) {
        failPing(QStringLiteral("timeout"));
    }
}
