// One timed echo probe of one host: exactly one answer, success with the round trip or failure.
//
// A probe owns one SimplePing made from the host name, sends a single request with the
// default payload as soon as the socket is open and waits for a valid reply. The time-out
// of one second counts from go(), so it covers name resolution as well; the round trip
// covers only sending, the network and the delivery of the reply on the event loop.
// Unexpected packets are ignored: the probe keeps waiting for its own reply or the
// time-out. Why a probe failed (resolution, socket, send, time-out) is deliberately not
// passed on: the callers only care whether the host answered in time.
//
// The pending time-out keeps a started probe alive: ping() hands back a probe that deletes
// itself when its second is up, so callers need not hold it (and must not delete it after
// that). Callbacks go to `target` only while it exists. The wait goes through HMClock so
// that tests can run it on virtual time.
#pragma once

#include "HMClock.h"
#include "SimplePingDelegate.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>

class SimplePing;

class SimplePingHelper : public QObject, private SimplePingDelegate
{
    Q_OBJECT

public:
    using SuccessCallback = std::function<void(const QString &host, float seconds)>;
    using FailureCallback = std::function<void(const QString &host)>;

    static constexpr qint64 kTimeoutMs = 1000;

    // Creates a probe of `host`, starts it and returns it.
    static SimplePingHelper *ping(const QString &host, QObject *target, SuccessCallback success,
                                  FailureCallback failure, HMClock &clock = HMClock::system());

    // `address` is always treated as a host name (an address written as text works too).
    SimplePingHelper(const QString &address, QObject *target, SuccessCallback success,
                     FailureCallback failure, HMClock &clock = HMClock::system());
    ~SimplePingHelper() override;

    // Starts the prober and the one-second time-out; from then on the probe deletes itself
    // when the time-out has passed.
    void go();
    // Ends the probe without a callback; a later time-out does nothing.
    void killPing();

    QString host() const { return m_host; }
    // True from go() until the one callback (or killPing).
    bool isRunning() const { return m_running; }
    // Why the probe failed ("didFailWithError", "didFailToSendPacket", "timeout"), for
    // diagnostics by the code that holds the probe; never shown to users.
    QString failureReason() const { return m_failureReason; }

private:
    void simplePingDidStartWithAddress(SimplePing *pinger, const QByteArray &address) override;
    void simplePingDidFailToSendPacket(SimplePing *pinger, const QByteArray &packet,
                                       const HMError &error) override;
    void simplePingDidReceivePingResponsePacket(SimplePing *pinger,
                                                const QByteArray &packet) override;
    void simplePingDidFailWithError(SimplePing *pinger, const HMError &error) override;

    void successPing();
    void failPing(const QString &reason);
    void endTime();

    QString m_host;
    QPointer<QObject> m_target;
    bool m_hadTarget = false;
    SuccessCallback m_success;
    FailureCallback m_failure;
    HMClock &m_clock;
    SimplePing *m_simplePing = nullptr; // absent for a probe of an empty host name
    bool m_started = false;
    bool m_running = false;
    qint64 m_pingStartNs = 0;
    qint64 m_pingEndNs = 0;
    QString m_failureReason;
};
