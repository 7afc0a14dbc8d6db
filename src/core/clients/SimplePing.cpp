#include "SimplePing.h"

#include "HMException.h"
#include "SimplePingDelegate.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QPointer>
#include <QRandomGenerator>
#include <QSocketNotifier>
#include <QtEndian>

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

const QString SimplePing::kPOSIXErrorDomain = QStringLiteral("posix");
const QString SimplePing::kResolutionErrorDomain = QStringLiteral("CFNetwork");
const QString SimplePing::kGetAddrInfoFailureKey = QStringLiteral("kCFGetAddrInfoFailureKey");

namespace {

constexpr int kIPv4HeaderLength = 20;
constexpr quint8 kICMPEchoRequest = 8;
constexpr quint8 kICMPEchoReply = 0;
constexpr quint8 kProtocolICMP = 1;
constexpr int kChecksumOffset = 2;
// Another ICMP socket of this machine may already hold the random identifier; a few fresh
// draws make a collision vanishingly unlikely, even with dozens of probes at once.
constexpr int kBindAttempts = 16;

HMError posixError(int code)
{
    return HMError(SimplePing::kPOSIXErrorDomain, code, qt_error_string(code));
}

quint16 randomIdentifier()
{
    // 0 would let the kernel pick the identifier itself.
    quint16 identifier = 0;
    while (identifier == 0) {
        identifier = static_cast<quint16>(QRandomGenerator::system()->generate() & 0xFFFF);
    }
    return identifier;
}

// The getaddrinfo code behind a failed look-up. QHostInfo folds "no such name" into
// HostNotFound and passes other failures on as the resolver's own message.
int resolverFailureCode(const QHostInfo &info)
{
    if (info.error() == QHostInfo::HostNotFound) {
        return EAI_NONAME;
    }
    static const int codes[] = {EAI_AGAIN,    EAI_FAIL,     EAI_MEMORY,     EAI_FAMILY,
                                EAI_SERVICE,  EAI_SYSTEM,   EAI_BADFLAGS,   EAI_NONAME,
                                EAI_SOCKTYPE, EAI_OVERFLOW, EAI_ADDRFAMILY, EAI_NODATA};
    for (const int code : codes) {
        if (info.errorString() == QString::fromLocal8Bit(gai_strerror(code))) {
            return code;
        }
    }
    return EAI_FAIL;
}

quint16 readBigEndian16(const QByteArray &bytes, int offset)
{
    return qFromBigEndian<quint16>(bytes.constData() + offset);
}

} // namespace

quint16 in_cksum(const void *buffer, size_t length)
{
    const auto *bytes = static_cast<const unsigned char *>(buffer);
    quint32 sum = 0;
    size_t left = length;
    while (left > 1) {
        quint16 word = 0;
        std::memcpy(&word, bytes, sizeof word);
        sum += word;
        bytes += 2;
        left -= 2;
    }
    if (left == 1) {
        sum += *bytes;
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum += sum >> 16;
    return static_cast<quint16>(~sum);
}

SimplePing *SimplePing::simplePingWithHostName(const QString &hostName)
{
    return new SimplePing(hostName, QByteArray());
}

SimplePing *SimplePing::simplePingWithHostAddress(const QByteArray &hostAddress)
{
    return new SimplePing(QString(), hostAddress);
}

SimplePing::SimplePing(const QString &hostName, const QByteArray &hostAddress, QObject *parent)
    : QObject(parent), m_hostName(hostName), m_hostAddress(hostAddress),
      m_identifier(randomIdentifier())
{
    hm_assert(hostName.isEmpty() != hostAddress.isEmpty(),
              QStringLiteral("(hostName != nil) == (hostAddress == nil)"));
}

SimplePing::~SimplePing()
{
    hm_assert(!m_resolving, QStringLiteral("self->_host == NULL"));
    hm_assert(m_socket < 0, QStringLiteral("self->_socket == NULL"));
}

QByteArray SimplePing::socketAddress(const QHostAddress &address)
{
    if (address.protocol() != QAbstractSocket::IPv4Protocol) {
        sockaddr unspecified{};
        unspecified.sa_family = AF_UNSPEC;
        return QByteArray(reinterpret_cast<const char *>(&unspecified), sizeof unspecified);
    }
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_addr.s_addr = htonl(address.toIPv4Address());
    return QByteArray(reinterpret_cast<const char *>(&ipv4), sizeof ipv4);
}

void SimplePing::start()
{
    if (m_resolving || m_socket >= 0) {
        return;
    }
    if (!m_hostAddress.isEmpty()) {
        startWithHostAddress();
        return;
    }

    m_resolving = true;
    const quint64 generation = ++m_resolveGeneration;
    QPointer<SimplePing> self(this);
    const QHostAddress literal(m_hostName);
    if (!literal.isNull()) {
        // An address written as a name needs no resolver, and QHostInfo would turn it into a
        // reverse look-up that can wait seconds for an unreachable DNS server. The answer
        // still comes on the next pass of the event loop, as a resolved name's would.
        QHostInfo info;
        info.setHostName(m_hostName);
        info.setAddresses({literal});
        QMetaObject::invokeMethod(
            this,
            [self, generation, info] {
                if (self && self->m_resolving && self->m_resolveGeneration == generation) {
                    self->hostResolutionDone(info);
                }
            },
            Qt::QueuedConnection);
        return;
    }
    const int lookupId =
        QHostInfo::lookupHost(m_hostName, this, [self, generation](const QHostInfo &info) {
            if (self && self->m_resolving && self->m_resolveGeneration == generation) {
                self->hostResolutionDone(info);
            }
        });
    if (m_resolving && m_resolveGeneration == generation) {
        m_lookupId = lookupId;
    }
}

void SimplePing::hostResolutionDone(const QHostInfo &info)
{
    m_resolving = false;
    m_lookupId = -1;

    if (info.error() != QHostInfo::NoError) {
        HMError error(kResolutionErrorDomain, UnknownHost, info.errorString());
        error.setUserInfoValue(kGetAddrInfoFailureKey, resolverFailureCode(info));
        didFailWithError(error);
        return;
    }
    for (const QHostAddress &address : info.addresses()) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol) {
            m_hostAddress = socketAddress(address);
            startWithHostAddress();
            return;
        }
    }
    didFailWithError(HMError(kResolutionErrorDomain, HostNotFound,
                             QStringLiteral("%1 has no IPv4 address").arg(m_hostName)));
}

void SimplePing::startWithHostAddress()
{
    sa_family_t family = AF_UNSPEC;
    if (m_hostAddress.size() >= static_cast<int>(offsetof(sockaddr, sa_family) + sizeof family)) {
        std::memcpy(&family, m_hostAddress.constData() + offsetof(sockaddr, sa_family),
                    sizeof family);
    }
    hm_assert(family != AF_INET6, QStringLiteral("IPv6 is not supported"));
    if (family != AF_INET) {
        didFailWithError(posixError(EPROTONOSUPPORT));
        return;
    }
    if (m_hostAddress.size() < static_cast<int>(sizeof(sockaddr_in))) {
        didFailWithError(posixError(EINVAL));
        return;
    }

    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (fd < 0) {
        didFailWithError(posixError(errno));
        return;
    }
    // The kernel replaces the identifier of every request with the socket's port and
    // delivers only replies that carry it: binding to the identifier keeps them equal.
    // ICMP sockets start with SO_REUSEADDR on, which lets a second socket bind the same
    // identifier and take every reply meant for the first; with it off, a clash shows up
    // as EADDRINUSE and costs a fresh identifier instead of a silent time-out.
    const int off = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &off, sizeof off);
    for (int attempt = 1;; ++attempt) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(m_identifier);
        if (::bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0) {
            break;
        }
        const int bindError = errno;
        if (bindError != EADDRINUSE || attempt == kBindAttempts) {
            ::close(fd);
            didFailWithError(posixError(bindError));
            return;
        }
        m_identifier = randomIdentifier();
    }

    m_socket = fd;
    m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SimplePing::readData);
    if (m_delegate) {
        m_delegate->simplePingDidStartWithAddress(this, m_hostAddress);
    }
}

void SimplePing::sendPingWithData(const std::optional<QByteArray> &data)
{
    const QByteArray payload = data ? *data : defaultPayload(m_nextSequenceNumber);
    const QByteArray packet = echoRequestPacket(m_identifier, m_nextSequenceNumber, payload);

    std::optional<HMError> error;
    if (m_socket < 0) {
        error = posixError(EBADF);
    } else {
        sockaddr_in target{};
        std::memcpy(&target, m_hostAddress.constData(), sizeof target);
        const ssize_t sent =
            ::sendto(m_socket, packet.constData(), static_cast<size_t>(packet.size()), 0,
                     reinterpret_cast<const sockaddr *>(&target), sizeof target);
        if (sent < 0) {
            error = posixError(errno);
        } else if (sent != packet.size()) {
            error = posixError(ENOBUFS);
        }
    }

    QPointer<SimplePing> self(this);
    if (m_delegate) {
        if (error) {
            m_delegate->simplePingDidFailToSendPacket(this, packet, *error);
        } else {
            m_delegate->simplePingDidSendPacket(this, packet);
        }
    }
    if (self) {
        ++m_nextSequenceNumber; // quint16: 65535 wraps to 0
    }
}

void SimplePing::readData()
{
    QByteArray buffer(65535, Qt::Uninitialized);
    sockaddr_storage from{}; // the sender is not needed, only the datagram
    socklen_t fromLength = sizeof from;
    const ssize_t received = ::recvfrom(m_socket, buffer.data(), static_cast<size_t>(buffer.size()),
                                        0, reinterpret_cast<sockaddr *>(&from), &fromLength);
    if (received < 0) {
        const int readError = errno;
        // The socket is non-blocking: a wake-up with nothing to read is not a failure.
        if (readError == EAGAIN || readError == EWOULDBLOCK || readError == EINTR) {
            return;
        }
        didFailWithError(posixError(readError));
        return;
    }
    if (received == 0) {
        didFailWithError(posixError(EPIPE));
        return;
    }
    buffer.truncate(static_cast<int>(received));

    if (!m_delegate) {
        return;
    }
    if (isValidPingResponsePacket(buffer, m_identifier, m_nextSequenceNumber)) {
        m_delegate->simplePingDidReceivePingResponsePacket(this, buffer);
    } else {
        m_delegate->simplePingDidReceiveUnexpectedPacket(this, buffer);
    }
}

void SimplePing::didFailWithError(const HMError &error)
{
    stop();
    if (m_delegate) {
        m_delegate->simplePingDidFailWithError(this, error);
    }
    // Nothing after the call: the delegate may have let go of the prober in it.
}

void SimplePing::stop()
{
    stopHostResolution();
    stopSocket();
    if (!m_hostName.isEmpty()) {
        m_hostAddress.clear();
    }
}

void SimplePing::stopHostResolution()
{
    if (!m_resolving) {
        return;
    }
    if (m_lookupId >= 0) {
        QHostInfo::abortHostLookup(m_lookupId);
    }
    m_resolving = false;
    m_lookupId = -1;
}

void SimplePing::stopSocket()
{
    if (m_notifier) {
        // stop() may run inside the notifier's own signal, and the owner may delete the
        // prober right after: the notifier must outlive both.
        m_notifier->setEnabled(false);
        m_notifier->setParent(nullptr);
        m_notifier->deleteLater();
        m_notifier = nullptr;
    }
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
}

QByteArray SimplePing::defaultPayload(quint16 sequenceNumber)
{
    char text[kDefaultPayloadLength + 8];
    const int length = std::snprintf(text, sizeof text, "%28zd bottles of beer on the wall",
                                     static_cast<ssize_t>(99 - (sequenceNumber % 100)));
    hm_assert(length == kDefaultPayloadLength, QStringLiteral("[payload length] == 56"));
    return QByteArray(text, length);
}

QByteArray SimplePing::echoRequestPacket(quint16 identifier, quint16 sequenceNumber,
                                         const QByteArray &payload)
{
    QByteArray packet(kICMPHeaderLength, '\0');
    packet[0] = static_cast<char>(kICMPEchoRequest);
    packet[1] = 0;
    qToBigEndian<quint16>(identifier, packet.data() + 4);
    qToBigEndian<quint16>(sequenceNumber, packet.data() + 6);
    packet.append(payload);
    const quint16 checksum = in_cksum(packet.constData(), static_cast<size_t>(packet.size()));
    std::memcpy(packet.data() + kChecksumOffset, &checksum, sizeof checksum);
    return packet;
}

std::optional<int> SimplePing::icmpInPacket(const QByteArray &packet)
{
    if (packet.isEmpty()) {
        return std::nullopt;
    }
    const auto first = static_cast<quint8>(packet.at(0));
    if ((first & 0xF0) != 0x40) {
        // What the Linux datagram socket delivers: the ICMP message alone. Its first byte
        // is the type, and no echo reply has a type that looks like IP version 4.
        if (packet.size() < kICMPHeaderLength) {
            return std::nullopt;
        }
        return 0;
    }
    if (packet.size() < kIPv4HeaderLength + kICMPHeaderLength) {
        return std::nullopt;
    }
    // An ICMP socket only ever sees ICMP; another protocol here means the socket is not
    // what this class opened.
    Q_ASSERT_X(static_cast<quint8>(packet.at(9)) == kProtocolICMP, "SimplePing::icmpInPacket",
               "ipPtr->protocol == 1");
    if (static_cast<quint8>(packet.at(9)) != kProtocolICMP) {
        return std::nullopt;
    }
    const int headerLength = (first & 0x0F) * 4;
    if (headerLength < kIPv4HeaderLength || packet.size() < headerLength + kICMPHeaderLength) {
        return std::nullopt;
    }
    return headerLength;
}

bool SimplePing::isValidPingResponsePacket(const QByteArray &packet, quint16 identifier,
                                           quint16 nextSequenceNumber)
{
    const std::optional<int> offset = icmpInPacket(packet);
    if (!offset) {
        return false;
    }
    QByteArray icmp = packet.mid(*offset);
    quint16 receivedChecksum = 0;
    std::memcpy(&receivedChecksum, icmp.constData() + kChecksumOffset, sizeof receivedChecksum);
    std::memset(icmp.data() + kChecksumOffset, 0, sizeof receivedChecksum);
    if (in_cksum(icmp.constData(), static_cast<size_t>(icmp.size())) != receivedChecksum) {
        return false;
    }
    if (static_cast<quint8>(icmp.at(0)) != kICMPEchoReply || icmp.at(1) != 0) {
        return false;
    }
    if (readBigEndian16(icmp, 4) != identifier) {
        return false;
    }
    // Only numbers already sent; deliberately no allowance for the wrap from 65535 to 0.
    return readBigEndian16(icmp, 6) < nextSequenceNumber;
}
