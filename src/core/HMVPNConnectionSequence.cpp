#include "HMVPNConnectionSequence.h"

#include "HMClock.h"
#include "HMLog.h"
#include "HMVPNAccountSource.h"
#include "HMVPNClosestSource.h"
#include "HMVPNHelperTransport.h"
#include "HMVPNManager.h"
#include "HMVPNReachabilitySource.h"

#include <utility>

namespace {
const QString kClosestCountryCode = QStringLiteral("-1");
}

HMVPNConnectionSequence::HMVPNConnectionSequence(HMVPNManager &manager) : m_manager(&manager) {}

void HMVPNConnectionSequence::connectWithCompletion(Completion completion)
{
    if (m_cancelled || !m_manager) {
        return;
    }
    m_completion = completion;
    ++m_numConnectionAttempts;
    const unsigned generation = ++m_generation;
    m_tokenFresh = false;
    m_startSent = false;
    m_manager->setState(VPNState::Connecting);
    m_manager->postDidStartConnectingNotification();

    HMVPNAccountSource *account = m_manager->collaborators().account;
    // Renewing the token and having the helper start OpenVPN run side by side on purpose:
    // one after the other they cost both round trips on every switch-on. It is safe because
    // OpenVPN cannot authenticate before its password prompt is answered, and the answer
    // waits for the renewal (HMVPNManager::authenticate); every way the renewal can end is
    // still handled as before: failed -> the started OpenVPN is stopped and the attempt
    // retries or ends as usual; the allowance gone -> stopped, Out of Data; a different
    // server list -> stopped and started again with it. Not for "Closest" (its test needs the
    // renewed groups and picks the servers itself), nor for an account without allowance
    // (that attempt must end before any OpenVPN is started).
    const bool overlap =
        account->currentCountryCode() != kClosestCountryCode && account->bandwidthAvailable() != 0;
    if (overlap) {
        startOpenVPN(completion);
    }
    auto self = shared_from_this();
    account->loginGetToken(true, [self, generation, completion](const HMMaybeError &error) {
        if (generation == self->m_generation) {
            self->tokenDidRefresh(error, completion);
        }
    });
}

void HMVPNConnectionSequence::addCompletion(Completion completion)
{
    if (completion) {
        m_joined.append(std::move(completion));
    }
}

void HMVPNConnectionSequence::finish(const Completion &completion, const HMError &error)
{
    m_finished = true;
    if (completion) {
        completion(error);
    }
    const QList<Completion> joined = std::exchange(m_joined, {});
    for (const Completion &other : joined) {
        other(error);
    }
}

void HMVPNConnectionSequence::tokenDidRefresh(const HMMaybeError &error,
                                              const Completion &completion)
{
    if (m_cancelled || !m_manager) {
        return;
    }
    if (error) {
        failAttempt(*error, completion);
        return;
    }
    m_tokenFresh = true;
    HMVPNAccountSource *account = m_manager->collaborators().account;
    account->setCurrentClosestCountry(QString());

    if (m_startSent) {
        if (!m_manager->canConnect()) {
            abandonStartedTunnel();
            m_manager->postErrorNotification();
            finish(completion, HMError::errorWithDescription(QStringLiteral("Out of Data")));
        } else if (account->vpnServers() != m_startedServers) {
            HMLogError(QStringLiteral("The renewal changed the server list; restarting OpenVPN"));
            abandonStartedTunnel();
            startOpenVPN(completion);
        } else {
            m_manager->tokenDidArrive();
        }
        return;
    }

    const QVariantMap groups = account->closestServers();
    // An empty group list would start no probe and never answer, so it counts as none.
    if (!groups.isEmpty() && account->currentCountryCode() == kClosestCountryCode) {
        auto self = shared_from_this();
        m_manager->collaborators().closest->initClosestTest(
            groups, [self, completion](const QString &country, const QVariantList &servers,
                                       const HMMaybeError &testError) {
                // Deliberately not checking cancellation here, and on failure deliberately
                // neither retrying nor completing: the attempt stays in Connecting, as the
                // closest-server manager leaves it.
                if (!self->m_manager) {
                    return;
                }
                if (testError) {
                    HMLogError(QStringLiteral("Closest server test failed: %1")
                                   .arg(testError->description()));
                    self->m_finished = true;
                    return;
                }
                HMVPNAccountSource *acc = self->m_manager->collaborators().account;
                acc->setCurrentClosestCountry(country);
                acc->setVpnServers(servers);
                self->startOpenVPN(completion);
            });
        return;
    }
    startOpenVPN(completion);
}

void HMVPNConnectionSequence::startOpenVPN(const Completion &completion)
{
    // The closest-server answer does not look at cancellation, but a switch-off during the
    // test must not leave a root OpenVPN waiting in management hold.
    if (m_cancelled) {
        HMLogError(
            QStringLiteral("Switched off during the closest-server test; OpenVPN not started"));
        return;
    }
    // The state was set to Connecting at the start of the attempt; only an observer of the
    // account (an allowance of 0 arriving with the token) can have moved it since.
    if (!m_manager->canConnect()) {
        m_manager->postErrorNotification();
        finish(completion, HMError::errorWithDescription(QStringLiteral("Out of Data")));
        return;
    }
    m_startSent = true;
    m_startedServers = m_manager->collaborators().account->vpnServers();
    const unsigned start = ++m_startGeneration;
    auto self = shared_from_this();
    m_manager->collaborators().helper->startVPN(
        [self, start, completion](const QVariantMap &, const HMMaybeError &error) {
            if (!self->m_manager) {
                return;
            }
            if (self->m_cancelled) {
                // Switched off while the helper was starting OpenVPN.
                if (!error) {
                    self->m_manager->stopUnownedTunnel();
                }
                return;
            }
            if (start != self->m_startGeneration || !self->m_startSent) {
                return; // superseded or failed: the stop request is queued behind this start
            }
            if (error) {
                self->m_startSent = false; // nothing runs to be stopped
                self->failAttempt(*error, completion);
                return;
            }
            if (const HMMaybeError connectError = self->m_manager->connectVPN()) {
                self->failAttempt(*connectError, completion);
            }
        });
}

void HMVPNConnectionSequence::attemptDidFail(const HMError &error)
{
    // The manager has already asked the helper to stop this attempt's OpenVPN.
    m_startSent = false;
    failAttempt(error, m_completion);
}

void HMVPNConnectionSequence::failAttempt(const HMError &error, const Completion &completion)
{
    ++m_generation;
    abandonStartedTunnel();
    handleError(error, completion);
}

void HMVPNConnectionSequence::abandonStartedTunnel()
{
    if (std::exchange(m_startSent, false) && m_manager) {
        m_manager->abandonTunnel();
    }
}

void HMVPNConnectionSequence::handleError(const HMError &error, Completion completion)
{
    if (!m_manager) {
        return;
    }
    if (!m_cancelled && m_manager->collaborators().reachability->isReachable() &&
        m_numConnectionAttempts < kMaximumAttempts) {
        const unsigned exponent = m_numConnectionAttempts == 0 ? 0 : m_numConnectionAttempts - 1;
        const qint64 delayMs = qint64(1000) << exponent;
        auto self = shared_from_this();
        m_manager->clock().singleShot(
            delayMs, m_manager, [self, completion] { self->connectWithCompletion(completion); });
        return;
    }
    HMLogError(error.description());
    m_manager->setState(VPNState::Error);
    // Final: a cancelled sequence ends here too, and a later request must not join it.
    m_finished = true;
    const QList<Completion> joined = std::exchange(m_joined, {});
    if (completion) {
        completion(error);
    }
    for (const Completion &other : joined) {
        other(error);
    }
    m_manager->postErrorNotification();
}
