#include "HMVPNAccountAdapter.h"

#include "HMAccountManager.h"
#include "HMDispatch.h"

HMVPNAccountAdapter::HMVPNAccountAdapter(HMAccountManager &account, QObject *parent)
    : HMVPNAccountSource(parent), m_account(account)
{
    QObject::connect(&m_account, &HMAccountManager::willChangeValueForKey, this,
                     [this](const QString &key) {
                         if (key == QLatin1String("currentCountry")) {
                             m_countryBefore = m_account.currentCountry();
                         } else if (key == QLatin1String("loggedIn")) {
                             m_loggedInBefore = m_account.isLoggedIn();
                         }
                     });
    QObject::connect(
        &m_account, &HMAccountManager::currentCountryChanged, this,
        [this](const QString &country) { Q_EMIT currentCountryChanged(m_countryBefore, country); });
    QObject::connect(&m_account, &HMAccountManager::loggedInChanged, this,
                     [this](bool loggedIn) { Q_EMIT loggedInChanged(m_loggedInBefore, loggedIn); });
    QObject::connect(&m_account, &HMAccountManager::bandwidthAvailableChanged, this,
                     &HMVPNAccountSource::bandwidthAvailableChanged);
}

QString HMVPNAccountAdapter::vpnToken() const
{
    return m_account.vpnToken();
}

qint64 HMVPNAccountAdapter::bandwidthAvailable() const
{
    return m_account.bandwidthAvailable();
}

bool HMVPNAccountAdapter::shouldReconnect() const
{
    return m_account.shouldReconnect();
}

void HMVPNAccountAdapter::setShouldReconnect(bool value)
{
    m_account.setShouldReconnect(value);
}

bool HMVPNAccountAdapter::isLoggedIn() const
{
    return m_account.isLoggedIn();
}

QString HMVPNAccountAdapter::currentCountry() const
{
    return m_account.currentCountry();
}

QString HMVPNAccountAdapter::currentCountryCode() const
{
    return m_account.currentCountryCode();
}

QVariantMap HMVPNAccountAdapter::closestServers() const
{
    // Anything but a dictionary of groups (the service sends it as it is) means none.
    return m_account.closestServers().toMap();
}

void HMVPNAccountAdapter::setCurrentClosestCountry(const QString &country)
{
    m_account.setCurrentClosestCountry(country);
}

QVariantList HMVPNAccountAdapter::vpnServers() const
{
    return m_account.vpnServers();
}

void HMVPNAccountAdapter::setVpnServers(const QVariantList &servers)
{
    m_account.setVpnServers(servers);
}

void HMVPNAccountAdapter::loginGetToken(bool getToken, Completion completion)
{
    // The account manager treats a signed-out call as a programming error and throws. A
    // network coming back can start a connect after the user signed out, so that case is
    // turned into an ordinary failed attempt here.
    if (!m_account.isLoggedIn()) {
        dispatch_to_main([completion] {
            completion(HMError::errorWithDescription(QStringLiteral("Must be logged in")));
        });
        return;
    }
    m_account.loginGetToken(getToken, std::move(completion));
}
