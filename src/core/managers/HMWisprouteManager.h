// Selective routing: the routing mode and the two domain lists with their files.
//
// The mode lives in the preference store under "wisprouteMode" (0 off, 1 exclusion list,
// 2 inclusion list: the reverse of the order the editor shows its choices in, on purpose;
// any other non-zero value still counts as enabled). The lists live in memory and in
// "domains.txt" (inclusion) and "domains_ex.txt" (exclusion) under
// $XDG_DATA_HOME/Hollowmere, where the DNS proxy started by the helper reads them.
//
// Restarting the DNS proxy needs the helper client and the VPN manager; whoever owns those
// installs a restarter with setDnsProxyRestarter(). Until then a restart reports an error.
// Main thread only. One process-wide instance (instance()); tests construct their own
// over a store of their own.
#pragma once

#include "HMError.h"

#include <QObject>
#include <QStringList>
#include <QVariant>
#include <functional>

class HMPreferenceStore;

class HMWisprouteManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(
        int wisprouteMode READ wisprouteMode WRITE setWisprouteMode NOTIFY wisprouteModeChanged)

public:
    static const QString kModeKey;           // "wisprouteMode"
    static const QString kInclusionFileName; // "domains.txt"
    static const QString kExclusionFileName; // "domains_ex.txt"
    static const QString kFolderName;        // "Hollowmere"

    enum Mode
    {
        ModeOff = 0,
        ModeExclusion = 1,
        ModeInclusion = 2,
    };

    using Completion = std::function<void(const HMMaybeError &)>;
    using DnsProxyRestarter = std::function<void(int mode, Completion completion)>;

    static HMWisprouteManager &instance();

    explicit HMWisprouteManager(HMPreferenceStore &store, QObject *parent = nullptr);

    int wisprouteMode() const;
    void setWisprouteMode(int mode);
    bool isEnabled() const;

    // Whether the DNS proxy can run here; set at start-up from the helper's port check.
    bool isSupported() const { return m_supported; }
    void setSupported(bool supported) { m_supported = supported; }

    const QStringList &arrayDomains() const { return m_arrayDomains; }
    void setArrayDomains(const QStringList &domains) { m_arrayDomains = domains; }
    const QStringList &arrayDomainsExclusion() const { return m_arrayDomainsExclusion; }
    void setArrayDomainsExclusion(const QStringList &domains) { m_arrayDomainsExclusion = domains; }

    // Loads one list from its file, creating the folder and an empty file when the file is
    // missing. False only when that file cannot be created; the list is then unchanged.
    bool readDomainsFromFileWithExclusion(bool exclusion);
    // Writes one list to its file. An empty list is never written: the file keeps its old
    // contents, so the last domain a user removes comes back on the next load. That is the
    // established behaviour the DNS proxy and users have lived with; do not "fix" it here.
    // False (and a log line) when the write failed.
    bool saveDomainsInFileWithExclusion(bool exclusion);

    // Computed once per process and list, then cached ("Exlusion" is the established name).
    static QString getDomainsFilePathWithExlusion(bool exclusion);
    static QString getDomainsFilePathForShellWithExlusion(bool exclusion);

    // Mode off, both lists emptied, both files deleted.
    void resetWisprouteConfig();
    void deletePrefFiles();

    void setDnsProxyRestarter(DnsProxyRestarter restarter) { m_restarter = std::move(restarter); }
    // Restarts the DNS proxy with the current mode; completes on the main thread.
    void restartDnsDaemonWithCompletion(Completion completion);

    QVariant getPref(const QString &key) const;
    // An invalid value removes the key.
    void setValueForPref(const QVariant &value, const QString &key);

    // A hook kept for the filter settings; it has never done anything and must not.
    void syncFilter() {}

Q_SIGNALS:
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);
    void wisprouteModeChanged(int mode);

private:
    QStringList &listFor(bool exclusion)
    {
        return exclusion ? m_arrayDomainsExclusion : m_arrayDomains;
    }

    HMPreferenceStore &m_store;
    QStringList m_arrayDomains;
    QStringList m_arrayDomainsExclusion;
    bool m_supported = false;
    DnsProxyRestarter m_restarter;
};
