// Everything the client knows about the signed-in account.
//
// Almost every property is a thin view on one key of the preference store; the password
// alone lives in the keychain (service = the bundle identifier, account = the user name).
// Reads never fail: an absent key reads as nothing, false or 0, and a value of the wrong
// type (hand-edited or left by another version) reads the same way and is logged once,
// never rewritten. The service operations (sign-in, token, account creation, the usage
// loop; HMAccountManagerLogin.cpp) fill these properties through the API client.
//
// Observers follow changes through willChangeValueForKey/didChangeValueForKey (every
// setter announces its own key; some also announce derived keys, in a fixed order) and
// through the NOTIFY signals of the observable properties.
//
// One process-wide instance (instance()); tests construct their own with the store,
// keychain, routing manager and notification centre injected. Main thread only.
#pragma once

#include "HMError.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QVariant>
#include <functional>
#include <optional>

class HMAPIClient;
class HMClock;
class HMKeychain;
class HMNotificationCenter;
class HMPreferenceStore;
class HMWisprouteManager;

class HMAccountManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool loggedIn READ isLoggedIn NOTIFY loggedInChanged)
    Q_PROPERTY(QString currentCountry READ currentCountry WRITE setCurrentCountry NOTIFY
                   currentCountryChanged)
    Q_PROPERTY(QString currentCountryCode READ currentCountryCode NOTIFY currentCountryCodeChanged)
    Q_PROPERTY(qint64 bandwidthAvailable READ bandwidthAvailable WRITE setBandwidthAvailable NOTIFY
                   bandwidthAvailableChanged)
    Q_PROPERTY(bool fullVersion READ isFullVersion WRITE setFullVersion NOTIFY fullVersionChanged)
    Q_PROPERTY(bool canyon READ isCanyon WRITE setCanyon NOTIFY canyonChanged)

public:
    static const QString kDidLogOutNotification; // "HMDidLogOutNotification"

    static HMAccountManager &instance();

    // `routing` may be null in tests that do not care about the routing reset.
    HMAccountManager(HMPreferenceStore &store, HMKeychain &keychain, HMWisprouteManager *routing,
                     HMNotificationCenter &center, QObject *parent = nullptr);

    QString username() const;
    void setUsername(const QString &username);
    QString previousUsername() const;
    void setPreviousUsername(const QString &username);
    QString twitterID() const;
    void setTwitterID(const QString &twitterID);
    bool isAccountVerified() const;
    void setAccountVerified(bool verified);
    bool isFullVersion() const;
    void setFullVersion(bool fullVersion);
    bool isCanyon() const;
    void setCanyon(bool canyon);
    qint64 bandwidthAvailable() const;
    void setBandwidthAvailable(qint64 bytes);
    qint64 maxBandwidth() const;
    void setMaxBandwidth(qint64 bytes);
    // Kept exactly as the service sent it.
    QVariant fullRemainingTime() const;
    void setFullRemainingTime(const QVariant &value);
    QString vpnToken() const;
    void setVpnToken(const QString &token);
    // Server records {"host", "port", "isUdp"}; entries that are not records are skipped.
    QVariantList vpnServers() const;
    void setVpnServers(const QVariantList &servers);
    // Country records {"id", "code"}; entries that are not records are skipped.
    QVariantList countries() const;
    void setCountries(const QVariantList &countries);
    // The stored code, else the first record's code, else null.
    QString currentCountry() const;
    void setCurrentCountry(const QString &code);
    // Despite the name: the "id" of the current country's record ("0" when none matches),
    // which is what the service expects as "country".
    QString currentCountryCode() const;
    bool shouldReconnect() const;
    void setShouldReconnect(bool reconnect);
    // Installation id; generated and stored on the first read that finds none.
    QString uuid();

    // Promotional screens.
    bool twitterPromoComplete() const;
    void setTwitterPromoComplete(bool complete);
    bool twitterPromoEnabled() const;
    void setTwitterPromoEnabled(bool enabled);
    QString twitterPromoMessage() const;
    void setTwitterPromoMessage(const QString &message);
    QString templateTweet() const;
    void setTemplateTweet(const QString &tweet);
    bool didCloseTwitterPromoView() const;
    void setDidCloseTwitterPromoView(bool closed);
    bool didCloseSalePromoView() const;
    void setDidCloseSalePromoView(bool closed);
    QString salePromoImageURL() const;
    void setSalePromoImageURL(const QString &url);
    QString salePromoClickURL() const;
    void setSalePromoClickURL(const QString &url);

    // From the keychain on first use, then from memory (also when the keychain had none).
    QString password();
    // Stores for the current user name, which must be set first. A null password removes
    // the keychain item.
    void setPassword(const QString &password);

    bool isLoggedIn();
    bool isPaidUser() const;

    // Memory only.
    QString paymentStatus() const { return m_paymentStatus; }
    void setPaymentStatus(const QString &status);
    QVariant closestServers() const { return m_closestServers; }
    void setClosestServers(const QVariant &servers);
    QVariant selectedClosestServer() const { return m_selectedClosestServer; }
    void setSelectedClosestServer(const QVariant &server);
    QString currentClosestCountry() const { return m_currentClosestCountry; }
    void setCurrentClosestCountry(const QString &code);
    bool shouldUpdateUsage() const { return m_shouldUpdateUsage; }
    void setShouldUpdateUsage(bool update);
    bool shouldCheckVPNConnection() const { return m_shouldCheckVPNConnection; }
    void setShouldCheckVPNConnection(bool check);

    // The usage loop checks the flag before every run, so clearing it stops the loop.
    void stopUpdatingUsage() { setShouldUpdateUsage(false); }

    // ---- service operations ----
    using Completion = std::function<void(const HMMaybeError &error)>;
    using TokenCompletion = std::function<void(const QString &token)>;
    static constexpr qint64 kUsageRefreshIntervalMs = 60 * 1000;

    // Collaborators of the service operations: the process-wide API client, the system
    // clock and the closest-server manager's isEnabled unless a test sets its own.
    void setAPIClient(HMAPIClient *client) { m_api = client; }
    void setClock(HMClock *clock) { m_clock = clock; }
    void setClosestEnabledQuery(std::function<bool()> query)
    {
        m_closestEnabled = std::move(query);
    }

    // Signs in and stores the whole account from the reply; a refusal changes nothing.
    // `completion` may be empty.
    void loginWithUsername(const QString &username, const QString &password, bool getToken,
                           Completion completion);
    // Signs in again with the stored credentials. Throws "Must be logged in" when signed out.
    void loginGetToken(bool getToken, Completion completion);
    // A one-time token for the web site; the completion runs only on success.
    void getTokenWithCompletion(TokenCompletion completion);
    void addAccountWithUsername(const QString &username, const QString &password,
                                const QString &firstName, const QString &lastName,
                                Completion completion);
    // Throws HMException "HMExceptionNotLoggedIn" when signed out.
    void verifyAccountWithCompletion(Completion completion);
    void resendVerificationEmailWithCompletion(Completion completion);
    // The account is signed in again every 60 seconds while the loop runs; a service that
    // no longer knows the account ("Unknown") signs the user out.
    void startUpdatingUsage();
    void updateUsage();
    void startCheckingVPNConnection();
    void stopCheckingVPNConnection();
    void checkIfVPNConnected();
    void openAccountDetailsPage();
    void updateTwitterID(const QString &twitterID, Completion completion);

    // [code, id] pairs as the service sends them, as {"id", "code"} records in order.
    static QVariantList parseCountryList(const QVariant &countryList);

    void logout();
    void synchronize();

    QVariant getPref(const QString &key) const;
    // Value first, key second; an invalid value removes the key.
    void setValueForPref(const QVariant &value, const QString &key);

    // Ten entries, the password among them in clear text: for a debugger, never for a log.
    QVariantMap descriptionDictionary();
    QString description();

Q_SIGNALS:
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);
    void loggedInChanged(bool loggedIn);
    // The signed-in account became readable after the keyring it lives in was unlocked
    // (after loggedInChanged(true)): the moment to apply the start-up reconnect rule.
    void accountRestoredFromKeychain();
    void currentCountryChanged(const QString &currentCountry);
    void currentCountryCodeChanged(const QString &currentCountryCode);
    void bandwidthAvailableChanged(qint64 bandwidthAvailable);
    void fullVersionChanged(bool fullVersion);
    void canyonChanged(bool canyon);

private:
    enum class Kind
    {
        String,
        Bool,
        Integer,
        List,
    };

    QString stringPref(const QString &key) const;
    bool boolPref(const QString &key) const;
    qint64 intPref(const QString &key) const;
    QVariantList recordListPref(const QString &key) const;
    // Logs, once per key and process, a stored value that does not have the expected type.
    void noteWrongType(const QString &key, const QVariant &value, Kind expected) const;

    void keychainDidChange();
    void willChange(const QString &key);
    void didChange(const QString &key);
    // will-change, store (an invalid value removes the key), did-change.
    void storeNotifying(const QString &key, const QVariant &value);

    HMAPIClient &api();
    HMClock &clock();
    bool isClosestEnabled() const;
    // loginWithUsername, with the store written at once (`flushAtOnce`) or with the store's
    // next scheduled write.
    void signIn(const QString &username, const QString &password, bool getToken, bool flushAtOnce,
                Completion completion);
    void storeSignInReply(const QVariantMap &reply, const QString &username,
                          const QString &password, bool getToken, bool flushAtOnce);

    HMPreferenceStore &m_store;
    HMKeychain &m_keychain;
    HMWisprouteManager *m_routing;
    HMNotificationCenter &m_center;

    std::optional<QString> m_cachedPassword;
    QString m_cachedPasswordUser; // whose password m_cachedPassword is
    bool m_awaitingUnlock = false;
    QString m_paymentStatus;
    QVariant m_closestServers;
    QVariant m_selectedClosestServer;
    QString m_currentClosestCountry;
    bool m_shouldUpdateUsage = false;
    bool m_shouldCheckVPNConnection = false;
    mutable QSet<QString> m_reportedWrongTypes;

    HMAPIClient *m_api = nullptr;
    HMClock *m_clock = nullptr;
    std::function<bool()> m_closestEnabled;
    quint64 m_usageTimer = 0;
    // Bumped by every start, so that a reply of a loop stopped and started again meanwhile
    // does not keep a second loop going.
    quint64 m_usageGeneration = 0;
};
