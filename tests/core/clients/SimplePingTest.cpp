#include "SimplePing.h"
#include "HMEchoLab.h"
#include "HMException.h"
#include "HMTestEnvironment.h"
#include "SimplePingDelegate.h"

#include <QFile>
#include <QHostAddress>
#include <QTest>
#include <QtEndian>

#include <arpa/inet.h>
#include <cerrno>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Writes down every callback, in order, as short words a test can compare.
class RecordingDelegate : public SimplePingDelegate
{
public:
    QStringList events;
    QList<QByteArray> packets;
    std::optional<HMError> lastError;
    QByteArray startAddress;
    bool deleteOnFailure = false;

    explicit RecordingDelegate(SimplePing &pinger) { pinger.setDelegate(this); }
    void simplePingDidStartWithAddress(SimplePing *, const QByteArray &address) override
    {
        events << QStringLiteral("start");
        startAddress = address;
    }
    void simplePingDidSendPacket(SimplePing *, const QByteArray &packet) override
    {
        events << QStringLiteral("sent %1").arg(sequenceOf(packet));
        packets << packet;
    }
    void simplePingDidFailToSendPacket(SimplePing *, const QByteArray &packet,
                                       const HMError &error) override
    {
        events << QStringLiteral("send failed %1").arg(sequenceOf(packet));
        packets << packet;
        lastError = error;
    }
    void simplePingDidReceivePingResponsePacket(SimplePing *, const QByteArray &packet) override
    {
        events << QStringLiteral("reply %1").arg(sequenceOf(packet));
        packets << packet;
    }
    void simplePingDidReceiveUnexpectedPacket(SimplePing *, const QByteArray &packet) override
    {
        events << QStringLiteral("unexpected");
        packets << packet;
    }
    void simplePingDidFailWithError(SimplePing *pinger, const HMError &error) override
    {
        events << QStringLiteral("failed");
        lastError = error;
        if (deleteOnFailure) {
            delete pinger;
        }
    }

    static int sequenceOf(const QByteArray &packet)
    {
        const std::optional<int> at = SimplePing::icmpInPacket(packet);
        return at ? qFromBigEndian<quint16>(packet.constData() + *at + 6) : -1;
    }
};

QByteArray checksumBytes(quint16 checksum)
{
    return QByteArray(reinterpret_cast<const char *>(&checksum), sizeof checksum);
}

// An echo message with a correct checksum (unless told otherwise).
QByteArray icmpMessage(quint8 type, quint8 code, quint16 identifier, quint16 sequence,
                       const QByteArray &payload)
{
    QByteArray message(8, '\0');
    message[0] = static_cast<char>(type);
    message[1] = static_cast<char>(code);
    qToBigEndian<quint16>(identifier, message.data() + 4);
    qToBigEndian<quint16>(sequence, message.data() + 6);
    message += payload;
    // in_cksum itself is pinned down by the literal vectors of checksumVectors().
    message.replace(2, 2, checksumBytes(in_cksum(message.constData(), size_t(message.size()))));
    return message;
}

QByteArray ipv4Header(int headerWords, quint8 protocol = 1)
{
    QByteArray header(headerWords * 4, '\0');
    header[0] = static_cast<char>(0x40 | headerWords);
    header[8] = 64;
    header[9] = static_cast<char>(protocol);
    return header;
}

// A failed check must not leave a running prober to be destroyed: that ends the whole run.
struct StopAtExit
{
    SimplePing &pinger;
    ~StopAtExit() { pinger.stop(); }
};

QByteArray hexBytes(const char *hex)
{
    return QByteArray::fromHex(hex);
}

} // namespace

class SimplePingTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        // Before anything opens a socket; without root the ICMP cases skip, saying why.
        HMEchoLab::enterPrivateNetwork();
    }

    void echoRequestForSequence_data()
    {
        QTest::addColumn<int>("sequence");
        QTest::addColumn<QByteArray>("bottles"); // the number in the rhyme, right-aligned
        QTest::addColumn<QByteArray>("sequenceBytes");
        QTest::newRow("0") << 0 << QByteArray("99") << hexBytes("0000");
        QTest::newRow("1") << 1 << QByteArray("98") << hexBytes("0001");
        QTest::newRow("99") << 99 << QByteArray(" 0") << hexBytes("0063");
        QTest::newRow("100") << 100 << QByteArray("99") << hexBytes("0064");
        QTest::newRow("65535") << 65535 << QByteArray("64") << hexBytes("ffff");
    }
    void echoRequestForSequence()
    {
        QFETCH(int, sequence);
        QFETCH(QByteArray, bottles);
        QFETCH(QByteArray, sequenceBytes);
        const auto seq = static_cast<quint16>(sequence);
        const QByteArray payload = SimplePing::defaultPayload(seq);
        QCOMPARE(payload, QByteArray(26, ' ') + bottles + " bottles of beer on the wall");
        QCOMPARE(payload.size(), 56);

        const QByteArray packet = SimplePing::echoRequestPacket(0xBE07, seq, payload);
        QCOMPARE(packet.size(), 64);
        QCOMPARE(packet.left(2), hexBytes("0800"));
        QCOMPARE(packet.mid(4, 2), hexBytes("be07"));
        QCOMPARE(packet.mid(6, 2), sequenceBytes);
        QCOMPARE(packet.mid(8), payload);
        // Summed with its own checksum in place, the packet adds up to 0xFFFF.
        QCOMPARE(in_cksum(packet.constData(), static_cast<size_t>(packet.size())), quint16(0));
    }

    void checksumVectors_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QByteArray>("wire");
        QTest::newRow("RFC 1071 example") << hexBytes("0001f203f4f5f6f7") << hexBytes("220d");
        QTest::newRow("odd length") << hexBytes("0001f2") << hexBytes("0dfe");
        QTest::newRow("single byte") << hexBytes("ab") << hexBytes("54ff");
        QTest::newRow("carry folded") << hexBytes("ffffffff0001") << hexBytes("fffe");
        QTest::newRow("all ones") << hexBytes("ffffffff") << hexBytes("0000");
        QTest::newRow("empty") << QByteArray() << hexBytes("ffff");
        QTest::newRow("odd with carry") << hexBytes("ffffff") << hexBytes("00ff");
    }
    void checksumVectors()
    {
        QFETCH(QByteArray, data);
        QFETCH(QByteArray, wire);
        QCOMPARE(checksumBytes(in_cksum(data.constData(), static_cast<size_t>(data.size()))), wire);
    }

    void replyParser_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<int>("nextSequence");
        QTest::addColumn<int>("offset"); // -1: no ICMP header found
        QTest::addColumn<bool>("valid");

        const quint16 id = 0x4D2A;
        const QByteArray payload = SimplePing::defaultPayload(3);
        const QByteArray reply = icmpMessage(0, 0, id, 3, payload);

        QTest::newRow("icmp only") << reply << 4 << 0 << true;
        QTest::newRow("with ipv4 header") << QByteArray(ipv4Header(5) + reply) << 4 << 20 << true;
        QTest::newRow("ipv4 header with options")
            << QByteArray(ipv4Header(6) + reply) << 4 << 24 << true;
        QTest::newRow("odd reply payload") << icmpMessage(0, 0, id, 3, "xyz") << 4 << 0 << true;

        QTest::newRow("empty datagram") << QByteArray() << 4 << -1 << false;
        QTest::newRow("icmp only too short") << reply.left(7) << 4 << -1 << false;
        QTest::newRow("ipv4 too short")
            << QByteArray(ipv4Header(5) + reply).left(27) << 4 << -1 << false;
        {
            QByteArray longHeader = QByteArray(ipv4Header(5) + reply.left(20));
            longHeader[0] = static_cast<char>(0x4F); // 60-byte header in a 40-byte datagram
            QTest::newRow("header length beyond datagram") << longHeader << 4 << -1 << false;
            QByteArray shortHeader = QByteArray(ipv4Header(5) + reply);
            shortHeader[0] = static_cast<char>(0x44); // below the 20-byte minimum
            QTest::newRow("header length below minimum") << shortHeader << 4 << -1 << false;
        }

        QTest::newRow("echo request looped back")
            << icmpMessage(8, 0, id, 3, payload) << 4 << 0 << false;
        QTest::newRow("wrong code") << icmpMessage(0, 1, id, 3, payload) << 4 << 0 << false;
        QTest::newRow("other identifier")
            << icmpMessage(0, 0, id + 1, 3, payload) << 4 << 0 << false;
        QTest::newRow("sequence equal to next") << reply << 3 << 0 << false;
        QTest::newRow("sequence above next") << reply << 2 << 0 << false;
        QTest::newRow("no allowance for the wrap")
            << icmpMessage(0, 0, id, 65535, payload) << 0 << 0 << false;
        {
            QByteArray badSum = reply;
            badSum[2] = static_cast<char>(badSum[2] ^ 0x01);
            QTest::newRow("bad checksum") << badSum << 4 << 0 << false;
            QTest::newRow("bad checksum behind ipv4 header")
                << QByteArray(ipv4Header(5) + badSum) << 4 << 20 << false;
            QByteArray changed = reply;
            changed[20] = 'X';
            QTest::newRow("payload changed after checksum") << changed << 4 << 0 << false;
        }
    }
    void replyParser()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(int, nextSequence);
        QFETCH(int, offset);
        QFETCH(bool, valid);
        const std::optional<int> found = SimplePing::icmpInPacket(datagram);
        QCOMPARE(found.value_or(-1), offset);
        QCOMPARE(SimplePing::isValidPingResponsePacket(datagram, 0x4D2A,
                                                       static_cast<quint16>(nextSequence)),
                 valid);
    }

    void programmingErrors()
    {
        const QByteArray address = SimplePing::socketAddress(QHostAddress::LocalHost);
        QVERIFY_THROWS_EXCEPTION(HMException, SimplePing(QStringLiteral("localhost"), address));
        QVERIFY_THROWS_EXCEPTION(HMException, SimplePing(QString(), QByteArray()));
        // Only IPv4 is ever resolved to; anything else reaching start() is a
        // caller's bug.
        sockaddr_in6 ipv6{};
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_addr = in6addr_loopback;
        SimplePing pinger(QString(),
                          QByteArray(reinterpret_cast<const char *>(&ipv6), sizeof ipv6));
        QVERIFY_THROWS_EXCEPTION(HMException, pinger.start());
        QVERIFY(!pinger.isRunning());
    }

    void sendWithoutSocketFailsAndStillCounts()
    {
        SimplePing pinger(QString(), SimplePing::socketAddress(QHostAddress::LocalHost));
        RecordingDelegate delegate{pinger};
        pinger.sendPingWithData();
        QCOMPARE(delegate.events, QStringList{QStringLiteral("send failed 0")});
        QVERIFY(delegate.lastError.has_value());
        QCOMPARE(delegate.lastError->domain(), SimplePing::kPOSIXErrorDomain);
        QCOMPARE(delegate.lastError->code(), long(EBADF));
        QCOMPARE(pinger.nextSequenceNumber(), quint16(1));

        // The caller's data replaces the rhyme, of any length.
        pinger.sendPingWithData(QByteArray("hi"));
        QCOMPARE(delegate.packets.last().mid(8), QByteArray("hi"));
        pinger.sendPingWithData(QByteArray());
        QCOMPARE(delegate.packets.last().size(), 8);

        while (pinger.nextSequenceNumber() != 65535) {
            pinger.sendPingWithData();
        }
        pinger.sendPingWithData();
        QCOMPARE(delegate.events.last(), QStringLiteral("send failed 65535"));
        QCOMPARE(pinger.nextSequenceNumber(), quint16(0));
        pinger.sendPingWithData();
        QCOMPARE(delegate.events.last(), QStringLiteral("send failed 0"));
    }

    void startFailsWithErrno_data()
    {
        QTest::addColumn<bool>("refused"); // ICMP sockets closed to every group, else no address
        QTest::addColumn<long>("code");
        QTest::newRow("unsupported address") << false << long(EPROTONOSUPPORT);
        QTest::newRow("socket refused") << true << long(EACCES);
    }
    void startFailsWithErrno()
    {
        QFETCH(bool, refused);
        QFETCH(long, code);
        const auto setRange = [](const QByteArray &value) {
            QFile file(QStringLiteral("/proc/sys/net/ipv4/ping_group_range"));
            return file.open(QIODevice::WriteOnly) && file.write(value) == value.size();
        };
        if (refused) {
            HM_REQUIRE_PRIVATE_NETWORK();
            QVERIFY(setRange("1 0"));
        }
        SimplePing pinger(QString(), SimplePing::socketAddress(refused ? QHostAddress::LocalHost
                                                                       : QHostAddress()));
        RecordingDelegate delegate{pinger};
        pinger.start();
        QVERIFY(!refused || setRange("0 2147483647"));
        QCOMPARE(delegate.events, QStringList{QStringLiteral("failed")});
        QCOMPARE(delegate.lastError->domain(), SimplePing::kPOSIXErrorDomain);
        QCOMPARE(delegate.lastError->code(), code);
        QVERIFY(!pinger.isRunning());
    }

    void resolutionFailures_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<long>("code");
        QTest::addColumn<QList<int>>("resolverCodes"); // acceptable resolver codes, if any
        QTest::newRow("ipv6 only") << QStringLiteral("::1") << 1L << QList<int>{};
        QTest::newRow("invalid name") << QStringLiteral("bad name") << 2L << QList<int>{EAI_NONAME};
        // With no DNS server reachable the resolver gives up at once ("try again");
        // on a machine whose DNS answers, the name simply does not exist.
        QTest::newRow("unknown name")
            << QStringLiteral("no-such-host.invalid") << 2L << QList<int>{EAI_AGAIN, EAI_NONAME};
    }
    void resolutionFailures()
    {
        QFETCH(QString, host);
        QFETCH(long, code);
        QFETCH(QList<int>, resolverCodes);
        SimplePing *pinger = SimplePing::simplePingWithHostName(host);
        RecordingDelegate delegate{*pinger};
        delegate.deleteOnFailure = true; // a failing prober may be dropped in its callback
        pinger->start();
        QVERIFY(delegate.events.isEmpty()); // never from inside start()
        QTRY_COMPARE_WITH_TIMEOUT(delegate.events, QStringList{QStringLiteral("failed")}, 15000);
        QCOMPARE(delegate.lastError->domain(), SimplePing::kResolutionErrorDomain);
        QCOMPARE(delegate.lastError->code(), code);
        const QVariant resolverCode =
            delegate.lastError->userInfoValue(SimplePing::kGetAddrInfoFailureKey);
        QCOMPARE(resolverCode.isValid(), !resolverCodes.isEmpty());
        if (resolverCode.isValid()) {
            QVERIFY2(resolverCodes.contains(resolverCode.toInt()),
                     qPrintable(QString::number(resolverCode.toInt())));
        }
    }

    void stopDuringResolutionReportsNothing()
    {
        SimplePing pinger(QStringLiteral("127.0.0.1"), QByteArray());
        RecordingDelegate delegate{pinger};
        pinger.start();
        QVERIFY(pinger.isResolving());
        pinger.stop();
        QVERIFY(!pinger.isResolving());
        // Let the answer that was already on its way arrive: it must be dropped.
        QCoreApplication::processEvents();
        QCoreApplication::processEvents();
        QVERIFY(delegate.events.isEmpty());
        QVERIFY(!pinger.isRunning());
    }

    void loopbackEchoRoundTrip_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("address as name") << QStringLiteral("127.0.0.1");
        QTest::newRow("name from the hosts file") << QStringLiteral("localhost");
    }
    void loopbackEchoRoundTrip()
    {
        HM_REQUIRE_PING_SOCKET();
        QFETCH(QString, host);
        SimplePing pinger(host, QByteArray());
        StopAtExit guard{pinger};
        RecordingDelegate delegate{pinger};
        pinger.start();
        QTRY_COMPARE(delegate.events, QStringList{QStringLiteral("start")});
        QCOMPARE(delegate.startAddress, SimplePing::socketAddress(QHostAddress::LocalHost));
        QCOMPARE(pinger.hostAddress(), delegate.startAddress);

        pinger.sendPingWithData();
        pinger.sendPingWithData();
        QTRY_COMPARE(delegate.events.size(), 5);
        QCOMPARE(delegate.events.mid(0, 3),
                 (QStringList{QStringLiteral("start"), QStringLiteral("sent 0"),
                              QStringLiteral("sent 1")}));
        QCOMPARE(delegate.events.mid(3),
                 (QStringList{QStringLiteral("reply 0"), QStringLiteral("reply 1")}));
        // The kernel hands over the ICMP message alone, with this prober's
        // identifier.
        const QByteArray reply = delegate.packets.at(2);
        QCOMPARE(reply.size(), 64);
        QCOMPARE(qFromBigEndian<quint16>(reply.constData() + 4), pinger.identifier());
        QCOMPARE(reply.mid(8), SimplePing::defaultPayload(0));

        // Stopped, a prober made from a name forgets the address and resolves it
        // again.
        pinger.stop();
        QVERIFY(pinger.hostAddress().isEmpty());
        delegate.events.clear();
        pinger.start();
        QTRY_COMPARE(delegate.events, QStringList{QStringLiteral("start")});
        pinger.stop();
    }

    void unexpectedPacketsReported()
    {
        HM_REQUIRE_PRIVATE_NETWORK();
        HMEchoLab lab;
        QString error;
        const QString host = lab.addHost(20, true, &error);
        QVERIFY2(!host.isEmpty(), qPrintable(error));

        SimplePing pinger(host, QByteArray());
        StopAtExit guard{pinger};
        RecordingDelegate delegate{pinger};
        pinger.start();
        QTRY_COMPARE(delegate.events, QStringList{QStringLiteral("start")});
        pinger.sendPingWithData();
        QTRY_COMPARE(delegate.events.size(), 4);
        QCOMPARE(delegate.events.mid(1),
                 (QStringList{QStringLiteral("sent 0"), QStringLiteral("unexpected"),
                              QStringLiteral("reply 0")}));
        QCOMPARE(RecordingDelegate::sequenceOf(delegate.packets.at(1)), 1000);
        pinger.stop();
    }

    void reusedIdentifierIsReplaced()
    {
        HM_REQUIRE_PING_SOCKET();
        // Probers draw identifiers at random; one that another ICMP socket already
        // holds must cost a fresh draw, not a probe that never hears its replies.
        SimplePing late(QString(), SimplePing::socketAddress(QHostAddress::LocalHost));
        StopAtExit lateGuard{late};
        const int holder = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_ICMP);
        QVERIFY(holder >= 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(late.identifier());
        const quint16 taken = late.identifier();
        QCOMPARE(::bind(holder, reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
        RecordingDelegate lateDelegate{late};
        late.start();
        ::close(holder);
        QCOMPARE(lateDelegate.events, QStringList{QStringLiteral("start")});
        QVERIFY(late.identifier() != taken);
        late.sendPingWithData();
        QTRY_COMPARE(lateDelegate.events.last(), QStringLiteral("reply 0"));
        late.stop();
    }
};

QTEST_GUILESS_MAIN(SimplePingTest)
#include "SimplePingTest.moc"
