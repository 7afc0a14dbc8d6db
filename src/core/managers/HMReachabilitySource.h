// Where the reachability monitor gets its facts from.
//
// currentFlags() answers at once (it is asked at creation); flagsReported is emitted on the
// main thread whenever the platform says something may have changed, with the flags as
// they are now. A source may report the same flags many times: the monitor drops repeats.
#pragma once

#include <QObject>

class HMReachabilitySource : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~HMReachabilitySource() override = default;

    virtual quint32 currentFlags() = 0;

Q_SIGNALS:
    void flagsReported(quint32 flags);
};
