// The service's operations and web pages: one fixed root, path, method and parameter set
// each. The parameter names differ between endpoints ("user", "email", "username") and
// "json"/"v" go only where listed: that is the service's contract, not a slip.
#include "HMAPIClient.h"

#include "HMURLEncoding.h"

namespace {

const int kAPIRoot = 0;
const int kPlainAPIRoot = 1;
const int kStreamRoot = 2;
const int kStaticRoot = 3;

QVariant jsonFlag()
{
    return QStringLiteral("true");
}

} // namespace

void HMAPIClient::loginWithUsername(const QString &username, const QString &password,
                                    const QString &country, const QString &uuid, bool getToken,
                                    HMAPICompletion completion)
{
    performRequestWithRoot(kAPIRoot, QStringLiteral("/core/register"), HMAPIMethodPOST,
                           {{QStringLiteral("json"), jsonFlag()},
                            {QStringLiteral("user"), username},
                            {QStringLiteral("password"), password},
                            {QStringLiteral("deviceId"), uuid},
                            {QStringLiteral("getToken"), getToken},
                            {QStringLiteral("v"), versionString()},
                            {QStringLiteral("country"), country}},
                           std::move(completion));
}

void HMAPIClient::addAccountWithUsername(const QString &username, const QString &password,
                                         const QString &firstName, const QString &lastName,
                                         HMAPICompletion completion)
{
    performRequestWithRoot(kAPIRoot, QStringLiteral("/core/createAccount"), HMAPIMethodPOST,
                           {{QStringLiteral("json"), jsonFlag()},
                            {QStringLiteral("email"), username},
                            {QStringLiteral("password"), password},
                            {QStringLiteral("firstName"), firstName},
                            {QStringLiteral("lastName"), lastName},
                            {QStringLiteral("v"), versionString()}},
                           std::move(completion));
}

void HMAPIClient::updateTwitterID(const QString &twitterID, const QString &username,
                                  const QString &password, HMAPICompletion completion)
{
    performRequestWithRoot(kAPIRoot, QStringLiteral("/core/twitter/updateId"), HMAPIMethodPOST,
                           {{QStringLiteral("user"), username},
                            {QStringLiteral("password"), password},
                            {QStringLiteral("id"), twitterID}},
                           std::move(completion));
}

void HMAPIClient::isVPNConnectedWithCompletion(HMAPICompletion completion)
{
    performRequestWithRoot(kPlainAPIRoot, QStringLiteral("/core/isVPNConnected"), HMAPIMethodGET,
                           {}, std::move(completion));
}

void HMAPIClient::resendVerificationEmailWithUsername(const QString &username,
                                                      const QString &password,
                                                      HMAPICompletion completion)
{
    performRequestWithRoot(
        kAPIRoot, QStringLiteral("/core/resendConfirmationEmail"), HMAPIMethodPOST,
        {{QStringLiteral("email"), username}, {QStringLiteral("password"), password}},
        std::move(completion));
}

void HMAPIClient::uploadLogData(const QByteArray &data, const QString &feedback,
                                const QString &username, HMAPICompletion completion)
{
    performRequestWithRoot(
        kAPIRoot, QStringLiteral("/core/uploadLogs"), HMAPIMethodPOST,
        {{QStringLiteral("feedback"), feedback},
         {QStringLiteral("username"), username.isEmpty() ? QStringLiteral("unknown") : username},
         {QStringLiteral("v"), versionString()},
         {QStringLiteral("data"), data}},
        std::move(completion));
}

void HMAPIClient::getLoginTokenWithUsername(const QString &username, const QString &password,
                                            HMAPICompletion completion)
{
    performRequestWithRoot(
        kAPIRoot, QStringLiteral("/core/getLoginToken"), HMAPIMethodPOST,
        {{QStringLiteral("username"), username}, {QStringLiteral("password"), password}},
        std::move(completion));
}

void HMAPIClient::getPrivacyFilter(const QString &filter, const QString &username,
                                   const QString &password, HMAPICompletion completion)
{
    performRequestWithRoot(kStreamRoot, QStringLiteral("/dashboard/getFilter"), HMAPIMethodGET,
                           {{QStringLiteral("username"), username},
                            {QStringLiteral("password"), password},
                            {QStringLiteral("filter"), filter}},
                           std::move(completion));
}

void HMAPIClient::getPrivacyFilterStateWithUsername(const QString &username,
                                                    const QString &password,
                                                    HMAPICompletion completion)
{
    performRequestWithRoot(
        kStreamRoot, QStringLiteral("/dashboard/getFilter"), HMAPIMethodGET,
        {{QStringLiteral("username"), username}, {QStringLiteral("password"), password}},
        std::move(completion));
}

void HMAPIClient::setPrivacyFilter(const QString &filter, bool enabled, const QString &username,
                                   const QString &password, HMAPICompletion completion)
{
    performRequestWithRoot(kStreamRoot, QStringLiteral("/dashboard/setFilter"), HMAPIMethodGET,
                           {{QStringLiteral("username"), username},
                            {QStringLiteral("password"), password},
                            {QStringLiteral("filter"), filter},
                            {QStringLiteral("on"), enabled}},
                           std::move(completion));
}

void HMAPIClient::setAllPrivacyFiltersEnabled(bool enabled, const QString &username,
                                              const QString &password, HMAPICompletion completion)
{
    performRequestWithRoot(kStreamRoot, QStringLiteral("/dashboard/setFilter"), HMAPIMethodGET,
                           {{QStringLiteral("username"), username},
                            {QStringLiteral("password"), password},
                            {QStringLiteral("on"), enabled}},
                           std::move(completion));
}

void HMAPIClient::getStatusWithCompletion(HMAPICompletion completion)
{
    performRequestWithRoot(kAPIRoot, QStringLiteral("/core/status"), HMAPIMethodGET, {},
                           std::move(completion));
}

void HMAPIClient::getConfigIpsWithCompletion(HMAPICompletion completion)
{
    performRequestWithRoot(kStaticRoot, QStringLiteral("/fallroot/config.json"), HMAPIMethodGET, {},
                           std::move(completion));
}

void HMAPIClient::openForgotPasswordWithEmail(const QString &email)
{
    const QString query =
        email.isEmpty() ? QString() : url_encode_dict({{QStringLiteral("email"), email}});
    openURL(QStringLiteral("%1%2?%3").arg(m_deployment.webSiteRoot(),
                                          QStringLiteral("/passwordReset"), query));
}

void HMAPIClient::openAccountURLWithToken(const QString &token)
{
    openURLWithToken(m_deployment.webSiteRoot() + QStringLiteral("/account"), token);
}

void HMAPIClient::openURLWithToken(const QString &url, const QString &token)
{
    openURL(url + QLatin1Char('?') + url_encode_dict({{QStringLiteral("token"), token}}));
}

void HMAPIClient::openHelpURL()
{
    openURL(QStringLiteral("http://") + m_deployment.helpHost() + QLatin1Char('/'));
}

void HMAPIClient::openWisprouteInfo()
{
    openURL(m_deployment.webSiteRoot() + QStringLiteral("/company/wisproute/"));
}

void HMAPIClient::openWisprouteUnsupportedInfo()
{
    openURL(QStringLiteral("http://") + m_deployment.helpHost() +
            QStringLiteral(
                "/customer/portal/articles/1491256-why-can-t-i-enable-the-wisproute-feature-"));
}

void HMAPIClient::openTCPInfoURL()
{
    openURL(QStringLiteral("http://") + m_deployment.helpHost() +
            QStringLiteral("/customer/portal/articles/1490779-what-is-tcp-override-"));
}

void HMAPIClient::openURL(const QString &url)
{
    if (m_urlOpener) {
        m_urlOpener(QUrl::fromEncoded(url.toUtf8(), QUrl::TolerantMode));
    }
}
