// The account operations that talk to the service: sign-in and its reply, the web token,
// account creation and verification, the 60-second usage loop and the VPN-connected probe.
#include "HMAccountManager.h"

#include "HMAPIClient.h"
#include "HMClock.h"
#include "HMClosestServerManager.h"
#include "HMException.h"
#include "HMLog.h"
#include "HMPreferences.h"

#include <QPointer>

namespace {

const QString kLoggedIn = QStringLiteral("loggedIn");
const QString kCurrentCountry = QStringLiteral("currentCountry");
const QString kCurrentCountryCode = QStringLiteral("currentCountryCode");

// Reply readers. The service's JSON is not trusted to keep its types: a field of the wrong
// type reads as absent (nothing, false, 0, an empty list), except that numbers written as
// text and booleans written as numbers or text keep their meaning.
QString textField(const QVariantMap &reply, const char *key)
{
    const QVariant value = reply.value(QLatin1String(key));
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

// The service's own refusal: its text is the description, as callers expect, and where the
// service gave none a reason stands in for the screens to show.
HMError refusal(const QString &text)
{
    return HMError::errorWithCode(
        0, text,
        text.isEmpty() ? QStringLiteral("The Hollowmere service refused the request without "
                                        "giving a reason. Please try again later.")
                       : QString());
}

bool boolField(const QVariantMap &reply, const char *key)
{
    return pref_bool_value(reply.value(QLatin1String(key)));
}

qint64 integerField(const QVariantMap &reply, const char *key)
{
    const QVariant value = reply.value(QLatin1String(key));
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return value.toLongLong();
    case QMetaType::Double: {
        const double number = value.toDouble();
        // Out-of-range values would be undefined to convert; they are not allowances.
        return number > -9.2e18 && number < 9.2e18 ? static_cast<qint64>(number) : 0;
    }
    case QMetaType::QString: {
        bool ok = false;
        const qint64 number = value.toString().trimmed().toLongLong(&ok);
        return ok ? number : 0;
    }
    default:
        return 0;
    }
}

// "As received": any JSON value but null.
QVariant rawField(const QVariantMap &reply, const char *key)
{
    const QVariant value = reply.value(QLatin1String(key));
    return value.isNull() ? QVariant() : value;
}

QString idText(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QString:
        return value.toString();
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return QString::number(value.toLongLong());
    case QMetaType::Double:
        // Ids arrive as JSON numbers from some service versions; whole numbers only.
        if (value.toDouble() == static_cast<double>(value.toLongLong())) {
            return QString::number(value.toLongLong());
        }
        return QString();
    default:
        return QString();
    }
}

} // namespace

HMAPIClient &HMAccountManager::api()
{
    return m_api ? *m_api : HMAPIClient::instance();
}

HMClock &HMAccountManager::clock()
{
    return m_clock ? *m_clock : HMClock::system();
}

bool HMAccountManager::isClosestEnabled() const
{
    return m_closestEnabled ? m_closestEnabled() : HMClosestServerManager::instance().isEnabled();
}

QVariantList HMAccountManager::parseCountryList(const QVariant &countryList)
{
    QVariantList countries;
    if (countryList.typeId() != QMetaType::QVariantList) {
        return countries;
    }
    for (const QVariant &entry : countryList.toList()) {
        const QVariantList pair =
            entry.typeId() == QMetaType::QVariantList ? entry.toList() : QVariantList();
        const QString code = pair.size() >= 2 && pair.at(0).typeId() == QMetaType::QString
                                 ? pair.at(0).toString()
                                 : QString();
        const QString id = pair.size() >= 2 ? idText(pair.at(1)) : QString();
        if (code.isEmpty() || id.isNull()) {
            continue; // not a [code, id] pair
        }
        countries.append(QVariantMap{{QStringLiteral("id"), id}, {QStringLiteral("code"), code}});
    }
    return countries;
}

void HMAccountManager::loginWithUsername(const QString &username, const QString &password,
                                         bool getToken, Completion completion)
{
    signIn(username, password, getToken, true, std::move(completion));
}

void HMAccountManager::signIn(const QString &username, const QString &password, bool getToken,
                              bool flushAtOnce, Completion completion)
{
    // The API client may outlive this manager and abort the request as it goes; then there
    // is nobody left to tell (the usage loop's completion would touch this manager).
    QPointer<HMAccountManager> self(this);
    api().loginWithUsername(username, password, currentCountryCode(), uuid(), getToken,
                            [this, self, username, password, getToken, flushAtOnce,
                             completion](const QVariantMap &reply, const HMMaybeError &error) {
                                if (!self) {
                                    return;
                                }
                                if (error) {
                                    HMLogError(error->description());
                                    if (completion) {
                                        completion(error);
                                    }
                                    return;
                                }
                                const QString message = textField(reply, "message");
                                // An unconfirmed address is a refusal the client accepts: the user
                                // is signed in and asked to confirm later.
                                if (reply.value(QStringLiteral("status")).toString() !=
                                        QLatin1String("ok") &&
                                    !message.contains(QLatin1String("has not been confirmed"))) {
                                    if (completion) {
                                        completion(refusal(message));
                                    }
                                    return;
                                }
                                storeSignInReply(reply, username, password, getToken, flushAtOnce);
                                if (completion) {
                                    completion(std::nullopt);
                                }
                            });
}

void HMAccountManager::storeSignInReply(const QVariantMap &reply, const QString &username,
                                        const QString &password, bool getToken, bool flushAtOnce)
{
    willChange(kLoggedIn);
    setUsername(username);
    // The keychain item is written under the new user name, so the name goes first.
    setPassword(password);
    didChange(kLoggedIn);

    // In this order: the legacy "twitterID" is stored and then replaced by "twitterId",
    // which clears it when the reply has only the legacy spelling. Kept on purpose.
    setTwitterID(textField(reply, "twitterID"));
    setAccountVerified(boolField(reply, "emailConfirmed"));
    setTwitterPromoComplete(boolField(reply, "twitterPromo"));
    setBandwidthAvailable(integerField(reply, "dataAllowed"));
    setMaxBandwidth(integerField(reply, "dataCap"));
    setFullVersion(boolField(reply, "fullVersion"));
    setCanyon(boolField(reply, "isYearly"));
    setTwitterID(textField(reply, "twitterId"));
    setTemplateTweet(textField(reply, "templateTweet"));
    setTwitterPromoEnabled(boolField(reply, "twitterPromoEnabled"));
    setTwitterPromoMessage(textField(reply, "currentTweet"));
    setFullRemainingTime(rawField(reply, "fullRemainingTime"));
    const QVariant fastest = rawField(reply, "fastestServers");
    setClosestServers(fastest.typeId() == QMetaType::QVariantMap ||
                              fastest.typeId() == QMetaType::QVariantList
                          ? fastest
                          : QVariant());
    setPaymentStatus(textField(reply, "paymentStatus"));
    const QVariant servers = reply.value(QStringLiteral("vpnServers"));
    setVpnServers(servers.typeId() == QMetaType::QVariantList ? servers.toList() : QVariantList());
    if (getToken) {
        setVpnToken(textField(reply, "vpnToken"));
    }

    QVariantList list = parseCountryList(reply.value(QStringLiteral("countryList")));
    if (isClosestEnabled()) {
        list.append(QVariantMap{{QStringLiteral("id"), QStringLiteral("-1")},
                                {QStringLiteral("code"), QStringLiteral("Closest")}});
    }
    setCountries(list);
    if (currentCountry().isNull() && !list.isEmpty()) {
        // The whole record, not its code, as the service's other clients do. The fallback
        // of currentCountry to the first record's code means this only happens when that
        // record has no usable code.
        willChange(kCurrentCountryCode);
        setValueForPref(list.first(), kCurrentCountry);
        didChange(kCurrentCountryCode);
    }

    const QVariant banner = reply.value(QStringLiteral("bannerDisplay"));
    if (banner.typeId() == QMetaType::QVariantMap) {
        setSalePromoImageURL(textField(banner.toMap(), "imageUrlRetina"));
        setSalePromoClickURL(textField(banner.toMap(), "clickLink"));
    } else {
        setSalePromoImageURL(QString());
        setDidCloseSalePromoView(false);
    }

    if (this->username() != previousUsername()) {
        setDidCloseTwitterPromoView(false);
        setDidCloseSalePromoView(false);
        setPreviousUsername(this->username());
    }
    // A renewal runs on every switch-on, in the middle of bringing the tunnel up; the
    // store's own write follows within a second, and a renewal lost to a crash before that
    // is simply asked for again. A sign-in of the user's is written at once.
    if (flushAtOnce) {
        synchronize();
    }
}

void HMAccountManager::loginGetToken(bool getToken, Completion completion)
{
    hm_assert(isLoggedIn(), QStringLiteral("Must be logged in"));
    signIn(username(), password(), getToken, false, std::move(completion));
}

void HMAccountManager::getTokenWithCompletion(TokenCompletion completion)
{
    hm_assert(isLoggedIn(), QStringLiteral("Must be logged in"));
    hm_assert(bool(completion), QStringLiteral("Must specify non-nil completion"));
    api().getLoginTokenWithUsername(
        username(), password(), [completion](const QVariantMap &reply, const HMMaybeError &error) {
            if (error) {
                HMLogError(error->description());
                return;
            }
            const QString details = textField(reply, "details");
            if (reply.value(QStringLiteral("status")).toString() == QLatin1String("pass")) {
                completion(details);
                return;
            }
            // Deliberately silent towards the caller.
            HMLogError(QStringLiteral("error: %1").arg(details));
        });
}

void HMAccountManager::addAccountWithUsername(const QString &username, const QString &password,
                                              const QString &firstName, const QString &lastName,
                                              Completion completion)
{
    api().addAccountWithUsername(
        username, password, firstName, lastName,
        [this, username, password, completion](const QVariantMap &reply,
                                               const HMMaybeError &error) {
            if (!error && reply.value(QStringLiteral("status")).toString() == QLatin1String("ok")) {
                loginWithUsername(username, password, false, completion);
                return;
            }
            const HMError failure = error ? *error : refusal(textField(reply, "details"));
            HMLogError(error ? error->description() : failure.localizedDescription());
            if (completion) {
                completion(failure);
            }
        });
}

void HMAccountManager::verifyAccountWithCompletion(Completion completion)
{
    if (!isLoggedIn()) {
        throw HMException(QStringLiteral("HMExceptionNotLoggedIn"),
                          QStringLiteral("Must be logged in to verify account"));
    }
    loginGetToken(false, [this, completion](const HMMaybeError &error) {
        if (error) {
            HMLogError(error->description());
        }
        if (!completion) {
            return;
        }
        if (error) {
            completion(error);
        } else if (isAccountVerified()) {
            completion(std::nullopt);
        } else {
            completion(
                HMError::errorWithDescription(QStringLiteral("Email has not been confirmed")));
        }
    });
}

void HMAccountManager::resendVerificationEmailWithCompletion(Completion completion)
{
    hm_assert(isLoggedIn(), QStringLiteral("Should be logged in to resend email"));
    api().resendVerificationEmailWithUsername(
        username(), password(), [completion](const QVariantMap &, const HMMaybeError &error) {
            if (error) {
                HMLogError(error->description());
            }
            if (completion) {
                completion(error);
            }
        });
}

void HMAccountManager::startUpdatingUsage()
{
    if (shouldUpdateUsage() || !isLoggedIn() || !isAccountVerified()) {
        return;
    }
    setShouldUpdateUsage(true);
    // A run still pending, or a reply still on its way, from before a stop would otherwise
    // start a second loop beside this one.
    ++m_usageGeneration;
    clock().cancel(m_usageTimer);
    m_usageTimer = 0;
    updateUsage();
}

void HMAccountManager::updateUsage()
{
    hm_assert(isLoggedIn(), QStringLiteral("Should be logged in to update usage"));
    if (!shouldUpdateUsage()) {
        return;
    }
    const quint64 generation = m_usageGeneration;
    loginGetToken(false, [this, generation](const HMMaybeError &error) {
        if (error && error->localizedDescription().contains(QLatin1String("Unknown"))) {
            // The service no longer knows the account.
            logout();
            setShouldUpdateUsage(false);
            return;
        }
        // Any other failure (no network, blocked service) keeps the loop going.
        if (shouldUpdateUsage() && generation == m_usageGeneration) {
            m_usageTimer = clock().singleShot(kUsageRefreshIntervalMs, this, [this] {
                m_usageTimer = 0;
                if (shouldUpdateUsage() && isLoggedIn()) {
                    updateUsage();
                }
            });
        }
    });
}

void HMAccountManager::startCheckingVPNConnection()
{
    if (!shouldCheckVPNConnection()) {
        setShouldCheckVPNConnection(true);
    }
    checkIfVPNConnected();
}

void HMAccountManager::stopCheckingVPNConnection()
{
    setShouldCheckVPNConnection(false);
}

void HMAccountManager::checkIfVPNConnected()
{
    if (!shouldCheckVPNConnection()) {
        return;
    }
    // The answer is not used and the probe is not repeated; the call tells the service
    // that this installation is around.
    api().isVPNConnectedWithCompletion([](const QVariantMap &, const HMMaybeError &) {});
}

void HMAccountManager::openAccountDetailsPage()
{
    HMAPIClient &client = api();
    getTokenWithCompletion(
        [&client](const QString &token) { client.openAccountURLWithToken(token); });
}

void HMAccountManager::updateTwitterID(const QString &twitterID, Completion completion)
{
    hm_assert(isLoggedIn(), QStringLiteral("Should be logged in to store Twitter ID"));
    api().updateTwitterID(
        twitterID, username(), password(),
        [this, twitterID, completion](const QVariantMap &reply, const HMMaybeError &error) {
            HMMaybeError failure = error;
            if (!error &&
                reply.value(QStringLiteral("status")).toString() == QLatin1String("pass")) {
                setTwitterID(twitterID);
            } else if (!error) {
                failure = refusal(textField(reply, "details"));
            }
            if (failure) {
                HMLogError(failure->description());
            }
            if (completion) {
                completion(failure);
            }
        });
}
