// The shared socket calls against real sockets: framing, errors and the reader's patience.
#include "HMWireSocket.h"
#include "HMWireCodec.h"

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

struct SocketPair
{
    int ours = -1;
    int theirs = -1;
    SocketPair()
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            ours = fds[0];
            theirs = fds[1];
        }
    }
    ~SocketPair()
    {
        closeOurs();
        closeTheirs();
    }
    void closeOurs()
    {
        if (ours >= 0) {
            ::close(ours);
            ours = -1;
        }
    }
    void closeTheirs()
    {
        if (theirs >= 0) {
            ::close(theirs);
            theirs = -1;
        }
    }
};

QByteArray lengthBytes(quint64 length)
{
    QByteArray bytes(8, '\0');
    qToLittleEndian(length, bytes.data());
    return bytes;
}

QByteArray readAvailable(int fd)
{
    QByteArray all;
    char chunk[4096];
    for (;;) {
        const ssize_t got = ::recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (got <= 0) {
            break;
        }
        all.append(chunk, got);
    }
    return all;
}

void writeAll(int fd, const QByteArray &bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t wrote = ::write(fd, bytes.constData() + done, bytes.size() - done);
        if (wrote <= 0) {
            return;
        }
        done += wrote;
    }
}

// A listening socket bound with the full path, however long.
int listenAt(const QByteArray &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(),
                std::min<size_t>(path.size(), sizeof(address.sun_path) - 1));
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 5) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

class HMWireSocketTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void requestFrameIsLittleEndianLengthThenPayload()
    {
        QVERIFY2(QSysInfo::ByteOrder == QSysInfo::LittleEndian,
                 "the framing below is written for x86-64");
        SocketPair pair;
        QVERIFY(pair.ours >= 0);

        const QByteArray payload =
            encode_dictionary(QVariantMap{{QStringLiteral("action"), QStringLiteral("stopVPN")}});
        QCOMPARE(write_data(pair.ours, payload), HMWireMaybeError());

        // {"action": "stopVPN"} as a definite-length CBOR map of one text pair.
        const QByteArray expected = QByteArray::fromHex("1000000000000000"
                                                        "a1"
                                                        "66616374696f6e"
                                                        "6773746f7056504e");
        QCOMPARE(readAvailable(pair.theirs).toHex(), expected.toHex());
    }

    void frameRoundTrips_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("one byte") << QByteArray("x");
        QTest::newRow("binary with zeros") << QByteArray::fromHex("00ff00ff00");
        // Larger than the socket buffer and the reader's growth step.
        QTest::newRow("300 KiB") << QByteArray(300 * 1024, 'v');
    }
    void frameRoundTrips()
    {
        QFETCH(QByteArray, payload);
        SocketPair pair;
        HMWireMaybeError writeError;
        std::thread writer([&] { writeError = write_data(pair.theirs, payload); });
        HMWireMaybeError readError;
        const std::optional<QByteArray> read = read_data(pair.ours, &readError);
        writer.join();
        QCOMPARE(writeError, HMWireMaybeError());
        QCOMPARE(readError, HMWireMaybeError());
        QVERIFY(read.has_value());
        QCOMPARE(read->size(), payload.size());
        QVERIFY(*read == payload);
    }

    void readDataReportsWhereThePeerStopped_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<long>("code");
        QTest::addColumn<QString>("description");
        const QString sizeReset = QStringLiteral("read() size failed: Connection reset by peer");
        const QString replyReset = QStringLiteral("read() reply failed: Connection reset by peer");
        QTest::newRow("nothing") << QByteArray() << long(ECONNRESET) << sizeReset;
        QTest::newRow("half a length") << QByteArray(4, '\x01') << long(ECONNRESET) << sizeReset;
        QTest::newRow("length, part of payload")
            << (lengthBytes(10) + QByteArray("abcd")) << long(ECONNRESET) << replyReset;
        // Announcing a terabyte allocates nothing until bytes arrive.
        QTest::newRow("terabyte length, no payload")
            << lengthBytes(quint64(1) << 40) << long(ECONNRESET) << replyReset;
        QTest::newRow("length beyond any buffer")
            << lengthBytes(quint64(1) << 63) << long(EMSGSIZE)
            << QStringLiteral("read() reply failed: Message too long");
    }
    void readDataReportsWhereThePeerStopped()
    {
        QFETCH(QByteArray, sent);
        QFETCH(long, code);
        QFETCH(QString, description);
        SocketPair pair;
        writeAll(pair.theirs, sent);
        pair.closeTheirs();

        HMWireMaybeError error;
        QVERIFY(!read_data(pair.ours, &error).has_value());
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("sockets"));
        QCOMPARE(error->code, code);
        QCOMPARE(error->description, description);
    }

    void readDataOnABadDescriptorNamesTheSystemError()
    {
        HMWireMaybeError error;
        QVERIFY(!read_data(-1, &error).has_value());
        QVERIFY(error.has_value());
        QCOMPARE(error->code, long(EBADF));
        QCOMPARE(error->description, QStringLiteral("read() size failed: Bad file descriptor"));
    }

    void readBytesWaitsThroughQuietPolls()
    {
        // The second half arrives after more than one 1,000 ms poll: there is no overall
        // time-out, so the read still completes.
        SocketPair pair;
        std::thread writer([&] {
            writeAll(pair.theirs, QByteArray("first"));
            std::this_thread::sleep_for(std::chrono::milliseconds(1300));
            writeAll(pair.theirs, QByteArray("-second"));
        });
        char buffer[12] = {};
        size_t received = 0;
        const int result = read_bytes(12, pair.ours, buffer, &received);
        writer.join();
        QCOMPARE(result, 0);
        QCOMPARE(received, size_t(12));
        QCOMPARE(QByteArray(buffer, 12), QByteArray("first-second"));
    }

    void readBytesReturnValues()
    {
        SocketPair pair;
        writeAll(pair.theirs, QByteArray("abc"));
        pair.closeTheirs();
        char buffer[8] = {};
        size_t received = 99;
        // The peer closed: the loop ends with the error number of the moment (none here).
        QCOMPARE(read_bytes(8, pair.ours, buffer, &received), 0);
        QCOMPARE(received, size_t(3));
        QCOMPARE(read_bytes(8, -1, buffer, &received), EBADF);
        QCOMPARE(received, size_t(0));
    }

    void shortWriteKeepsItsHistoricalWording()
    {
        SocketPair pair;
        pair.closeTheirs();
        // Must not raise SIGPIPE: the test process would die here if it did.
        const HMWireMaybeError error = write_data(pair.ours, QByteArray("payload"));
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("sockets"));
        QCOMPARE(error->code, 42L);
        QCOMPARE(error->description,
                 QStringLiteral("socket connect() failed: tried to write 7, but wrote -1"));
    }

    void connectFailures_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<long>("code");
        QTest::addColumn<QString>("description");
        QTest::newRow("missing") << "missing" << long(ENOENT)
                                 << QStringLiteral(
                                        "socket connect() failed: No such file or directory");
        QTest::newRow("regular file")
            << "file" << long(ECONNREFUSED)
            << QStringLiteral("socket connect() failed: Connection refused");
        QTest::newRow("socket nobody listens on")
            << "stale" << long(ECONNREFUSED)
            << QStringLiteral("socket connect() failed: Connection refused");
    }
    void connectFailures()
    {
        QFETCH(QString, kind);
        QFETCH(long, code);
        QFETCH(QString, description);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("helper.socket"));
        if (kind == QLatin1String("file")) {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
        } else if (kind == QLatin1String("stale")) {
            const int fd = listenAt(path.toLocal8Bit());
            QVERIFY(fd >= 0);
            ::close(fd); // leaves the socket file behind with no listener
        }
        HMWireMaybeError error;
        QCOMPARE(unix_socket(path, &error), -1);
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("sockets"));
        QCOMPARE(error->code, code);
        QCOMPARE(error->description, description);
    }

    void connectsAndKeepsOnlyTheFirst104BytesOfThePath()
    {
        QTemporaryDir dir(QStringLiteral("/tmp/hmw-XXXXXX"));
        QVERIFY(dir.isValid());
        // A socket whose path is exactly the limit; clients naming a longer path reach it.
        QByteArray exact = dir.path().toLocal8Bit() + '/';
        exact.append(QByteArray(104 - exact.size(), 's'));
        QCOMPARE(exact.size(), 104);
        const int listener = listenAt(exact);
        QVERIFY(listener >= 0);

        HMWireMaybeError error;
        const int shortFd = unix_socket(QString::fromLocal8Bit(exact), &error);
        QVERIFY2(shortFd >= 0, qPrintable(error ? error->description : QString()));
        const int longFd = unix_socket(QString::fromLocal8Bit(exact + "-cut-off-here"), &error);
        QVERIFY2(longFd >= 0, qPrintable(error ? error->description : QString()));
        ::close(shortFd);
        ::close(longFd);
        ::close(listener);
        ::unlink(exact.constData());

        const QByteArray shorter = exact.left(60);
        QCOMPARE(unix_socket(QString::fromLocal8Bit(shorter), &error), -1);
        QCOMPARE(error->code, long(ENOENT));
    }

    void connectedDescriptorIsNotInheritedByChildren()
    {
        QTemporaryDir dir;
        const QByteArray path = dir.filePath(QStringLiteral("s")).toLocal8Bit();
        const int listener = listenAt(path);
        QVERIFY(listener >= 0);
        const int fd = unix_socket(QString::fromLocal8Bit(path), nullptr);
        QVERIFY(fd >= 0);
        QVERIFY(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
        ::close(fd);
        ::close(listener);
    }
};

QTEST_GUILESS_MAIN(HMWireSocketTest)
#include "HMWireSocketTest.moc"
