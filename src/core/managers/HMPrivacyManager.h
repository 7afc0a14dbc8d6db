// The privacy filter: its switches, the service's copy of them and the blocked-content
// counters fed by the block stream while the tunnel is up.
//
// The filters themselves run on the service. The four switches are mirrored in the
// preference store ("privacyEnabled", "privacyFacebookEnabled", "privacyTwitterEnabled",
// "privacyLinkedinEnabled"; missing reads as false) and changed on the service through the
// dashboard endpoints; failures there are only logged, so local and service state may
// differ until the next syncFilterSettings(). While connected with the feature on, an
// EventSource on "<stream root>/dashboard/blocks?username=..&password=.." counts what the
// service blocked: three social-network counters and per-category lists of the ten most
// recently blocked items. Counters live in memory only and reset when the feature is
// switched either way and when the user switches the tunnel off by hand
// ("HMDidSwitchDialOffNotification"); they are deliberately kept when the tunnel drops.
//
// Collaborators: preference store, API client (dashboard calls, stream root, the network
// access manager the stream goes through), account manager (credentials, signed-in),
// notification centre, clock (the stream's timing) and a query for the tunnel being
// connected. The VPN manager's "connected" reaches vpnConnectedDidChange(), which keeps the
// previous value itself. Main thread only. One process-wide instance (instance()); tests
// build their own.
#pragma once

#include <QObject>
#include <QVariant>
#include <functional>

class EventSource;
class Event;
class HMAPIClient;
class HMAccountManager;
class HMClock;
class HMNotificationCenter;
class HMPreferenceStore;
class HMVPNManager;

class HMPrivacyManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool enabled READ isEnabled WRITE setEnabled NOTIFY enabledChanged)
    Q_PROPERTY(bool facebookEnabled READ isFacebookEnabled WRITE setFacebookEnabled NOTIFY
                   facebookEnabledChanged)
    Q_PROPERTY(bool twitterEnabled READ isTwitterEnabled WRITE setTwitterEnabled NOTIFY
                   twitterEnabledChanged)
    Q_PROPERTY(bool linkedinEnabled READ isLinkedinEnabled WRITE setLinkedinEnabled NOTIFY
                   linkedinEnabledChanged)
    Q_PROPERTY(uint numFacebookBlocked READ numFacebookBlocked NOTIFY countersChanged)
    Q_PROPERTY(uint numTwitterBlocked READ numTwitterBlocked NOTIFY countersChanged)
    Q_PROPERTY(uint numLinkedinBlocked READ numLinkedinBlocked NOTIFY countersChanged)
    Q_PROPERTY(QVariantList blockedContent READ blockedContent NOTIFY blockedContentChanged)

public:
    static const QString kDidSwitchDialOffNotification; // "HMDidSwitchDialOffNotification"
    static const QString kBlocksPath;                   // "/dashboard/blocks?"

    struct Collaborators
    {
        HMPreferenceStore *store = nullptr;
        HMAPIClient *api = nullptr;
        HMAccountManager *account = nullptr;
        HMNotificationCenter *notifications = nullptr; // the default centre when null
        HMClock *clock = nullptr;                      // the system clock when null
        std::function<bool()> isVPNConnected;          // never connected when empty
    };

    // The process-wide manager, observing the VPN manager's "connected" (reported at once).
    static HMPrivacyManager &instance();

    // store, api and account must be given.
    explicit HMPrivacyManager(const Collaborators &collaborators, QObject *parent = nullptr);
    ~HMPrivacyManager() override;

    bool isEnabled() const;
    bool isFacebookEnabled() const;
    bool isTwitterEnabled() const;
    bool isLinkedinEnabled() const;
    // User actions of the privacy pane.
    void setEnabled(bool enabled);
    void setFacebookEnabled(bool enabled);
    void setTwitterEnabled(bool enabled);
    void setLinkedinEnabled(bool enabled);

    uint numFacebookBlocked() const { return m_numFacebookBlocked; }
    uint numTwitterBlocked() const { return m_numTwitterBlocked; }
    uint numLinkedinBlocked() const { return m_numLinkedinBlocked; }
    // Category nodes {"name", "children", ["image"]}; children are {"name", "count"} items,
    // most recent first, at most ten.
    QVariantList blockedContent() const { return m_blockedContent; }
    EventSource *eventSource() const { return m_eventSource; }

    void syncFilterSettings();
    void setFilterEnabled(const QString &filter, bool enabled);
    void setAllFiltersEnabled(bool enabled);
    void subscribeToPrivacyEvents();
    void unsubscribeFromPrivacyEvents();
    void resetStats();
    void initializeBlockedContent();
    // Stores a service value under "privacy" + key with a capital first letter, announcing
    // the property named by `key`; an invalid value removes the preference.
    void updateValueForKey(const QVariant &value, const QString &key);
    // One block notification, as the stream's "message" listener receives it.
    void handleBlockEvent(const Event &event);

    // The VPN manager's "connected"; equal successive values are ignored.
    void vpnConnectedDidChange(bool connected);
    void startKVO(HMVPNManager &vpn);
    void stopKVO();

    QVariant getPref(const QString &key) const;
    // An invalid value removes the key.
    void setValueForPref(const QVariant &value, const QString &key);
    // Kept as the hook the preference panes call; it has never done anything and must not.
    void synchronize() {}

Q_SIGNALS:
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);
    void enabledChanged(bool enabled);
    void facebookEnabledChanged(bool enabled);
    void twitterEnabledChanged(bool enabled);
    void linkedinEnabledChanged(bool enabled);
    void countersChanged();
    void blockedContentChanged();

private:
    void storeSwitch(const QString &key, bool enabled);
    void announceSwitch(const QString &key);
    bool prefBool(const QString &key) const;

    Collaborators m_collaborators;
    HMClock *m_clock;
    HMNotificationCenter *m_notifications;
    quint64 m_dialOffToken = 0;
    QMetaObject::Connection m_vpnConnection;
    bool m_lastConnected = false;
    uint m_numFacebookBlocked = 0;
    uint m_numTwitterBlocked = 0;
    uint m_numLinkedinBlocked = 0;
    QVariantList m_blockedContent;
    EventSource *m_eventSource = nullptr;
};
