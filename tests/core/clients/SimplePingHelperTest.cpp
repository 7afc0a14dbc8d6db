#include "SimplePingHelper.h"
#include "HMEchoLab.h"
#include "HMManualClock.h"
#include "HMTestEnvironment.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// What one probe reported, and when (milliseconds after it was started).
struct Outcome
{
    QStringList calls;
    QStringList hosts;
    float seconds = -1;
    qint64 atMs = -1;
    QElapsedTimer sinceGo;
    Outcome() { sinceGo.start(); }
    QPointer<SimplePingHelper> probe;
    QString reason;

    QPointer<SimplePingHelper> ping(const QString &host, HMClock &clock = HMClock::system(),
                                    QObject *target = nullptr)
    {
        probe = SimplePingHelper::ping(host, target, success(), failure(), clock);
        return probe;
    }

    SimplePingHelper::SuccessCallback success()
    {
        return [this](const QString &host, float time) {
            calls << QStringLiteral("success");
            hosts << host;
            seconds = time;
            atMs = sinceGo.elapsed();
        };
    }
    SimplePingHelper::FailureCallback failure()
    {
        return [this](const QString &host) {
            calls << QStringLiteral("failure");
            hosts << host;
            reason = probe ? probe->failureReason() : QStringLiteral("(probe gone)");
            atMs = sinceGo.elapsed();
        };
    }
};

// Waits, with the event loop running, until an echo reply from `address` reaches this
// network namespace, seen through a raw socket of our own.
bool waitForEchoReplyFrom(const QString &address, int timeoutMs)
{
    const int raw = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (raw < 0) {
        return false;
    }
    in_addr source{};
    ::inet_pton(AF_INET, address.toLatin1().constData(), &source);
    QElapsedTimer waited;
    waited.start();
    bool seen = false;
    while (!seen && waited.elapsed() < timeoutMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        pollfd readable{raw, POLLIN, 0};
        while (!seen && ::poll(&readable, 1, 10) > 0) {
            unsigned char datagram[256];
            sockaddr_in from{};
            socklen_t fromLength = sizeof from;
            const ssize_t n = ::recvfrom(raw, datagram, sizeof datagram, 0,
                                         reinterpret_cast<sockaddr *>(&from), &fromLength);
            const size_t header = n > 0 ? static_cast<size_t>(datagram[0] & 0x0F) * 4 : 0;
            seen = n > 0 && static_cast<size_t>(n) > header && datagram[header] == 0 &&
                   from.sin_addr.s_addr == source.s_addr;
        }
    }
    ::close(raw);
    QCoreApplication::processEvents();
    return seen;
}

} // namespace

class SimplePingHelperTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMEchoLab> m_lab;

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        // Before anything opens a socket; without root the ICMP cases skip, saying why.
        if (HMEchoLab::enterPrivateNetwork()) {
            m_lab = std::make_unique<HMEchoLab>();
        }
    }
    void cleanupTestCase() { m_lab.reset(); }

    void loopbackProbeSucceeds()
    {
        HM_REQUIRE_PING_SOCKET();
        Outcome outcome;
        QObject target;
        QPointer<SimplePingHelper> probe =
            outcome.ping(QStringLiteral("127.0.0.1"), HMClock::system(), &target);
        QTRY_COMPARE(outcome.calls, QStringList{QStringLiteral("success")});
        QCOMPARE(outcome.hosts, QStringList{QStringLiteral("127.0.0.1")});
        QVERIFY2(outcome.seconds > 0.0f, qPrintable(QString::number(outcome.seconds)));
        // The pending time-out keeps the finished probe alive, then it goes by itself.
        QVERIFY(probe);
        QVERIFY(!probe->isRunning());
        QTRY_VERIFY_WITH_TIMEOUT(probe.isNull(), 3000);
        QCOMPARE(outcome.calls.size(), 1);
    }

    // The answer arrives, after the verdict: it changes nothing. (The black-holed host's
    // time-out is pinned on the injected clock below.)
    void lateAnswerChangesNothing()
    {
        HM_REQUIRE_PRIVATE_NETWORK();
        QString error;
        const QString host = m_lab->addHost(1300, false, &error);
        QVERIFY2(!host.isEmpty(), qPrintable(error));
        Outcome outcome;
        QPointer<SimplePingHelper> probe = outcome.ping(host);
        QTRY_COMPARE_WITH_TIMEOUT(outcome.calls, QStringList{QStringLiteral("failure")}, 5000);
        QCOMPARE(outcome.hosts, QStringList{host});
        // Not before the time-out; how late after it is up to the scheduler.
        QVERIFY2(outcome.atMs >= SimplePingHelper::kTimeoutMs - 10,
                 qPrintable(QString::number(outcome.atMs)));
        QCOMPARE(outcome.reason, QStringLiteral("timeout"));
        QVERIFY(waitForEchoReplyFrom(host, 3000));
        QTRY_VERIFY(probe.isNull());
        QCOMPARE(outcome.calls.size(), 1);
    }

    void decoyRepliesIgnored()
    {
        HM_REQUIRE_PRIVATE_NETWORK();
        QString error;
        const QString host = m_lab->addHost(150, true, &error);
        QVERIFY2(!host.isEmpty(), qPrintable(error));
        Outcome outcome;
        outcome.ping(host);
        QTRY_COMPARE(outcome.calls, QStringList{QStringLiteral("success")});
        // The round trip is measured, not guessed: at least the host's 150 ms.
        QVERIFY2(outcome.seconds >= 0.14f, qPrintable(QString::number(outcome.seconds)));
    }

    void timeOutFollowsTheInjectedClock()
    {
        HM_REQUIRE_PRIVATE_NETWORK();
        QString error;
        const QString host = m_lab->addBlackHole(&error);
        QVERIFY2(!host.isEmpty(), qPrintable(error));
        HMManualClock clock;
        Outcome outcome;
        QPointer<SimplePingHelper> probe = outcome.ping(host, clock);
        QTRY_VERIFY(probe->isRunning());
        QCoreApplication::processEvents(); // resolution done, request sent
        clock.advance(999);
        QVERIFY(outcome.calls.isEmpty());
        QVERIFY(probe->isRunning());
        clock.advance(1);
        QCOMPARE(outcome.calls, QStringList{QStringLiteral("failure")});
        QCOMPARE(outcome.reason, QStringLiteral("timeout"));
        QTRY_VERIFY(probe.isNull());
    }

    // Failures that come before the time-out: the time-out still comes, finds the probe
    // finished, and only lets it go (nothing may wait for it).
    void failsBeforeTheTimeOut_data()
    {
        QTest::addColumn<QString>("host"); // "unroutable": the lab's unroutable address
        QTest::addColumn<QString>("reason");
        QTest::newRow("send refused") << "unroutable"
                                      << "didFailToSendPacket";
        QTest::newRow("ipv6 only") << "::1"
                                   << "didFailWithError";
        QTest::newRow("no host at all") << QString() << "didFailWithError";
    }
    void failsBeforeTheTimeOut()
    {
        QFETCH(QString, host);
        QFETCH(QString, reason);
        if (host == QLatin1String("unroutable")) {
            HM_REQUIRE_PRIVATE_NETWORK();
            QString error;
            host = m_lab->addUnroutable(&error);
            QVERIFY2(!host.isEmpty(), qPrintable(error));
        }
        HMManualClock clock;
        Outcome outcome;
        QPointer<SimplePingHelper> probe = outcome.ping(host, clock);
        QVERIFY(outcome.calls.isEmpty()); // never from inside ping()
        QTRY_COMPARE(outcome.calls, QStringList{QStringLiteral("failure")});
        QCOMPARE(outcome.hosts, QStringList{host});
        QCOMPARE(outcome.reason, reason);
        QVERIFY(probe);
        clock.advance(SimplePingHelper::kTimeoutMs);
        QTRY_VERIFY(probe.isNull());
        QCOMPARE(outcome.calls.size(), 1);
    }

    void abandonedProbeReportsNothing_data()
    {
        QTest::addColumn<bool>("killed"); // or else its target goes away
        QTest::newRow("killed") << true;
        QTest::newRow("target gone") << false;
    }
    void abandonedProbeReportsNothing()
    {
        QFETCH(bool, killed);
        HMManualClock clock;
        Outcome outcome;
        auto target = std::make_unique<QObject>();
        QPointer<SimplePingHelper> probe = outcome.ping(QStringLiteral("::1"), clock, target.get());
        killed ? probe->killPing() : target.reset();
        QTRY_VERIFY(!probe->isRunning());
        clock.advance(SimplePingHelper::kTimeoutMs);
        QTRY_VERIFY(probe.isNull());
        QVERIFY(outcome.calls.isEmpty());
    }
};

QTEST_GUILESS_MAIN(SimplePingHelperTest)
#include "SimplePingHelperTest.moc"
