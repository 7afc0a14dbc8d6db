// Sends ICMP echo requests to one IPv4 host and tells its delegate which replies are its own.
//
// The prober uses the kernel's unprivileged ICMP datagram socket, so the desktop user needs
// no rights beyond membership of a group in net.ipv4.ping_group_range (desktops with systemd
// open it to everyone; a bare container does not). Two things about that socket shape this
// class: the kernel writes the socket's bound port into the echo identifier of every request
// and delivers only replies carrying it, so the socket is bound with the prober's identifier
// as its port; and the reply arrives without the IPv4 header. The reply parser still accepts
// a datagram that starts with an IPv4 header, the shape raw sockets deliver.
//
// A prober is created from a host name (resolved asynchronously with QHostInfo at each
// start) or from a socket address, never both. Everything, resolution and socket reads
// included, runs on the event loop of the thread that calls start(); nothing blocks.
// SimplePingHelper turns one prober into a one-shot timed probe; the closest-server
// manager is its only user.
#pragma once

#include "HMError.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <optional>

class QHostAddress;
class QHostInfo;
class QSocketNotifier;
class SimplePingDelegate;

// The one's-complement sum of RFC 1071 over `length` bytes, complemented, in host byte
// order; stored into a header as it comes out, it is the correct network-order checksum.
quint16 in_cksum(const void *buffer, size_t length);

class SimplePing : public QObject
{
    Q_OBJECT

public:
    // Domains of the errors the delegate receives: errno values, and host resolution
    // (code 1 "host not found", code 2 look-up failure with the resolver's code under
    // kGetAddrInfoFailureKey). The strings are those diagnostics readers know.
    static const QString kPOSIXErrorDomain;
    static const QString kResolutionErrorDomain;
    static const QString kGetAddrInfoFailureKey;
    enum ResolutionError
    {
        HostNotFound = 1,
        UnknownHost = 2,
    };
    static constexpr int kDefaultPayloadLength = 56;
    static constexpr int kICMPHeaderLength = 8;

    static SimplePing *simplePingWithHostName(const QString &hostName);
    // `hostAddress` holds the bytes of a socket address (see socketAddress()).
    static SimplePing *simplePingWithHostAddress(const QByteArray &hostAddress);
    // Exactly one of the two must be given; both or neither is a programming error.
    SimplePing(const QString &hostName, const QByteArray &hostAddress, QObject *parent = nullptr);
    // Destroying a prober that is still resolving or still has its socket is a programming
    // error: stop() it first.
    ~SimplePing() override;

    // The bytes of a sockaddr_in for an IPv4 address (port 0). Any other address gives a
    // socket address of family AF_UNSPEC, which start() refuses.
    static QByteArray socketAddress(const QHostAddress &address);

    QString hostName() const { return m_hostName; }
    QByteArray hostAddress() const { return m_hostAddress; }
    SimplePingDelegate *delegate() const { return m_delegate; }
    void setDelegate(SimplePingDelegate *delegate) { m_delegate = delegate; }
    quint16 identifier() const { return m_identifier; }
    quint16 nextSequenceNumber() const { return m_nextSequenceNumber; }
    bool isResolving() const { return m_resolving; }
    bool isRunning() const { return m_socket >= 0; }

    // With an address, opens the socket at once; with a name, resolves it first.
    void start();
    // Sends one echo request carrying `data`, or the default 56-byte payload without it.
    void sendPingWithData(const std::optional<QByteArray> &data = std::nullopt);
    // Ends resolution and closes the socket; a prober made from a name forgets the
    // address, so the next start() resolves again.
    void stop();

    // The packet pieces, public so that they can be checked byte by byte.
    static QByteArray defaultPayload(quint16 sequenceNumber);
    static QByteArray echoRequestPacket(quint16 identifier, quint16 sequenceNumber,
                                        const QByteArray &payload);
    // Where the ICMP header starts inside a received datagram, or nothing when the
    // datagram is too short to hold one.
    static std::optional<int> icmpInPacket(const QByteArray &packet);
    // Whether `packet` is an echo reply to a request this identifier has sent: sequence
    // numbers below `nextSequenceNumber` only.
    static bool isValidPingResponsePacket(const QByteArray &packet, quint16 identifier,
                                          quint16 nextSequenceNumber);

private:
    void hostResolutionDone(const QHostInfo &info);
    void startWithHostAddress();
    void readData();
    void didFailWithError(const HMError &error);
    void stopHostResolution();
    void stopSocket();

    QString m_hostName;
    QByteArray m_hostAddress;
    SimplePingDelegate *m_delegate = nullptr;
    quint16 m_identifier = 0;
    quint16 m_nextSequenceNumber = 0;
    bool m_resolving = false;
    int m_lookupId = -1;
    // Tells a late answer of an abandoned resolution from the current one.
    quint64 m_resolveGeneration = 0;
    int m_socket = -1;
    QSocketNotifier *m_notifier = nullptr;
};
