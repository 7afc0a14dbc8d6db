// Decides, by ICMP echo, whether "Closest" can be offered and which server group is closest.
//
// At start-up the service's own host (the deployment's bare service domain) is pinged once:
// only if it answers is the pseudo-country "Closest" offered (isEnabled, asked by sign-in
// when it builds the country list). When the user connects with "Closest", the connection
// sequence hands over the server groups; the first host of every group is probed at the
// same moment and the group whose host answers first wins. Arrival order is the whole
// rule: the measured times are never compared. The winner is also recorded in the account
// (currentClosestCountry, selectedClosestServer).
//
// Several behaviours are deliberate and must not be "fixed":
// - isClosestEnabledWithCompletion answers every call after the first through the callback
//   stored by the first call, ignoring the one passed in;
// - the service host is pinged once per process (status 4 is never re-entered);
// - a new test stops the probes of a test still running, but the probes of a test already
//   decided are only forgotten, not stopped: a late answer of theirs decides a newer test
//   whose groups hold the same host, and a late failure counts against the newer test;
// - failures are counted even after a success; a test with no groups never reports.
//
// Probes are SimplePingHelper one-shots unless a test injects a prober factory; the clock
// given drives their time-outs. One process-wide instance; main thread only.
#pragma once

#include "HMClock.h"
#include "HMError.h"
#include "HMVPNClosestSource.h"
#include "SimplePingHelper.h"

#include <QList>
#include <QObject>
#include <QVariantMap>
#include <functional>

class HMAccountManager;

class HMClosestServerManager : public QObject, public HMVPNClosestSource
{
    Q_OBJECT
    Q_PROPERTY(HMClosestStatus status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool enabled READ isEnabled NOTIFY statusChanged)

public:
    enum HMClosestStatus
    {
        HMClosestStatusFound = 0,
        HMClosestStatusReachable = 1,
        HMClosestStatusUnreachable = 2,
        HMClosestStatusTesting = 3,
        HMClosestStatusUnknown = 4,
    };
    Q_ENUM(HMClosestStatus)

    using StatusCompletion = std::function<void(bool enabled, const HMMaybeError &error)>;
    // Stops a probe; probes report to the manager through the callbacks they were given.
    using ProbeStopper = std::function<void()>;
    using ProbeFactory = std::function<ProbeStopper(const QString &host, QObject *target,
                                                    SimplePingHelper::SuccessCallback success,
                                                    SimplePingHelper::FailureCallback failure)>;

    static const QString kServiceUnreachableMessage; // "Couldn't ping hollowmere"
    static const QString kServersUnreachableMessage; // "Couldn't ping servers"

    // Wired to the account manager, the system clock and the deployment's service domain.
    static HMClosestServerManager &instance();

    // `account` may be null (nothing recorded); without a factory, probes are
    // SimplePingHelper one-shots on `clock`.
    HMClosestServerManager(HMAccountManager *account, HMClock &clock, const QString &serviceHost,
                           ProbeFactory probeFactory = {}, QObject *parent = nullptr);

    HMClosestStatus status() const { return m_status; }
    // False until the service host has answered, and after a test where no group answered.
    bool isEnabled() const;

    // The availability check. Start-up calls it first; see the class comment for which
    // callback later calls reach.
    void isClosestEnabledWithCompletion(StatusCompletion completion);
    // The closest test over `serverBlocks` (group key -> list of server records); the
    // completion gets the winning key and its servers, or the error "Couldn't ping servers".
    void initClosestTest(const QVariantMap &serverBlocks, Completion completion) override;

    QString serviceHost() const { return m_serviceHost; }
    bool isCancelled() const { return m_isCancelled; }
    int nbFailedCalls() const { return m_nbFailedCalls; }
    // Probes of the running test that may still decide it.
    int currentPingCount() const { return static_cast<int>(m_currentPings.size()); }

Q_SIGNALS:
    void statusChanged(HMClosestServerManager::HMClosestStatus status);

private:
    void didTunnelPingSucceed(const QString &host, float time);
    void didTunnelPingFail(const QString &host);
    void didPingComplete(const QString &host, float time);
    void didPingFail(const QString &host);

    void setStatus(HMClosestStatus status);
    static QString firstHost(const QVariant &group);

    HMAccountManager *m_account;
    QString m_serviceHost;
    ProbeFactory m_probeFactory;

    HMClosestStatus m_status = HMClosestStatusUnknown;
    bool m_isCancelled = false;
    Completion m_completion;
    StatusCompletion m_completionStatus;
    QVariantMap m_serverBlocks;
    QList<ProbeStopper> m_currentPings;
    int m_nbFailedCalls = 0;
};
