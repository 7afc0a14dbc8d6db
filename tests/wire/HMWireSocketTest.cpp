// The shared socket calls against real sockets: framing, errors and the reader's patience.
// (The request frame byte for byte is checked where the application sends it.)
#include "HMWireSocket.h"
#include "HMWireTestSockets.h"

#include <QTemporaryDir>
#include <QtTest>
#include <cerrno>
#include <fcntl.h>
#include <thread>

class HMWireSocketTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void frameRoundTrips_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("binary with zeros") << QByteArray::fromHex("00ff00ff00");
        // Larger than the socket buffer and the reader's growth step.
        QTest::newRow("300 KiB") << QByteArray(300 * 1024, 'v');
    }
    void frameRoundTrips()
    {
        QFETCH(QByteArray, payload);
        HMSocketPair pair;
        HMWireMaybeError writeError;
        std::thread writer([&] { writeError = write_data(pair.helper, payload); });
        HMWireMaybeError readError;
        const std::optional<QByteArray> read = read_data(pair.client, &readError);
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
            << (hmLengthBytes(10) + QByteArray("abcd")) << long(ECONNRESET) << replyReset;
        // Announcing a terabyte allocates nothing until bytes arrive.
        QTest::newRow("terabyte length, no payload")
            << hmLengthBytes(quint64(1) << 40) << long(ECONNRESET) << replyReset;
        QTest::newRow("length beyond any buffer")
            << hmLengthBytes(quint64(1) << 63) << long(EMSGSIZE)
            << QStringLiteral("read() reply failed: Message too long");
        QTest::newRow("bad descriptor")
            << QByteArray("bad") << long(EBADF)
            << QStringLiteral("read() size failed: Bad file descriptor");
    }
    void readDataReportsWhereThePeerStopped()
    {
        QFETCH(QByteArray, sent);
        QFETCH(long, code);
        QFETCH(QString, description);
        HMSocketPair pair;
        HMSocketPair::writeAll(pair.helper, sent);
        HMSocketPair::closeEnd(pair.helper);

        HMWireMaybeError error;
        QVERIFY(!read_data(sent == "bad" ? -1 : pair.client, &error).has_value());
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("sockets"));
        QCOMPARE(error->code, code);
        QCOMPARE(error->description, description);
    }

    void readBytesWaitsThroughQuietPolls()
    {
        // The second half arrives after more than one 1,000 ms poll: there is no overall
        // time-out, so the read still completes.
        HMSocketPair pair;
        std::thread writer([&] {
            HMSocketPair::writeAll(pair.helper, "first");
            std::this_thread::sleep_for(std::chrono::milliseconds(1300));
            HMSocketPair::writeAll(pair.helper, "-second");
        });
        char buffer[12] = {};
        size_t received = 0;
        const int result = read_bytes(12, pair.client, buffer, &received);
        writer.join();
        QCOMPARE(result, 0);
        QCOMPARE(received, size_t(12));
        QCOMPARE(QByteArray(buffer, 12), QByteArray("first-second"));
    }

    void readReturnValuesOnClosedPeerAndBadDescriptor()
    {
        HMSocketPair pair;
        HMSocketPair::writeAll(pair.helper, "abc");
        HMSocketPair::closeEnd(pair.helper);
        char buffer[8] = {};
        size_t received = 99;
        // The peer closed: the loop ends with the error number of the moment (none here).
        QCOMPARE(read_bytes(8, pair.client, buffer, &received), 0);
        QCOMPARE(received, size_t(3));
        QCOMPARE(read_bytes(8, -1, buffer, &received), EBADF);
        QCOMPARE(received, size_t(0));
    }

    void shortWriteKeepsItsHistoricalWording()
    {
        HMSocketPair pair;
        HMSocketPair::closeEnd(pair.helper);
        // Must not raise SIGPIPE: the test process would die here if it did.
        const HMWireMaybeError error = write_data(pair.client, QByteArray("payload"));
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
        const QString refused = QStringLiteral("socket connect() failed: Connection refused");
        QTest::newRow("missing") << "missing" << long(ENOENT)
                                 << "socket connect() failed: No such file or directory";
        QTest::newRow("regular file") << "file" << long(ECONNREFUSED) << refused;
        QTest::newRow("socket nobody listens on") << "stale" << long(ECONNREFUSED) << refused;
    }
    void connectFailures()
    {
        QFETCH(QString, kind);
        QFETCH(long, code);
        QFETCH(QString, description);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("helper.socket"));
        if (kind == QLatin1String("file")) {
            QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        } else if (kind == QLatin1String("stale")) {
            const int fd = hmListenAt(path.toLocal8Bit());
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
        const int listener = hmListenAt(exact);
        QVERIFY(listener >= 0);

        HMWireMaybeError error;
        const int shortFd = unix_socket(QString::fromLocal8Bit(exact), &error);
        QVERIFY2(shortFd >= 0, qPrintable(error ? error->description : QString()));
        const int longFd = unix_socket(QString::fromLocal8Bit(exact + "-cut-off-here"), &error);
        QVERIFY2(longFd >= 0, qPrintable(error ? error->description : QString()));
        // Not inherited by the programs the application starts.
        QVERIFY(::fcntl(shortFd, F_GETFD) & FD_CLOEXEC);
        ::close(shortFd);
        ::close(longFd);
        ::close(listener);
        ::unlink(exact.constData());
    }
};

QTEST_GUILESS_MAIN(HMWireSocketTest)
#include "HMWireSocketTest.moc"
