// The helper's end of the socket: socket activation, accepting, peer identity and the
// distrustful frame reader.
#include "HMWireServer.h"
#include "HMHelperPeerProcess.h"
#include "HMWireConstants.h"
#include "HMWireSocket.h"

#include "HMWireTestSockets.h"

#include <QElapsedTimer>
#include <QtTest>
#include <cerrno>
#include <fcntl.h>
#include <thread>

namespace {

int connectNonBlocking(const QString &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_un address = hmUnixAddress(path.toLocal8Bit());
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

class HMWireServerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void noListenerWithoutSocketActivation()
    {
        qunsetenv("LISTEN_FDS");
        qunsetenv("LISTEN_PID");
        QCOMPARE(get_listener_fd(), -1);
    }

    void passedSocketListensWithBacklogOfFive()
    {
        HMHelperPeerProcess peer;
        QVERIFY2(peer.start(HMHelperPeerProcess::peerProgram(), {QStringLiteral("hold")}),
                 qPrintable(peer.errorString()));

        // The first client makes systemd-socket-activate start the program.
        std::vector<int> clients;
        clients.push_back(connectNonBlocking(peer.socketPath()));
        QVERIFY(clients.front() >= 0);
        QVERIFY(peer.process().waitForReadyRead(10000));
        QCOMPARE(peer.process().readLine().trimmed(), QByteArray("listening 3"));

        // A Unix listener admits backlog + 1 pending connections, then refuses.
        for (int i = 0; i < 20; ++i) {
            const int fd = connectNonBlocking(peer.socketPath());
            if (fd < 0) {
                QCOMPARE(errno, EAGAIN);
                break;
            }
            clients.push_back(fd);
        }
        for (int fd : clients) {
            ::close(fd);
        }
        QCOMPARE(int(clients.size()), kHMWireListenBacklog + 1);
    }

    void acceptOutcomes()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("listener.socket");
        const int listener = hmListenAt(path.toLocal8Bit());
        QVERIFY(listener >= 0);

        QElapsedTimer timer;
        timer.start();
        QCOMPARE(get_connection_fd(listener, 200), -1);
        QVERIFY(timer.elapsed() >= 150);

        const int client = unix_socket(path, nullptr);
        QVERIFY(client >= 0);
        const int accepted = get_connection_fd(listener, 200);
        QVERIFY(accepted >= 0);
        QVERIFY(::fcntl(accepted, F_GETFD) & FD_CLOEXEC);
        ::close(accepted);
        ::close(client);

        QCOMPARE(get_connection_fd(-1, 200), -2);
        const int notListening = ::socket(AF_UNIX, SOCK_STREAM, 0);
        QCOMPARE(get_connection_fd(notListening, 200), -2);
        ::close(notListening);
        ::close(listener);
    }

    void peerCredentialsNameTheConnectingProcess()
    {
        HMSocketPair pair;
        HMWireMaybeError error;
        const std::optional<HMWirePeer> peer = peer_credentials(pair.helper, &error);
        QVERIFY(peer.has_value());
        QCOMPARE(peer->pid, ::getpid());
        QCOMPARE(peer->uid, ::getuid());
        QCOMPARE(peer->gid, ::getgid());

        QVERIFY(!peer_credentials(-1, &error).has_value());
        QCOMPARE(error->code, long(EBADF));
    }

    // The reader of untrusted frames: every way a client can end, stall or lie about the length.
    void readFrameTakesOnlyWholeFramesWithinCapAndDeadline_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<bool>("closeAfter");
        QTest::addColumn<long>("code"); // 0: the payload is read
        const quint64 cap = HMWire::kMaxFrameLength;
        const auto row = [](const char *name, const QByteArray &sent, bool closeAfter, long code) {
            QTest::newRow(name) << sent << closeAfter << code;
        };
        row("small", hmLengthBytes(5) + "hello", false, 0);
        row("exactly the cap", hmLengthBytes(cap) + QByteArray(int(cap), 'c'), false, 0);
        row("empty", hmLengthBytes(0), false, HMWire::FrameEmpty);
        row("one past the cap", hmLengthBytes(cap + 1), false, HMWire::FrameTooLarge);
        row("terabyte announced", hmLengthBytes(quint64(1) << 40), false, HMWire::FrameTooLarge);
        row("closed inside the length", QByteArray(3, '\x01'), true, HMWire::FrameTruncated);
        row("closed inside the payload", hmLengthBytes(10) + "abc", true, HMWire::FrameTruncated);
        row("stalls inside the length", QByteArray(3, '\x01'), false, HMWire::FrameDeadline);
        row("stalls inside the payload", hmLengthBytes(10) + "abc", false, HMWire::FrameDeadline);
    }
    void readFrameTakesOnlyWholeFramesWithinCapAndDeadline()
    {
        QFETCH(QByteArray, sent);
        QFETCH(bool, closeAfter);
        QFETCH(long, code);
        HMSocketPair pair;
        std::thread writer([&] {
            HMSocketPair::writeAll(pair.client, sent);
            if (closeAfter) {
                HMSocketPair::closeEnd(pair.client);
            }
        });
        HMWireMaybeError error;
        QElapsedTimer timer;
        timer.start();
        const std::optional<QByteArray> frame =
            read_frame(pair.helper, HMWire::kMaxFrameLength, 300, &error);
        // A stalled client costs the deadline and no more.
        QVERIFY(timer.elapsed() < 3000);
        if (code == 0) {
            writer.join();
            QCOMPARE(error, HMWireMaybeError());
            QVERIFY(frame == sent.mid(8));
            return;
        }
        // The writer may be blocked on a refused frame's bytes nobody reads.
        HMSocketPair::closeEnd(pair.helper);
        writer.join();
        QVERIFY(!frame.has_value());
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("wire"));
        QCOMPARE(error->code, code);
        QVERIFY(!error->description.isEmpty());
    }
};

QTEST_GUILESS_MAIN(HMWireServerTest)
#include "HMWireServerTest.moc"
