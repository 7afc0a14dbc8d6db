// The reachability monitor: flags from a source, and the "reachable" verdict derived from them.
//
// The flag values are those of the address-based reachability service the rest of the
// client was written against; the Linux source (HMNetlinkReachabilitySource) maps the
// kernel's route lookup onto them, so the verdict rule stays the one everybody expects.
//
// The first report is delivered on a later turn of the main loop, so "reachable" is false
// for the whole turn in which the monitor is created: requests made that early fail with
// "No internet connection" by design. Every update runs under a (recursive) lock, so a
// reader never sees flags and verdict from different reports, and observers may read the
// monitor from their change handlers.
#pragma once

#include <QMutex>
#include <QObject>
#include <memory>

class HMReachabilitySource;

class HMReachability : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool reachable READ isReachable NOTIFY reachableChanged)
    Q_PROPERTY(bool WWANOnly READ isWWANOnly NOTIFY WWANOnlyChanged)
    Q_PROPERTY(quint32 flags READ flags NOTIFY flagsChanged)

public:
    enum Flag : quint32
    {
        TransientConnection = 1u << 0,
        Reachable = 1u << 1,
        ConnectionRequired = 1u << 2,
        ConnectionOnTraffic = 1u << 3,
        InterventionRequired = 1u << 4,
        ConnectionOnDemand = 1u << 5,
        IsLocalAddress = 1u << 16,
        IsDirect = 1u << 17,
        IsWWAN = 1u << 18,
    };

    // Reachable, unless a connection is still required and cannot be made automatically
    // (it needs the user, or neither traffic nor demand would bring it up).
    static bool isReachableWithFlags(quint32 flags);

    explicit HMReachability(std::unique_ptr<HMReachabilitySource> source,
                            QObject *parent = nullptr);
    ~HMReachability() override;

    bool isReachable() const;
    // There is no cellular-only state on this platform.
    bool isWWANOnly() const;
    quint32 flags() const;
    bool isInitialized() const;
    HMReachabilitySource *source() const { return m_source.get(); }

Q_SIGNALS:
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);
    void reachableChanged(bool reachable);
    void WWANOnlyChanged(bool WWANOnly);
    void flagsChanged(quint32 flags);

private:
    void report(quint32 newFlags);

    std::unique_ptr<HMReachabilitySource> m_source;
    mutable QRecursiveMutex m_mutex;
    quint32 m_flags = 0;
    bool m_reachable = false;
    bool m_WWANOnly = false;
    bool m_initialized = false;
};
