#include "HMAccountManager.h"

#include "HMBundleInfo.h"
#include "HMKeychain.h"
#include "HMLog.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"
#include "HMSecretServiceKeychain.h"
#include "HMWisprouteManager.h"

#include <QPointer>

#include <QJsonDocument>
#include <QJsonObject>

const QString HMAccountManager::kDidLogOutNotification = QStringLiteral("HMDidLogOutNotification");

namespace {

namespace Key {
const QString username = QStringLiteral("username");
const QString previousUsername = QStringLiteral("previousUsername");
const QString twitterID = QStringLiteral("twitterID");
const QString accountVerified = QStringLiteral("accountVerified");
const QString fullVersion = QStringLiteral("fullVersion");
const QString canyon = QStringLiteral("canyon");
const QString bandwidthAvailable = QStringLiteral("bandwidthAvailable");
const QString maxBandwidth = QStringLiteral("maxBandwidth");
const QString fullRemainingTime = QStringLiteral("fullRemainingTime");
const QString vpnToken = QStringLiteral("vpnToken");
const QString vpnServers = QStringLiteral("vpnServers");
const QString countries = QStringLiteral("countries");
const QString currentCountry = QStringLiteral("currentCountry");
const QString currentCountryCode = QStringLiteral("currentCountryCode");
const QString shouldReconnect = QStringLiteral("shouldReconnect");
const QString uuid = QStringLiteral("uuid");
const QString twitterPromoComplete = QStringLiteral("twitterPromoComplete");
const QString twitterPromoEnabled = QStringLiteral("twitterPromoEnabled");
const QString twitterPromoMessage = QStringLiteral("twitterPromoMessage");
const QString templateTweet = QStringLiteral("templateTweet");
// The property is didCloseTwitterPromoView; the stored key has always lacked "Promo".
const QString didCloseTwitterView = QStringLiteral("didCloseTwitterView");
const QString didCloseSalePromoView = QStringLiteral("didCloseSalePromoView");
const QString salePromoImageURL = QStringLiteral("salePromoImageURL");
const QString salePromoClickURL = QStringLiteral("salePromoClickURL");
// Observable keys that are not stored.
const QString loggedIn = QStringLiteral("loggedIn");
const QString password = QStringLiteral("password");
const QString paymentStatus = QStringLiteral("paymentStatus");
const QString closestServers = QStringLiteral("closestServers");
const QString selectedClosestServer = QStringLiteral("selectedClosestServer");
const QString currentClosestCountry = QStringLiteral("currentClosestCountry");
const QString shouldUpdateUsage = QStringLiteral("shouldUpdateUsage");
const QString shouldCheckVPNConnection = QStringLiteral("shouldCheckVPNConnection");
} // namespace Key

QVariant stringOrAbsent(const QString &text)
{
    return text.isNull() ? QVariant() : QVariant(text);
}

bool isNumber(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

} // namespace

HMAccountManager &HMAccountManager::instance()
{
    static HMAccountManager *manager = new HMAccountManager(
        HMPreferenceStore::instance(), HMSecretServiceKeychain::shared(),
        &HMWisprouteManager::instance(), HMNotificationCenter::defaultCenter());
    return *manager;
}

HMAccountManager::HMAccountManager(HMPreferenceStore &store, HMKeychain &keychain,
                                   HMWisprouteManager *routing, HMNotificationCenter &center,
                                   QObject *parent)
    : QObject(parent), m_store(store), m_keychain(keychain), m_routing(routing), m_center(center)
{}

// ---- typed reads -------------------------------------------------------------------------

void HMAccountManager::noteWrongType(const QString &key, const QVariant &value, Kind expected) const
{
    if (m_reportedWrongTypes.contains(key)) {
        return;
    }
    m_reportedWrongTypes.insert(key);
    static const char *const names[] = {"text", "a boolean", "a number", "a list"};
    HMLogError(QStringLiteral("Stored \"%1\" is %2 where %3 is expected; reading it as absent")
                   .arg(key, QString::fromLatin1(value.metaType().name()),
                        QString::fromLatin1(names[static_cast<int>(expected)])));
}

QString HMAccountManager::stringPref(const QString &key) const
{
    const QVariant value = m_store.value(key);
    if (!value.isValid()) {
        return QString();
    }
    if (value.typeId() != QMetaType::QString) {
        noteWrongType(key, value, Kind::String);
        return QString();
    }
    return value.toString();
}

bool HMAccountManager::boolPref(const QString &key) const
{
    const QVariant value = m_store.value(key);
    // Text is read the way the preference accessors read it ("true", "YES", "1").
    if (value.isValid() && value.typeId() != QMetaType::Bool && !isNumber(value) &&
        value.typeId() != QMetaType::QString) {
        noteWrongType(key, value, Kind::Bool);
    }
    return pref_bool_value(value);
}

qint64 HMAccountManager::intPref(const QString &key) const
{
    const QVariant value = m_store.value(key);
    if (value.isValid() && value.typeId() != QMetaType::Bool && !isNumber(value) &&
        value.typeId() != QMetaType::QString) {
        noteWrongType(key, value, Kind::Integer);
    }
    return pref_int_value(value);
}

QVariantList HMAccountManager::recordListPref(const QString &key) const
{
    const QVariant value = m_store.value(key);
    if (!value.isValid()) {
        return QVariantList();
    }
    if (value.typeId() != QMetaType::QVariantList && value.typeId() != QMetaType::QStringList) {
        noteWrongType(key, value, Kind::List);
        return QVariantList();
    }
    QVariantList records;
    const QVariantList items = value.toList();
    for (const QVariant &item : items) {
        if (item.typeId() == QMetaType::QVariantMap) {
            records.append(item);
        } else {
            noteWrongType(key + QStringLiteral("[]"), item, Kind::List);
        }
    }
    return records;
}

// ---- change notification -----------------------------------------------------------------

void HMAccountManager::willChange(const QString &key)
{
    Q_EMIT willChangeValueForKey(key);
}

void HMAccountManager::didChange(const QString &key)
{
    Q_EMIT didChangeValueForKey(key);
    if (key == Key::loggedIn) {
        Q_EMIT loggedInChanged(isLoggedIn());
    } else if (key == Key::currentCountry) {
        Q_EMIT currentCountryChanged(currentCountry());
    } else if (key == Key::currentCountryCode) {
        Q_EMIT currentCountryCodeChanged(currentCountryCode());
    } else if (key == Key::bandwidthAvailable) {
        Q_EMIT bandwidthAvailableChanged(bandwidthAvailable());
    } else if (key == Key::fullVersion) {
        Q_EMIT fullVersionChanged(isFullVersion());
    } else if (key == Key::canyon) {
        Q_EMIT canyonChanged(isCanyon());
    }
}

void HMAccountManager::storeNotifying(const QString &key, const QVariant &value)
{
    willChange(key);
    m_store.setValue(key, value);
    didChange(key);
}

// ---- stored properties -------------------------------------------------------------------

QString HMAccountManager::username() const
{
    return stringPref(Key::username);
}
void HMAccountManager::setUsername(const QString &v)
{
    storeNotifying(Key::username, stringOrAbsent(v));
}
QString HMAccountManager::previousUsername() const
{
    return stringPref(Key::previousUsername);
}
void HMAccountManager::setPreviousUsername(const QString &v)
{
    storeNotifying(Key::previousUsername, stringOrAbsent(v));
}
QString HMAccountManager::twitterID() const
{
    return stringPref(Key::twitterID);
}
void HMAccountManager::setTwitterID(const QString &v)
{
    storeNotifying(Key::twitterID, stringOrAbsent(v));
}
bool HMAccountManager::isAccountVerified() const
{
    return boolPref(Key::accountVerified);
}
void HMAccountManager::setAccountVerified(bool v)
{
    storeNotifying(Key::accountVerified, v);
}
bool HMAccountManager::isFullVersion() const
{
    return boolPref(Key::fullVersion);
}
void HMAccountManager::setFullVersion(bool v)
{
    storeNotifying(Key::fullVersion, v);
}
bool HMAccountManager::isCanyon() const
{
    return boolPref(Key::canyon);
}
void HMAccountManager::setCanyon(bool v)
{
    storeNotifying(Key::canyon, v);
}
qint64 HMAccountManager::bandwidthAvailable() const
{
    return intPref(Key::bandwidthAvailable);
}
void HMAccountManager::setBandwidthAvailable(qint64 v)
{
    storeNotifying(Key::bandwidthAvailable, v);
}
qint64 HMAccountManager::maxBandwidth() const
{
    return intPref(Key::maxBandwidth);
}
void HMAccountManager::setMaxBandwidth(qint64 v)
{
    storeNotifying(Key::maxBandwidth, v);
}
QVariant HMAccountManager::fullRemainingTime() const
{
    return m_store.value(Key::fullRemainingTime);
}
void HMAccountManager::setFullRemainingTime(const QVariant &v)
{
    storeNotifying(Key::fullRemainingTime, v);
}
QString HMAccountManager::vpnToken() const
{
    return stringPref(Key::vpnToken);
}
void HMAccountManager::setVpnToken(const QString &v)
{
    storeNotifying(Key::vpnToken, stringOrAbsent(v));
}
QVariantList HMAccountManager::vpnServers() const
{
    return recordListPref(Key::vpnServers);
}
void HMAccountManager::setVpnServers(const QVariantList &v)
{
    storeNotifying(Key::vpnServers, v);
}
bool HMAccountManager::shouldReconnect() const
{
    return boolPref(Key::shouldReconnect);
}
void HMAccountManager::setShouldReconnect(bool v)
{
    storeNotifying(Key::shouldReconnect, v);
}

bool HMAccountManager::twitterPromoComplete() const
{
    return boolPref(Key::twitterPromoComplete);
}
void HMAccountManager::setTwitterPromoComplete(bool v)
{
    storeNotifying(Key::twitterPromoComplete, v);
}
bool HMAccountManager::twitterPromoEnabled() const
{
    return boolPref(Key::twitterPromoEnabled);
}
void HMAccountManager::setTwitterPromoEnabled(bool v)
{
    storeNotifying(Key::twitterPromoEnabled, v);
}
QString HMAccountManager::twitterPromoMessage() const
{
    return stringPref(Key::twitterPromoMessage);
}
void HMAccountManager::setTwitterPromoMessage(const QString &v)
{
    storeNotifying(Key::twitterPromoMessage, stringOrAbsent(v));
}
QString HMAccountManager::templateTweet() const
{
    return stringPref(Key::templateTweet);
}
void HMAccountManager::setTemplateTweet(const QString &v)
{
    storeNotifying(Key::templateTweet, stringOrAbsent(v));
}
bool HMAccountManager::didCloseTwitterPromoView() const
{
    return boolPref(Key::didCloseTwitterView);
}
void HMAccountManager::setDidCloseTwitterPromoView(bool v)
{
    storeNotifying(Key::didCloseTwitterView, v);
}
bool HMAccountManager::didCloseSalePromoView() const
{
    return boolPref(Key::didCloseSalePromoView);
}
void HMAccountManager::setDidCloseSalePromoView(bool v)
{
    storeNotifying(Key::didCloseSalePromoView, v);
}
QString HMAccountManager::salePromoImageURL() const
{
    return stringPref(Key::salePromoImageURL);
}
void HMAccountManager::setSalePromoImageURL(const QString &v)
{
    storeNotifying(Key::salePromoImageURL, stringOrAbsent(v));
}
QString HMAccountManager::salePromoClickURL() const
{
    return stringPref(Key::salePromoClickURL);
}
void HMAccountManager::setSalePromoClickURL(const QString &v)
{
    storeNotifying(Key::salePromoClickURL, stringOrAbsent(v));
}

QString HMAccountManager::uuid()
{
    const QString stored = stringPref(Key::uuid);
    if (!stored.isEmpty()) {
        return stored;
    }
    const QString fresh = generate_UUID();
    storeNotifying(Key::uuid, fresh);
    return fresh;
}

// ---- countries ---------------------------------------------------------------------------

QVariantList HMAccountManager::countries() const
{
    return recordListPref(Key::countries);
}

void HMAccountManager::setCountries(const QVariantList &list)
{
    // Only the first list can move the fallback country: with a list already stored the
    // derived values are announced by whoever changes the choice.
    const QVariant before = m_store.value(Key::countries);
    const bool hadList =
        before.typeId() == QMetaType::QVariantList || before.typeId() == QMetaType::QStringList;
    willChange(Key::countries);
    if (!hadList) {
        willChange(Key::currentCountry);
        willChange(Key::currentCountryCode);
    }
    m_store.setValue(Key::countries, list);
    if (!hadList) {
        didChange(Key::currentCountryCode);
        didChange(Key::currentCountry);
    }
    didChange(Key::countries);
}

QString HMAccountManager::currentCountry() const
{
    const QString stored = stringPref(Key::currentCountry);
    if (!stored.isNull()) {
        return stored;
    }
    const QVariantList list = countries();
    if (list.isEmpty()) {
        return QString();
    }
    const QVariant code = list.constFirst().toMap().value(QStringLiteral("code"));
    return code.typeId() == QMetaType::QString ? code.toString() : QString();
}

void HMAccountManager::setCurrentCountry(const QString &code)
{
    willChange(Key::currentCountry);
    willChange(Key::currentCountryCode);
    m_store.setValue(Key::currentCountry, stringOrAbsent(code));
    didChange(Key::currentCountryCode);
    didChange(Key::currentCountry);
}

QString HMAccountManager::currentCountryCode() const
{
    const QString current = currentCountry();
    const QVariantList list = countries();
    for (const QVariant &record : list) {
        const QVariantMap country = record.toMap();
        if (country.value(QStringLiteral("code")) == QVariant(current)) {
            // The service has sent ids both as text and as numbers.
            const QVariant id = country.value(QStringLiteral("id"));
            return isNumber(id) ? QString::number(id.toLongLong()) : id.toString();
        }
    }
    return QStringLiteral("0");
}

// ---- password and sign-in state ----------------------------------------------------------

QString HMAccountManager::password()
{
    if (m_cachedPassword) {
        return *m_cachedPassword;
    }
    HMMaybeError error;
    const QString found =
        m_keychain.passwordForService(app_bundle_identifier(), username(), &error);
    if (error) {
        HMLogError(QStringLiteral("Keychain read failed: %1").arg(error->description()));
    }
    // Under auto-login the keyring is often still locked when the client starts. The empty
    // answer is cached like any other (every call would otherwise ask the Secret Service
    // again, and may prompt), but the account is read again once the keyring unlocks.
    if (error && error->domain() == HMSecretServiceKeychain::kErrorDomain &&
        error->code() == HMSecretServiceKeychain::kLockedCode && !m_awaitingUnlock) {
        m_awaitingUnlock = true;
        QPointer<HMAccountManager> self(this);
        m_keychain.setChangeObserver([self] {
            if (self) {
                self->keychainDidChange();
            }
        });
    }
    m_cachedPassword = found;
    m_cachedPasswordUser = username();
    return found;
}

void HMAccountManager::keychainDidChange()
{
    if (!m_awaitingUnlock || !m_cachedPassword || !m_cachedPassword->isEmpty()) {
        return;
    }
    HMMaybeError error;
    const QString found =
        m_keychain.passwordForService(app_bundle_identifier(), username(), &error);
    if (error || found.isEmpty()) {
        return; // still locked, or another collection changed
    }
    m_awaitingUnlock = false;
    willChange(Key::password);
    willChange(Key::loggedIn);
    m_cachedPassword = found;
    m_cachedPasswordUser = username();
    didChange(Key::loggedIn);
    didChange(Key::password);
    Q_EMIT accountRestoredFromKeychain();
}

void HMAccountManager::setPassword(const QString &newPassword)
{
    willChange(Key::password);
    willChange(Key::loggedIn);
    HMMaybeError error;
    // Every token renewal signs in again with the same password: rewriting the unchanged
    // item would only cost a Secret Service round trip on each switch-on.
    const bool unchanged = !newPassword.isNull() && m_cachedPassword == newPassword &&
                           m_cachedPasswordUser == username();
    if (newPassword.isNull()) {
        m_keychain.deletePassword(app_bundle_identifier(), username(), &error);
    } else if (!unchanged) {
        m_keychain.setPassword(newPassword, app_bundle_identifier(), username(), &error);
    }
    if (error) {
        HMLogError(QStringLiteral("Keychain write failed: %1").arg(error->description()));
    }
    m_cachedPassword = newPassword;
    m_cachedPasswordUser = username();
    didChange(Key::loggedIn);
    didChange(Key::password);
}

bool HMAccountManager::isLoggedIn()
{
    return !username().isEmpty() && !password().isEmpty();
}

bool HMAccountManager::isPaidUser() const
{
    return m_paymentStatus != QStringLiteral("FREE");
}

// ---- memory-only fields ------------------------------------------------------------------

void HMAccountManager::setPaymentStatus(const QString &status)
{
    willChange(Key::paymentStatus);
    m_paymentStatus = status;
    didChange(Key::paymentStatus);
}

void HMAccountManager::setClosestServers(const QVariant &servers)
{
    willChange(Key::closestServers);
    m_closestServers = servers;
    didChange(Key::closestServers);
}

void HMAccountManager::setSelectedClosestServer(const QVariant &server)
{
    willChange(Key::selectedClosestServer);
    m_selectedClosestServer = server;
    didChange(Key::selectedClosestServer);
}

void HMAccountManager::setCurrentClosestCountry(const QString &code)
{
    willChange(Key::currentClosestCountry);
    m_currentClosestCountry = code;
    didChange(Key::currentClosestCountry);
}

void HMAccountManager::setShouldUpdateUsage(bool update)
{
    willChange(Key::shouldUpdateUsage);
    m_shouldUpdateUsage = update;
    didChange(Key::shouldUpdateUsage);
}

void HMAccountManager::setShouldCheckVPNConnection(bool check)
{
    willChange(Key::shouldCheckVPNConnection);
    m_shouldCheckVPNConnection = check;
    didChange(Key::shouldCheckVPNConnection);
}

// ---- sign-out and persistence ------------------------------------------------------------

void HMAccountManager::logout()
{
    stopUpdatingUsage();
    willChange(Key::loggedIn);

    HMMaybeError error;
    m_keychain.deletePassword(app_bundle_identifier(), username(), &error);
    if (error) {
        HMLogError(QStringLiteral("Keychain delete failed: %1").arg(error->description()));
    }

    setPreviousUsername(username());
    setUsername(QString());
    setTwitterID(QString());
    setFullRemainingTime(QVariant());
    setAccountVerified(false);
    setTwitterPromoComplete(false);
    setFullVersion(false);
    setBandwidthAvailable(0);
    // The token, servers, countries, chosen country, plan, cap, uuid and cached password
    // stay: a later sign-in of the same user reuses them, and the signed-out state comes
    // from the missing user name alone.

    if (m_routing) {
        m_routing->resetWisprouteConfig();
    }

    didChange(Key::loggedIn);
    m_center.postNotificationName(kDidLogOutNotification);
}

void HMAccountManager::synchronize()
{
    m_store.sync();
}

QVariant HMAccountManager::getPref(const QString &key) const
{
    return m_store.value(key);
}

void HMAccountManager::setValueForPref(const QVariant &value, const QString &key)
{
    m_store.setValue(key, value);
}

QVariantMap HMAccountManager::descriptionDictionary()
{
    const auto orEmpty = [](const QString &text) {
        return text.isNull() ? QLatin1String("") : text;
    };
    return QVariantMap{
        {Key::username, orEmpty(username())},
        {Key::password, orEmpty(password())},
        {Key::twitterID, orEmpty(twitterID())},
        {Key::loggedIn, isLoggedIn()},
        {Key::accountVerified, isAccountVerified()},
        {Key::twitterPromoComplete, twitterPromoComplete()},
        {Key::twitterPromoEnabled, twitterPromoEnabled()},
        {Key::fullVersion, isFullVersion()},
        {Key::paymentStatus, orEmpty(m_paymentStatus)},
        {Key::bandwidthAvailable, bandwidthAvailable()},
    };
}

QString HMAccountManager::description()
{
    return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(descriptionDictionary()))
                                 .toJson(QJsonDocument::Indented));
}
