#include "HMReachability.h"

#include "HMReachabilitySource.h"

bool HMReachability::isReachableWithFlags(quint32 flags)
{
    if (!(flags & Reachable)) {
        return false;
    }
    if (flags & ConnectionRequired) {
        return !(flags & InterventionRequired) &&
               (flags & (ConnectionOnTraffic | ConnectionOnDemand));
    }
    return true;
}

HMReachability::HMReachability(std::unique_ptr<HMReachabilitySource> source, QObject *parent)
    : QObject(parent), m_source(std::move(source))
{
    connect(m_source.get(), &HMReachabilitySource::flagsReported, this, &HMReachability::report);
    const quint32 initial = m_source->currentFlags();
    // Answered by isReachable until the first report: what the start-up sends in the
    // meantime (the account's token request) must not be refused as offline on a machine
    // that is online.
    m_reachable = isReachableWithFlags(initial);
    QMetaObject::invokeMethod(
        this,
        [this, initial] {
            // A change the source reported in the meantime is newer than this reading.
            QMutexLocker locker(&m_mutex);
            if (!m_initialized) {
                report(initial);
            }
        },
        Qt::QueuedConnection);
}

HMReachability::~HMReachability() = default;

bool HMReachability::isReachable() const
{
    QMutexLocker locker(&m_mutex);
    return m_reachable;
}

bool HMReachability::isWWANOnly() const
{
    QMutexLocker locker(&m_mutex);
    return m_WWANOnly;
}

quint32 HMReachability::flags() const
{
    QMutexLocker locker(&m_mutex);
    return m_flags;
}

bool HMReachability::isInitialized() const
{
    QMutexLocker locker(&m_mutex);
    return m_initialized;
}

void HMReachability::report(quint32 newFlags)
{
    QMutexLocker locker(&m_mutex);
    const bool first = !m_initialized;
    if (!first && newFlags == m_flags) {
        return;
    }
    const bool reachable = isReachableWithFlags(newFlags);
    const bool WWANOnly = false;
    const bool reachableChanges = first || reachable != m_reachable;
    const bool WWANOnlyChanges = first || WWANOnly != m_WWANOnly;

    const QString flagsKey = QStringLiteral("flags");
    const QString reachableKey = QStringLiteral("reachable");
    const QString WWANOnlyKey = QStringLiteral("WWANOnly");
    Q_EMIT willChangeValueForKey(flagsKey);
    if (reachableChanges) {
        Q_EMIT willChangeValueForKey(reachableKey);
    }
    if (WWANOnlyChanges) {
        Q_EMIT willChangeValueForKey(WWANOnlyKey);
    }

    m_flags = newFlags;
    m_reachable = reachable;
    m_WWANOnly = WWANOnly;
    m_initialized = true;

    Q_EMIT didChangeValueForKey(flagsKey);
    Q_EMIT flagsChanged(newFlags);
    if (reachableChanges) {
        Q_EMIT didChangeValueForKey(reachableKey);
        Q_EMIT reachableChanged(reachable);
    }
    if (WWANOnlyChanges) {
        Q_EMIT didChangeValueForKey(WWANOnlyKey);
        Q_EMIT WWANOnlyChanged(WWANOnly);
    }
}
