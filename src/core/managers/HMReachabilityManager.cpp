#include "HMReachabilityManager.h"

#include "HMNetlinkReachabilitySource.h"
#include "HMReachability.h"
#include "HMReachabilitySource.h"

HMReachabilityManager &HMReachabilityManager::instance()
{
    static HMReachabilityManager *manager =
        new HMReachabilityManager(std::make_unique<HMNetlinkReachabilitySource>());
    return *manager;
}

HMReachabilityManager::HMReachabilityManager(std::unique_ptr<HMReachabilitySource> source,
                                             QObject *parent)
    : QObject(parent), m_reachability(std::make_unique<HMReachability>(std::move(source)))
{
    connect(m_reachability.get(), &HMReachability::reachableChanged, this,
            &HMReachabilityManager::reachableChanged);
}

HMReachabilityManager::~HMReachabilityManager() = default;

bool HMReachabilityManager::isReachable() const
{
    return m_reachability->isReachable();
}

void HMReachabilityManager::setTunnelDevice(const QString &name)
{
    m_reachability->source()->setTunnelDevice(name);
}
