// The closest-server test as the connection sequence calls it.
//
// The completion receives the winning group key, that group's server list and an error;
// it runs on the main thread. HMVPNClosestAdapter forwards to the closest-server manager.
#pragma once

#include "HMError.h"

#include <QVariantList>
#include <QVariantMap>
#include <functional>

class HMVPNClosestSource
{
public:
    using Completion = std::function<void(const QString &country, const QVariantList &servers,
                                          const HMMaybeError &error)>;

    virtual ~HMVPNClosestSource() = default;

    virtual void initClosestTest(const QVariantMap &serverGroups, Completion completion) = 0;
};
