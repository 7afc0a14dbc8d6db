// The helper's end of the socket: socket activation, accepting, peer identity and the
// distrustful frame reader.
#include "HMWireServer.h"
#include "HMHelperPeerProcess.h"
#include "HMWireConstants.h"
#include "HMWireSocket.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

QByteArray lengthBytes(quint64 length)
{
    QByteArray bytes(8, '\0');
    qToLittleEndian(length, bytes.data());
    return bytes;
}

int connectNonBlocking(const QString &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const QByteArray encoded = path.toLocal8Bit();
    std::memcpy(address.sun_path, encoded.constData(), encoded.size());
    if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

struct Listener
{
    QTemporaryDir dir;
    QString path;
    int fd = -1;
    Listener()
    {
        path = dir.filePath(QStringLiteral("listener.socket"));
        fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address;
        std::memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        const QByteArray encoded = path.toLocal8Bit();
        std::memcpy(address.sun_path, encoded.constData(), encoded.size());
        if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
            ::listen(fd, 5) != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    ~Listener()
    {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

struct SocketPair
{
    int client = -1;
    int helper = -1;
    SocketPair()
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            client = fds[0];
            helper = fds[1];
        }
    }
    ~SocketPair()
    {
        closeClient();
        if (helper >= 0) {
            ::close(helper);
        }
    }
    void closeClient()
    {
        if (client >= 0) {
            ::close(client);
            client = -1;
        }
    }
    void send(const QByteArray &bytes) const
    {
        (void)!::write(client, bytes.constData(), bytes.size());
    }
};

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
        Listener listener;
        QVERIFY(listener.fd >= 0);

        QElapsedTimer timer;
        timer.start();
        QCOMPARE(get_connection_fd(listener.fd, 200), -1);
        QVERIFY(timer.elapsed() >= 150);

        const int client = unix_socket(listener.path, nullptr);
        QVERIFY(client >= 0);
        const int accepted = get_connection_fd(listener.fd, 200);
        QVERIFY(accepted >= 0);
        QVERIFY(::fcntl(accepted, F_GETFD) & FD_CLOEXEC);
        ::close(accepted);
        ::close(client);

        QCOMPARE(get_connection_fd(-1, 200), -2);
        const int notListening = ::socket(AF_UNIX, SOCK_STREAM, 0);
        QCOMPARE(get_connection_fd(notListening, 200), -2);
        ::close(notListening);
    }

    void peerCredentialsNameTheConnectingProcess()
    {
        SocketPair pair;
        HMWireMaybeError error;
        const std::optional<HMWirePeer> peer = peer_credentials(pair.helper, &error);
        QVERIFY(peer.has_value());
        QCOMPARE(peer->pid, ::getpid());
        QCOMPARE(peer->uid, ::getuid());
        QCOMPARE(peer->gid, ::getgid());

        QVERIFY(!peer_credentials(-1, &error).has_value());
        QCOMPARE(error->code, long(EBADF));
    }

    void frameWithinCapAndDeadlineIsRead()
    {
        SocketPair pair;
        pair.send(lengthBytes(5) + QByteArray("hello"));
        HMWireMaybeError error;
        const std::optional<QByteArray> frame =
            read_frame(pair.helper, HMWire::kMaxFrameLength, 1000, &error);
        QCOMPARE(error, HMWireMaybeError());
        QCOMPARE(frame.value_or(QByteArray()), QByteArray("hello"));

        // Exactly the cap is still allowed.
        std::thread writer([&] {
            pair.send(lengthBytes(HMWire::kMaxFrameLength) +
                      QByteArray(int(HMWire::kMaxFrameLength), 'c'));
        });
        const std::optional<QByteArray> big =
            read_frame(pair.helper, HMWire::kMaxFrameLength, 5000, &error);
        writer.join();
        QVERIFY(big.has_value());
        QCOMPARE(quint64(big->size()), HMWire::kMaxFrameLength);
    }

    void frameRefusals_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<bool>("closeAfter");
        QTest::addColumn<long>("code");
        QTest::newRow("announced length 0") << lengthBytes(0) << false << long(HMWire::FrameEmpty);
        QTest::newRow("announced length 2^63")
            << lengthBytes(quint64(1) << 63) << false << long(HMWire::FrameTooLarge);
        QTest::newRow("announced cap + 1")
            << lengthBytes(HMWire::kMaxFrameLength + 1) << false << long(HMWire::FrameTooLarge);
        QTest::newRow("closed inside the length")
            << QByteArray(3, '\x01') << true << long(HMWire::FrameTruncated);
        QTest::newRow("closed inside the payload")
            << (lengthBytes(10) + "abc") << true << long(HMWire::FrameTruncated);
        QTest::newRow("stalls inside the length")
            << QByteArray(3, '\x01') << false << long(HMWire::FrameDeadline);
        QTest::newRow("stalls inside the payload")
            << (lengthBytes(10) + "abc") << false << long(HMWire::FrameDeadline);
    }
    void frameRefusals()
    {
        QFETCH(QByteArray, sent);
        QFETCH(bool, closeAfter);
        QFETCH(long, code);
        SocketPair pair;
        pair.send(sent);
        if (closeAfter) {
            pair.closeClient();
        }
        HMWireMaybeError error;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!read_frame(pair.helper, HMWire::kMaxFrameLength, 300, &error).has_value());
        // A stalled client costs the deadline and no more; the others are refused at once.
        QVERIFY(timer.elapsed() < 3000);
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("wire"));
        QCOMPARE(error->code, code);
        QVERIFY(!error->description.isEmpty());
    }
};

QTEST_GUILESS_MAIN(HMWireServerTest)
#include "HMWireServerTest.moc"
