// The single owner of the tunnel's state and the client side of OpenVPN's management
// interface.
//
// OpenVPN is started and stopped by the root helper; once it runs, this manager holds the
// one connection to its management interface (a Unix socket the helper opens to this user
// alone, see HMOpenVPNArgumentForms::managementSocketPath), turns what OpenVPN
// reports there into the shared VPNState, answers its credential queries with the account's
// VPN token and charges its byte counts against the data allowance. It also reacts to the
// account (country, sign-in, allowance) and to the network coming and going. One connect
// request at a time is carried by an HMVPNConnectionSequence that this manager owns.
//
// Collaborators come in through narrow interfaces (account, reachability, helper requests,
// selective routing, closest-server test, clock, notification centre) so tests can drive
// the manager on recorded management transcripts. Everything runs on the main thread.
#pragma once

#include "HMError.h"
#include "HMVPNState.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <functional>
#include <memory>

class HMClock;
class HMNotificationCenter;
class HMVPNAccountSource;
class HMVPNClosestSource;
class HMVPNConnectionSequence;
class HMVPNHelperTransport;
class HMVPNReachabilitySource;
class HMVPNRoutingSource;
class QLocalSocket;

class HMVPNManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(VPNState state READ state NOTIFY stateChanged)
    Q_PROPERTY(bool connected READ isConnected NOTIFY connectedChanged)
    Q_PROPERTY(qint64 bandwidthAvailable READ bandwidthAvailable NOTIFY bandwidthAvailableChanged)
    Q_PROPERTY(QString connectedIp READ connectedIp)
public:
    using Completion = std::function<void(const HMMaybeError &)>;

    static const QString kDidStartConnectingNotification; // "HMVPNDidStartConnectingNotification"
    static const QString kConnectionDidFailNotification;  // "HMVPNConnectionDidFailNotification"
    static const QString kOutOfDataNotification;          // "HMVPNOutOfDataNotification"

    // Increases of the metered allowance smaller than this are discarded (see
    // setBandwidthAvailable).
    static constexpr qint64 kSmallIncreaseBytes = 41943040;

    struct Collaborators
    {
        HMVPNAccountSource *account = nullptr;
        HMVPNReachabilitySource *reachability = nullptr;
        HMVPNHelperTransport *helper = nullptr;
        HMVPNRoutingSource *routing = nullptr;
        HMVPNClosestSource *closest = nullptr;
        HMClock *clock = nullptr;                      // the system clock when null
        HMNotificationCenter *notifications = nullptr; // the default centre when null
        // Empty: this user's socket in the helper's management directory. Tests point the
        // manager at their own server.
        QString managementSocket;
    };

    // The process-wide manager, wired to the real account, reachability, helper, routing and
    // closest-server managers.
    static HMVPNManager &instance();

    // Every collaborator except clock and notifications must be given.
    explicit HMVPNManager(const Collaborators &collaborators, QObject *parent = nullptr);
    ~HMVPNManager() override;

    const Collaborators &collaborators() const { return m_collaborators; }
    HMClock &clock() const { return *m_clock; }

    VPNState state() const { return m_state; }
    void setState(VPNState state);
    bool isConnected() const { return m_state == VPNState::Connected; }
    bool isConnecting() const { return m_state == VPNState::Connecting; }
    bool canConnect() const;
    QString tapAdapter() const { return m_tap; }
    QString connectedIp() const { return m_connectedIp; }
    qint64 bandwidthAvailable() const { return m_bandwidthAvailable; }
    void setBandwidthAvailable(qint64 value);
    qint64 totalPrevious() const { return m_totalPrevious; }
    QLocalSocket *socket() const { return m_socket; }
    HMVPNConnectionSequence *connectionSequence() const { return m_connectionSequence.get(); }

    // These hide QObject::connect/disconnect inside this class on purpose: the whole client
    // calls the tunnel's switch by these names. Use QObject::connect for signals here.
    void connect();
    void disconnect();
    void connectWithCompletion(Completion completion);
    void disconnectWithCompletion(Completion completion);
    void reconnect();
    // For the quit handler (SIGTERM, session end): ends the attempt, drops the management
    // connection and writes the helper's stop requests before returning, without waiting
    // for its answer (bounded well under a second), so no OpenVPN outlives the process.
    void stopBeforeExit();
    // For start-up, before the reconnect decision: stops a tunnel of this user that an
    // earlier run left behind (crash, kill), then runs `then`. At once when an attempt of
    // this run is live.
    void stopOrphanedTunnel(std::function<void()> then);
    // Stops the helper's OpenVPN unless a live attempt or a tunnel of this run owns it.
    void stopUnownedTunnel();
    // For the connection sequence: the OpenVPN its attempt asked for is no longer wanted
    // (management dropped, the helper asked to stop it); the state is the sequence's business.
    void abandonTunnel();
    // For the connection sequence: the attempt's renewed token is in; a password prompt that
    // waited for it is answered now.
    void tokenDidArrive();

    // Consecutive AUTH_FAILED answers to freshly renewed tokens after which the attempt
    // ends in Error instead of renewing again.
    static constexpr int kMaximumRefusedTokens = 3;

    // Opens the management connection; an error only when the attempt cannot even start.
    HMMaybeError connectVPN();
    void disconnectVPN();
    void setDisconnectedState();

    // The management dialogue.
    void sendCommand(const QString &command);
    void readLine();
    void processVPNCommand(const QString &line);
    void authenticate();
    void hangUp();
    void parseByteCount(const QString &line);

    void postDidStartConnectingNotification();
    void postErrorNotification();
    void postOutOfDataNotification();

Q_SIGNALS:
    // Emitted for every store of `state`, also when the value stays the same: observers
    // compare old and new themselves.
    void stateChanged(VPNState oldState, VPNState newState);
    void connectedChanged(bool connected);
    void bandwidthAvailableChanged(qint64 value);
    // Around every store of `state`, for the key "connected".
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);

private:
    void processStateLine(const QString &line);
    void accountCurrentCountryDidChange(const QString &oldValue, const QString &newValue);
    void accountLoggedInDidChange(bool oldValue, bool newValue);
    void accountBandwidthAvailableDidChange(qint64 value);
    void reachabilityDidChange(bool reachable);

    void tokenWasRefused();
    void managementDidConnect();
    void managementDidRead();
    void managementDidWrite(qint64 bytes);
    void managementWriteTimedOut(QLocalSocket *socket);
    void managementConnectionLost(const QString &reason);
    void dropSocket();

    Collaborators m_collaborators;
    HMClock *m_clock;
    HMNotificationCenter *m_notifications;

    VPNState m_state = VPNState::Disconnected;
    qint64 m_bandwidthAvailable = 0;
    qint64 m_totalPrevious = 0;
    QString m_connectedIp;
    QString m_tap;
    std::shared_ptr<HMVPNConnectionSequence> m_connectionSequence;

    QLocalSocket *m_socket = nullptr;
    QByteArray m_readBuffer;
    bool m_readOutstanding = false;
    bool m_draining = false;
    int m_refusedTokens = 0;
    bool m_renewingRefusedToken = false;
    // This run has seen the network gone (see reachabilityDidChange).
    bool m_networkWasLost = false;
    // OpenVPN asked for the password while the attempt's token renewal was still out.
    bool m_passwordWanted = false;
    qint64 m_bytesQueued = 0;
    qint64 m_bytesWritten = 0;
};
