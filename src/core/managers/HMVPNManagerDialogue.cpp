// HMVPNManager: the management-interface dialogue with OpenVPN and what happens when the
// management connection goes away without being asked to.

#include "HMClock.h"
#include "HMLog.h"
#include "HMVPNAccountSource.h"
#include "HMVPNConnectionSequence.h"
#include "HMVPNHelperTransport.h"
#include "HMVPNManager.h"
#include "HMVPNReachabilitySource.h"

#include "HMOpenVPNArgumentForms.h"

#include <QLocalSocket>
#include <QPointer>
#include <QRegularExpression>
#include <limits>
#include <unistd.h>

namespace {

constexpr qint64 kWriteTimeoutMs = 1000;
// OpenVPN's longest lines are a few hundred bytes; anything far beyond that without a line
// end is not OpenVPN talking and is thrown away rather than buffered without bound.
constexpr qsizetype kMaximumLineBytes = 1 << 20;
const QByteArray kLineEnd = QByteArrayLiteral("\r\n");

qint64 saturatingAdd(qint64 a, qint64 b)
{
    qint64 result = 0;
    if (__builtin_add_overflow(a, b, &result)) {
        return b > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    }
    return result;
}

qint64 saturatingSub(qint64 a, qint64 b)
{
    qint64 result = 0;
    if (__builtin_sub_overflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    }
    return result;
}

// Reads a leading decimal number the forgiving way the byte-count fields need: leading
// white space and a sign are allowed, reading stops at the first non-digit (the field that
// ends the line still carries its CR LF), no digits give 0 and overflow saturates.
qint64 leadingInteger(const QString &text)
{
    qsizetype i = 0;
    while (i < text.size() && text.at(i).isSpace()) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text.at(i) == u'-' || text.at(i) == u'+')) {
        negative = text.at(i) == u'-';
        ++i;
    }
    qint64 value = 0;
    for (; i < text.size() && text.at(i) >= u'0' && text.at(i) <= u'9'; ++i) {
        const int digit = text.at(i).unicode() - u'0';
        if (value > (std::numeric_limits<qint64>::max() - digit) / 10) {
            return negative ? std::numeric_limits<qint64>::min()
                            : std::numeric_limits<qint64>::max();
        }
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}

// Every Unicode punctuation character separates fields (":" and "," do, ">" does not);
// empty fields are kept so that positions do not shift.
QStringList splitAtPunctuation(const QString &line)
{
    QStringList fields;
    QString current;
    for (const QChar c : line) {
        if (c.isPunct()) {
            fields.append(current);
            current.clear();
        } else {
            current.append(c);
        }
    }
    fields.append(current);
    return fields;
}

// The management parser splits at white space and understands double quotes with
// backslash escapes. Plain tokens go out as they are; anything else is quoted so that it
// cannot split into further arguments.
QString quotedArgument(const QString &value)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9._~+/=:@-]+$"));
    if (plain.match(value).hasMatch()) {
        return value;
    }
    QString escaped = value;
    escaped.replace(u'\\', QStringLiteral("\\\\"));
    escaped.replace(u'"', QStringLiteral("\\\""));
    return u'"' + escaped + u'"';
}

} // namespace

HMMaybeError HMVPNManager::connectVPN()
{
    if (m_socket) {
        dropSocket();
    }
    auto *socket = new QLocalSocket(this);
    m_socket = socket;
    m_readBuffer.clear();
    m_readOutstanding = false;
    m_bytesQueued = 0;
    m_bytesWritten = 0;

    // A local connection is often made inside connectToServer; the opening commands must
    // still go out after the signals below are connected, so the greeting waits a turn.
    const QPointer<QLocalSocket> guard(socket);
    QObject::connect(
        socket, &QLocalSocket::connected, this,
        [this, guard] {
            if (guard && guard == m_socket) {
                managementDidConnect();
            }
        },
        Qt::QueuedConnection);
    const QString path = m_collaborators.managementSocket.isEmpty()
                             ? HMOpenVPNArgumentForms::managementSocketPath(
                                   HMOpenVPNArgumentForms::managementDirectory(), ::getuid())
                             : m_collaborators.managementSocket;
    socket->connectToServer(path);
    if (socket->state() == QLocalSocket::UnconnectedState) {
        const HMError error = HMError::errorWithDomain(
            QStringLiteral("sockets"), socket->error(),
            QStringLiteral("Could not connect to OpenVPN's management interface: %1")
                .arg(socket->errorString()));
        dropSocket();
        return error;
    }
    // Connected only after connectToHost returned: a failure it reports synchronously is
    // already returned above and must not also count as a lost connection.
    QObject::connect(socket, &QLocalSocket::readyRead, this, &HMVPNManager::managementDidRead);
    QObject::connect(socket, &QLocalSocket::bytesWritten, this, &HMVPNManager::managementDidWrite);
    QObject::connect(socket, &QLocalSocket::errorOccurred, this,
                     [this, socket](QLocalSocket::LocalSocketError) {
                         if (socket == m_socket) {
                             managementConnectionLost(socket->errorString());
                         }
                     });
    QObject::connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
        if (socket == m_socket) {
            managementConnectionLost(QStringLiteral("OpenVPN closed the connection"));
        }
    });
    return std::nullopt;
}

void HMVPNManager::managementDidConnect()
{
    readLine();
    sendCommand(QStringLiteral("state"));
    sendCommand(QStringLiteral("log on"));
    sendCommand(QStringLiteral("state on"));
    sendCommand(QStringLiteral("hold release"));
    sendCommand(QStringLiteral("bytecount 2"));
}

void HMVPNManager::sendCommand(const QString &command)
{
    if (!m_socket || m_socket->state() != QLocalSocket::ConnectedState) {
        // The text itself may carry the VPN token, so only its first word is logged.
        HMLogError(QStringLiteral("Not connected to OpenVPN; dropped the \"%1\" command")
                       .arg(command.section(u' ', 0, 0)));
        return;
    }
    const QByteArray data = (command + u'\n').toUtf8();
    if (m_socket->write(data) != data.size()) {
        managementConnectionLost(
            QStringLiteral("Could not write to OpenVPN: %1").arg(m_socket->errorString()));
        return;
    }
    m_bytesQueued += data.size();
    const qint64 mark = m_bytesQueued;
    QPointer<QLocalSocket> socket(m_socket);
    m_clock->singleShot(kWriteTimeoutMs, this, [this, socket, mark] {
        if (socket && socket == m_socket && m_bytesWritten < mark) {
            managementWriteTimedOut(socket);
        }
    });
}

void HMVPNManager::managementDidWrite(qint64 bytes)
{
    m_bytesWritten += bytes;
}

void HMVPNManager::managementWriteTimedOut(QLocalSocket *socket)
{
    if (socket == m_socket) {
        managementConnectionLost(QStringLiteral("Writing to OpenVPN timed out"));
    }
}

void HMVPNManager::managementDidRead()
{
    if (!m_socket) {
        return;
    }
    m_readBuffer.append(m_socket->readAll());
    if (m_readBuffer.size() > kMaximumLineBytes && m_readBuffer.indexOf(kLineEnd) < 0) {
        HMLogError(QStringLiteral("Discarded %1 bytes from OpenVPN without a line end")
                       .arg(m_readBuffer.size()));
        m_readBuffer.clear();
    }
    if (m_readOutstanding) {
        readLine();
    }
}

void HMVPNManager::readLine()
{
    if (!m_socket) {
        return;
    }
    m_readOutstanding = true;
    if (m_draining) {
        // processVPNCommand ends with readLine; the loop below serves that read, so lines are
        // handled strictly one after the other without recursion.
        return;
    }
    m_draining = true;
    QLocalSocket *const socket = m_socket;
    while (m_socket == socket && m_readOutstanding) {
        const qsizetype end = m_readBuffer.indexOf(kLineEnd);
        if (end < 0) {
            break;
        }
        const QByteArray raw = m_readBuffer.left(end + kLineEnd.size());
        m_readBuffer.remove(0, end + kLineEnd.size());
        m_readOutstanding = false;
        processVPNCommand(QString::fromUtf8(raw));
    }
    m_draining = false;
}

void HMVPNManager::processVPNCommand(const QString &line)
{
    // Plain containment tests in a fixed order, first match wins. Several rules overlap on
    // purpose (a ">PASSWORD" line reporting a failed verification is answered with the
    // credentials again rather than treated as AUTH_FAILED): keep the order.
    if (line.contains(QLatin1String(">BYTECOUNT"))) {
        parseByteCount(line);
    } else if (line.contains(QLatin1String(">HOLD"))) {
        sendCommand(QStringLiteral("hold release"));
    } else if (line.contains(QLatin1String(">CONNECTING"))) {
        setState(VPNState::Connecting);
    } else if (line.contains(QLatin1String(">PASSWORD"))) {
        authenticate();
    } else if (line.contains(QLatin1String(">WSAECONNRESET"))) {
        hangUp();
    } else if (line.contains(QLatin1String("Signal received from management interface, exiting"))) {
        setState(VPNState::Disconnected);
    } else if (line.contains(QLatin1String("AUTH_FAILED"))) {
        tokenWasRefused();
    } else if (line.contains(QLatin1String(">STATE"))) {
        processStateLine(line);
    } else {
        static const QRegularExpression tunDevice(QStringLiteral("TUN/TAP device (\\S+) opened"));
        const QRegularExpressionMatch match = tunDevice.match(line);
        if (match.hasMatch()) {
            m_tap = match.captured(1);
            m_collaborators.reachability->setTunnelDevice(m_tap);
        }
    }
    readLine();
}

void HMVPNManager::processStateLine(const QString &line)
{
    if (line.contains(QLatin1String("RECONNECTING")) ||
        line.contains(QLatin1String("CONNECTING")) || line.contains(QLatin1String("WAIT")) ||
        line.contains(QLatin1String("AUTH")) || line.contains(QLatin1String("GET_CONFIG"))) {
        setState(VPNState::Connecting);
    } else if (line.contains(QLatin1String("CONNECTED,ERROR"))) {
        reconnect();
    } else if (line.contains(QLatin1String("EXITING"))) {
        setState(m_bandwidthAvailable != 0 ? VPNState::Disconnected : VPNState::OutOfData);
    } else if (line.contains(QLatin1String("CONNECTED,SUCCESS")) && !isConnected()) {
        // OpenVPN 2.4+ sends time,CONNECTED,SUCCESS,local,remote,port,,  and the same line
        // may arrive wrapped in a >LOG: line: the server address is the fifth field after the
        // last ">STATE:" (in the old five-field form that was also the last one).
        const QString marker = QStringLiteral(">STATE:");
        const qsizetype at = line.lastIndexOf(marker);
        const QStringList fields = (at >= 0 ? line.mid(at + marker.size()) : line).split(u',');
        m_connectedIp = (fields.size() > 4 ? fields.at(4) : fields.last()).trimmed();
        setState(VPNState::Connected);
    }
}

void HMVPNManager::authenticate()
{
    if (m_connectionSequence && m_connectionSequence->isAwaitingToken()) {
        // The token held now is the one being renewed; the fresh one goes out when it comes.
        m_passwordWanted = true;
        return;
    }
    const QString token = m_collaborators.account->vpnToken();
    if (token.contains(u'\n') || token.contains(u'\r') || token.contains(QChar(0))) {
        // A line break would end the command early and let the rest run as a command of its
        // own; such a token can only be damage, so OpenVPN is not answered at all.
        HMLogError(QStringLiteral("The VPN token contains a line break; not sent to OpenVPN"));
        return;
    }
    const QString argument = quotedArgument(token);
    sendCommand(QStringLiteral("username \"Auth\" ") + argument);
    sendCommand(QStringLiteral("password \"Auth\" ") + argument);
}

void HMVPNManager::hangUp()
{
    sendCommand(QStringLiteral("signal SIGHUP"));
}

void HMVPNManager::parseByteCount(const QString &line)
{
    if (!isConnected()) {
        return;
    }
    const QStringList fields = splitAtPunctuation(line);
    if (fields.size() < 3) {
        HMLogError(
            QStringLiteral("Ignored a byte count without two numbers: %1").arg(line.trimmed()));
        return;
    }
    const qint64 sum = saturatingAdd(leadingInteger(fields.at(1)), leadingInteger(fields.at(2)));
    // Charged against the account's allowance (refreshed by the service), not against this
    // manager's own meter; totalPrevious is never reset, not even for a new OpenVPN process.
    const qint64 value = saturatingAdd(saturatingSub(m_totalPrevious, sum),
                                       m_collaborators.account->bandwidthAvailable());
    setBandwidthAvailable(value);
    if (m_bandwidthAvailable == 0) {
        disconnect();
    }
    m_totalPrevious = sum;
}

void HMVPNManager::dropSocket()
{
    QLocalSocket *socket = m_socket;
    m_socket = nullptr;
    m_readBuffer.clear();
    m_readOutstanding = false;
    m_passwordWanted = false;
    QObject::disconnect(socket, nullptr, this, nullptr);
    socket->abort();
    socket->deleteLater();
}

// OpenVPN going away on its own (killed, crashed, exited after an error) closes the
// management connection without anyone having asked for it. Nobody else would notice: the
// state would keep saying Connected over a tunnel that no longer exists. So:
//  - lines that arrived before the close are handled first, as usual;
//  - during an attempt that has not reached Connected yet, the loss counts as that attempt
//    failing: OpenVPN is stopped for good measure and the sequence retries with its back-off
//    (or ends in Error), exactly as for a helper that could not start OpenVPN;
//  - otherwise the tunnel is taken down as for a switch-off (Disconnecting, helper stops
//    OpenVPN and the DNS proxy, then the resting state of setDisconnectedState);
//  - in a resting state only the helper's leftovers are cleaned up; the state stays.
// shouldReconnect is left alone in every case: a crashed OpenVPN is not a reason to come
// back on by itself at the next wake or start, and a network loss has its own path.
void HMVPNManager::managementConnectionLost(const QString &reason)
{
    QLocalSocket *const socket = m_socket;
    if (!socket) {
        return;
    }
    if (socket->bytesAvailable() > 0) {
        m_readBuffer.append(socket->readAll());
    }
    if (m_readOutstanding) {
        readLine();
    }
    if (m_socket != socket) {
        return; // a line already took the tunnel down
    }
    HMLogError(QStringLiteral("Lost the connection to OpenVPN: %1").arg(reason));
    dropSocket();

    const std::shared_ptr<HMVPNConnectionSequence> sequence = m_connectionSequence;
    if (isConnecting() && sequence && !sequence->isCancelled()) {
        m_collaborators.helper->stopVPN([](const QVariantMap &, const HMMaybeError &error) {
            if (error) {
                HMLogError(QStringLiteral("Could not stop daemon: %1").arg(error->description()));
            }
        });
        sequence->attemptDidFail(HMError::errorWithDescription(
            QStringLiteral("OpenVPN closed its management connection: %1").arg(reason)));
    } else if (isConnected() || isConnecting() || m_state == VPNState::Disconnecting) {
        disconnect();
    } else {
        m_collaborators.helper->stopVPN([](const QVariantMap &, const HMMaybeError &error) {
            if (error) {
                HMLogError(QStringLiteral("Could not stop daemon: %1").arg(error->description()));
            }
        });
        m_collaborators.helper->stopDNSProxy([](const QVariantMap &, const HMMaybeError &error) {
            if (error) {
                HMLogError(error->description());
            }
        });
    }
}
