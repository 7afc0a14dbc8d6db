#include "HMClosestServerManager.h"

#include "HMAccountManager.h"
#include "HMDeploymentValues.h"
#include "HMLog.h"

#include <QPointer>
#include <utility>

const QString HMClosestServerManager::kServiceUnreachableMessage =
    QStringLiteral("Couldn't ping hollowmere");
const QString HMClosestServerManager::kServersUnreachableMessage =
    QStringLiteral("Couldn't ping servers");

HMClosestServerManager &HMClosestServerManager::instance()
{
    static auto *manager =
        new HMClosestServerManager(&HMAccountManager::instance(), HMClock::system(),
                                   HMDeploymentValues::current().serviceDomain());
    return *manager;
}

HMClosestServerManager::HMClosestServerManager(HMAccountManager *account, HMClock &clock,
                                               const QString &serviceHost,
                                               ProbeFactory probeFactory, QObject *parent)
    : QObject(parent), m_account(account), m_serviceHost(serviceHost),
      m_probeFactory(std::move(probeFactory))
{
    if (!m_probeFactory) {
        m_probeFactory = [&clock](const QString &host, QObject *target,
                                  SimplePingHelper::SuccessCallback success,
                                  SimplePingHelper::FailureCallback failure) -> ProbeStopper {
            QPointer<SimplePingHelper> probe =
                SimplePingHelper::ping(host, target, std::move(success), std::move(failure), clock);
            return [probe] {
                if (probe) {
                    probe->killPing();
                }
            };
        };
    }
}

bool HMClosestServerManager::isEnabled() const
{
    return m_status != HMClosestStatusUnreachable && m_status != HMClosestStatusUnknown;
}

void HMClosestServerManager::isClosestEnabledWithCompletion(StatusCompletion completion)
{
    if (m_status == HMClosestStatusUnknown) {
        m_completionStatus = std::move(completion);
        m_probeFactory(
            m_serviceHost, this,
            [this](const QString &host, float time) { didTunnelPingSucceed(host, time); },
            [this](const QString &host) { didTunnelPingFail(host); });
        return;
    }
    // Deliberately the callback stored by the first call, not the one given now.
    const StatusCompletion stored = m_completionStatus;
    if (stored) {
        stored(m_status != HMClosestStatusUnreachable, std::nullopt);
    }
}

void HMClosestServerManager::didTunnelPingSucceed(const QString &host, float time)
{
    Q_UNUSED(time)
    HMLogError(QStringLiteral("Closest: the service host %1 answers pings").arg(host));
    setStatus(HMClosestStatusReachable);
    const StatusCompletion stored = m_completionStatus;
    if (stored) {
        stored(true, std::nullopt);
    }
}

void HMClosestServerManager::didTunnelPingFail(const QString &host)
{
    HMLogError(QStringLiteral("Closest: the service host %1 does not answer pings; "
                              "\"Closest\" is not offered")
                   .arg(host));
    setStatus(HMClosestStatusUnreachable);
    const StatusCompletion stored = m_completionStatus;
    if (stored) {
        stored(false, HMError::errorWithDescription(kServiceUnreachableMessage));
    }
}

void HMClosestServerManager::initClosestTest(const QVariantMap &serverBlocks, Completion completion)
{
    m_serverBlocks = serverBlocks;
    m_nbFailedCalls = 0;
    m_completion = std::move(completion);
    m_isCancelled = false;
    setStatus(HMClosestStatusTesting);

    // Only a test still undecided has its probes listed here.
    const QList<ProbeStopper> earlier = std::exchange(m_currentPings, {});
    for (const ProbeStopper &stop : earlier) {
        stop();
    }

    for (auto it = serverBlocks.cbegin(); it != serverBlocks.cend(); ++it) {
        m_currentPings.append(m_probeFactory(
            firstHost(it.value()), this,
            [this](const QString &host, float time) { didPingComplete(host, time); },
            [this](const QString &host) { didPingFail(host); }));
    }
}

void HMClosestServerManager::didPingComplete(const QString &host, float time)
{
    // The time is deliberately unused: whichever valid reply arrives first decides.
    Q_UNUSED(time)
    if (m_isCancelled) {
        return;
    }
    m_isCancelled = true;
    // The other probes are forgotten, not stopped (see the class comment).
    m_currentPings.clear();
    setStatus(HMClosestStatusFound);

    for (auto it = m_serverBlocks.cbegin(); it != m_serverBlocks.cend(); ++it) {
        if (firstHost(it.value()) != host) {
            continue;
        }
        const QVariantList servers = it.value().toList();
        HMLogError(QStringLiteral("Closest: group %1 answered first (%2)").arg(it.key(), host));
        if (m_account) {
            m_account->setSelectedClosestServer(servers.value(0));
            m_account->setCurrentClosestCountry(it.key());
        }
        const Completion completion = m_completion;
        if (completion) {
            completion(it.key(), servers, std::nullopt);
        }
        return;
    }
    HMLogError(
        QStringLiteral("Closest: %1 answered but belongs to no group of this test").arg(host));
}

void HMClosestServerManager::didPingFail(const QString &host)
{
    Q_UNUSED(host)
    ++m_nbFailedCalls;
    if (m_nbFailedCalls != m_serverBlocks.size()) {
        return;
    }
    HMLogError(QStringLiteral("Closest: none of the %1 server groups answered")
                   .arg(m_serverBlocks.size()));
    setStatus(HMClosestStatusUnreachable);
    const Completion completion = m_completion;
    if (completion) {
        completion(QString(), QVariantList(),
                   HMError::errorWithDescription(kServersUnreachableMessage));
    }
}

void HMClosestServerManager::setStatus(HMClosestStatus status)
{
    if (m_status == status) {
        return;
    }
    m_status = status;
    Q_EMIT statusChanged(status);
}

QString HMClosestServerManager::firstHost(const QVariant &group)
{
    // Records come from the service: anything but a list of records yields no host, and a
    // probe of no host fails like an unknown name.
    const QVariantList servers = group.toList();
    return servers.isEmpty() ? QString()
                             : servers.first().toMap().value(QStringLiteral("host")).toString();
}
