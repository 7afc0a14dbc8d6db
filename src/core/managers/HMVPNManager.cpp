#include "HMVPNManager.h"

#include "HMAccountManager.h"
#include "HMClock.h"
#include "HMClosestServerManager.h"
#include "HMDaemonManager.h"
#include "HMLog.h"
#include "HMNotificationCenter.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMReachabilityManager.h"
#include "HMVPNAccountAdapter.h"
#include "HMVPNAccountSource.h"
#include "HMVPNConnectionSequence.h"
#include "HMVPNDaemonAdapter.h"
#include "HMVPNHelperTransport.h"
#include "HMVPNReachabilityAdapter.h"
#include "HMVPNReachabilitySource.h"
#include "HMVPNRoutingAdapter.h"
#include "HMVPNRoutingSource.h"
#include "HMWisprouteManager.h"

#include <QLocalSocket>
#include <QPointer>

#include <utility>

#include <unistd.h>

const QString HMVPNManager::kDidStartConnectingNotification =
    QStringLiteral("HMVPNDidStartConnectingNotification");
const QString HMVPNManager::kConnectionDidFailNotification =
    QStringLiteral("HMVPNConnectionDidFailNotification");
const QString HMVPNManager::kOutOfDataNotification = QStringLiteral("HMVPNOutOfDataNotification");

HMVPNManager::HMVPNManager(const Collaborators &collaborators, QObject *parent)
    : QObject(parent), m_collaborators(collaborators),
      m_clock(collaborators.clock ? collaborators.clock : &HMClock::system()),
      m_notifications(collaborators.notifications ? collaborators.notifications
                                                  : &HMNotificationCenter::defaultCenter())
{
    Q_ASSERT(m_collaborators.account && m_collaborators.reachability && m_collaborators.helper &&
             m_collaborators.routing && m_collaborators.closest);
    qRegisterMetaType<VPNState>("VPNState");

    // Through setState so that observers and its side effects see the first value too.
    setState(VPNState::Disconnected);

    QObject::connect(m_collaborators.account, &HMVPNAccountSource::currentCountryChanged, this,
                     &HMVPNManager::accountCurrentCountryDidChange);
    QObject::connect(m_collaborators.account, &HMVPNAccountSource::loggedInChanged, this,
                     &HMVPNManager::accountLoggedInDidChange);
    QObject::connect(m_collaborators.account, &HMVPNAccountSource::bandwidthAvailableChanged, this,
                     &HMVPNManager::accountBandwidthAvailableDidChange);
    QObject::connect(m_collaborators.reachability, &HMVPNReachabilitySource::reachableChanged, this,
                     &HMVPNManager::reachabilityDidChange);
    // The allowance is observed with an initial call: the metered value starts from the
    // account's, and an account without allowance starts out as Out of Data.
    accountBandwidthAvailableDidChange(m_collaborators.account->bandwidthAvailable());
}

HMVPNManager &HMVPNManager::instance()
{
    static HMVPNManager *manager = [] {
        auto *account = new HMVPNAccountAdapter(HMAccountManager::instance());
        auto *reachability = new HMVPNReachabilityAdapter(HMReachabilityManager::instance());
        static HMVPNDaemonAdapter helper(HMDaemonManager::instance());
        static HMVPNRoutingAdapter routing(HMWisprouteManager::instance());
        Collaborators c;
        c.account = account;
        c.reachability = reachability;
        c.helper = &helper;
        c.routing = &routing;
        c.closest = &HMClosestServerManager::instance();
        // Beside HOLLOWMERE_HELPER_SOCKET: a helper of one's own keeps OpenVPN's management
        // sockets in its own directory. The socket there still admits only this user.
        const QString managementDirectory = qEnvironmentVariable("HOLLOWMERE_HELPER_MANAGEMENT");
        if (!managementDirectory.isEmpty()) {
            c.managementSocket =
                HMOpenVPNArgumentForms::managementSocketPath(managementDirectory, ::getuid());
        }
        auto *vpn = new HMVPNManager(c);
        account->setParent(vpn);
        reachability->setParent(vpn);
        HMDaemonManager::instance().setTunnelInfo([vpn] { return vpn->connectedIp(); },
                                                  [vpn] { return vpn->tapAdapter(); });
        return vpn;
    }();
    return *manager;
}

HMVPNManager::~HMVPNManager()
{
    if (m_connectionSequence) {
        m_connectionSequence->setCancelled(true);
    }
    if (m_socket) {
        dropSocket();
    }
}

void HMVPNManager::setState(VPNState state)
{
    const VPNState old = m_state;
    Q_EMIT willChangeValueForKey(QStringLiteral("connected"));
    m_state = state;
    Q_EMIT didChangeValueForKey(QStringLiteral("connected"));
    Q_EMIT stateChanged(old, state);
    Q_EMIT connectedChanged(state == VPNState::Connected);
    if (state == VPNState::Connected) {
        m_refusedTokens = 0;
    }

    if (state == VPNState::Connected && m_collaborators.routing->isSupported()) {
        // The answer is deliberately not looked at: without the proxy the tunnel still
        // carries traffic, and the helper logs why the proxy did not start.
        m_collaborators.helper->startDNSProxy(tapAdapter(),
                                              m_collaborators.routing->wisprouteMode(),
                                              [](const QVariantMap &, const HMMaybeError &) {});
    }
}

bool HMVPNManager::canConnect() const
{
    return m_state != VPNState::OutOfData && m_state != VPNState::NoConnection;
}

void HMVPNManager::setBandwidthAvailable(qint64 value)
{
    if (value < 0) {
        value = 0;
    }
    // Small increases are dropped on purpose: byte counts arrive every two seconds and are
    // computed against the account's value, which the service refreshes only once a minute.
    // Accepting every rise would let the meter bounce back up between refreshes; only a real
    // top-up (40 MiB or more) may raise it.
    if (value > m_bandwidthAvailable && value - m_bandwidthAvailable < kSmallIncreaseBytes) {
        return;
    }
    if (m_bandwidthAvailable != 0 && value == 0) {
        postOutOfDataNotification();
    }
    const bool changed = m_bandwidthAvailable != value;
    m_bandwidthAvailable = value;
    if (changed) {
        Q_EMIT bandwidthAvailableChanged(value);
    }
}

void HMVPNManager::connect()
{
    connectWithCompletion(nullptr);
}

void HMVPNManager::disconnect()
{
    disconnectWithCompletion(nullptr);
}

void HMVPNManager::connectWithCompletion(Completion completion)
{
    if (!m_renewingRefusedToken) {
        m_refusedTokens = 0;
    }
    // A second click, the network coming back or any other request while an attempt is
    // under way joins that attempt: two sequences would both start OpenVPN and race for
    // its one management connection.
    if (isConnecting() && m_connectionSequence && m_connectionSequence->isLive()) {
        m_connectionSequence->addCompletion(std::move(completion));
        return;
    }
    if (m_connectionSequence) {
        m_connectionSequence->setCancelled(true);
    }
    auto sequence = std::make_shared<HMVPNConnectionSequence>(*this);
    m_connectionSequence = sequence;
    sequence->connectWithCompletion(std::move(completion));
}

void HMVPNManager::disconnectWithCompletion(Completion completion)
{
    if (m_connectionSequence) {
        m_connectionSequence->setCancelled(true);
        m_connectionSequence.reset();
    }
    disconnectVPN();

    QPointer<HMVPNManager> self(this);
    m_collaborators.helper->stopVPN(
        [self, completion](const QVariantMap &, const HMMaybeError &error) {
            if (!self) {
                return;
            }
            if (error) {
                HMLogError(QStringLiteral("Could not stop daemon: %1").arg(error->description()));
            }
            self->setDisconnectedState();
            self->m_collaborators.helper->stopDNSProxy(
                [completion](const QVariantMap &, const HMMaybeError &proxyError) {
                    if (proxyError) {
                        HMLogError(proxyError->description());
                    }
                    if (completion) {
                        completion(proxyError);
                    }
                });
        });
}

void HMVPNManager::reconnect()
{
    QPointer<HMVPNManager> self(this);
    disconnectWithCompletion([self](const HMMaybeError &error) {
        if (self && !error) {
            self->connect();
        }
    });
}

void HMVPNManager::stopBeforeExit()
{
    if (m_connectionSequence) {
        m_connectionSequence->setCancelled(true);
        m_connectionSequence.reset();
    }
    if (m_socket) {
        dropSocket();
    }
    m_collaborators.helper->stopBeforeExit();
}

void HMVPNManager::stopOrphanedTunnel(std::function<void()> then)
{
    if ((m_connectionSequence && m_connectionSequence->isLive()) || m_socket) {
        then();
        return;
    }
    // The helper keeps at most one OpenVPN; with no attempt of this run alive, whatever
    // runs there was left by an earlier run of this user and nothing would ever stop it.
    QPointer<HMVPNManager> self(this);
    m_collaborators.helper->stopVPN([self, then](const QVariantMap &, const HMMaybeError &error) {
        if (error) {
            HMLogError(QStringLiteral("Could not stop daemon: %1").arg(error->description()));
        }
        if (!self) {
            return;
        }
        self->m_collaborators.helper->stopDNSProxy(
            [then](const QVariantMap &, const HMMaybeError &proxyError) {
                if (proxyError) {
                    HMLogError(proxyError->description());
                }
                then();
            });
    });
}

void HMVPNManager::stopUnownedTunnel()
{
    if ((m_connectionSequence && m_connectionSequence->isLive()) || m_socket) {
        return;
    }
    m_collaborators.helper->stopVPN([](const QVariantMap &, const HMMaybeError &error) {
        if (error) {
            HMLogError(QStringLiteral("Could not stop daemon: %1").arg(error->description()));
        }
    });
}

void HMVPNManager::abandonTunnel()
{
    if (m_socket) {
        dropSocket();
    }
    m_collaborators.helper->stopVPN([](const QVariantMap &, const HMMaybeError &error) {
        if (error) {
            HMLogError(QStringLiteral("Could not stop daemon: %1").arg(error->description()));
        }
    });
}

void HMVPNManager::tokenDidArrive()
{
    if (std::exchange(m_passwordWanted, false)) {
        authenticate();
    }
}

void HMVPNManager::tokenWasRefused()
{
    // The server refused the token the sequence had just renewed. Renewing again helps when
    // the token rotated meanwhile; a server that refuses every fresh token would otherwise
    // keep the tunnel reconnecting for ever.
    if (++m_refusedTokens < kMaximumRefusedTokens) {
        QPointer<HMVPNManager> self(this);
        disconnectWithCompletion([self](const HMMaybeError &error) {
            if (self && !error) {
                self->m_renewingRefusedToken = true;
                self->connect();
                self->m_renewingRefusedToken = false;
            }
        });
        return;
    }
    const int refused = m_refusedTokens;
    m_refusedTokens = 0;
    QPointer<HMVPNManager> self(this);
    disconnectWithCompletion([self, refused](const HMMaybeError &) {
        if (!self) {
            return;
        }
        HMLogError(QStringLiteral("The VPN server refused %1 freshly renewed tokens in a row; "
                                  "giving up")
                       .arg(refused));
        self->setState(VPNState::Error);
        self->postErrorNotification();
    });
}

void HMVPNManager::disconnectVPN()
{
    setState(VPNState::Disconnecting);
    if (m_socket) {
        dropSocket();
    }
}

void HMVPNManager::setDisconnectedState()
{
    // OpenVPN is gone by now, and so are the routes over its device.
    m_collaborators.reachability->setTunnelDevice(QString());
    if (!m_collaborators.reachability->isReachable()) {
        setState(VPNState::NoConnection);
    } else if (m_bandwidthAvailable == 0) {
        setState(VPNState::OutOfData);
    } else {
        setState(VPNState::Disconnected);
    }
}

void HMVPNManager::postDidStartConnectingNotification()
{
    m_notifications->postNotificationName(kDidStartConnectingNotification);
}

void HMVPNManager::postErrorNotification()
{
    m_notifications->postNotificationName(kConnectionDidFailNotification);
}

void HMVPNManager::postOutOfDataNotification()
{
    m_notifications->postNotificationName(kOutOfDataNotification);
}

void HMVPNManager::accountCurrentCountryDidChange(const QString &oldValue, const QString &newValue)
{
    if ((isConnected() || isConnecting()) && oldValue != newValue) {
        reconnect();
    }
}

void HMVPNManager::accountLoggedInDidChange(bool oldValue, bool newValue)
{
    if (isConnected() && oldValue && !newValue) {
        disconnect();
    }
}

void HMVPNManager::accountBandwidthAvailableDidChange(qint64 value)
{
    setBandwidthAvailable(value);
    if (m_bandwidthAvailable != 0) {
        if (m_state == VPNState::OutOfData) {
            setState(VPNState::Disconnected);
        }
    } else if (isConnected()) {
        disconnect();
    } else {
        // Also while Connecting: an attempt whose token refresh brings an empty allowance
        // ends at the sequence's canConnect check instead of starting OpenVPN.
        setState(VPNState::OutOfData);
    }
}

void HMVPNManager::reachabilityDidChange(bool reachable)
{
    HMVPNAccountSource *account = m_collaborators.account;
    // Only a network that comes back after this run saw it gone reconnects here. The first
    // report of a run is the state at start-up, not a return: the wish left by a quit is
    // the start-up's to honour, after its token request (HMAppDelegate::reconnectIfNecessary);
    // reacting here as well would connect before the account is even confirmed.
    const bool cameBack = reachable && m_networkWasLost;
    m_networkWasLost = m_networkWasLost || !reachable;
    if (reachable) {
        if (cameBack && account->shouldReconnect()) {
            connect();
            account->setShouldReconnect(false);
        } else if (!isConnected()) {
            setDisconnectedState();
        }
    } else if (isConnected()) {
        disconnect();
        account->setShouldReconnect(true);
    } else if (!isConnecting()) {
        setDisconnectedState();
    }
}