// The one HTTP client of the Hollowmere service API.
//
// Every call to the service goes through performRequestWithRoot(): it refuses at once
// without a network (asking the reachability source), runs the first-use health check of
// the API roots (falling back to the bare addresses published on the static-file host when
// the service's domain is blocked), sends the request with GET or POST and hands back a
// normalised dictionary or an error, never both, on the main thread. The endpoint methods
// below turn each service operation into one such call; the browser pages are opened
// through the URL opener (QDesktopServices unless a test replaces it).
//
// Collaborators: the deployment values (hosts of the four roots), a reachability query,
// a clock (the 60-second request time-out), the notification centre
// ("HMAPIBlockedNotification") and a QNetworkAccessManager carrying the IgnoreCert rule.
#pragma once

#include "HMDeploymentValues.h"
#include "HMError.h"

#include <QObject>
#include <QPair>
#include <QStringList>
#include <QUrl>
#include <QVariant>
#include <functional>

class HMClock;
class HMNotificationCenter;
class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

// Request parameters in the order they go on the wire. Values are strings, booleans (sent
// as "1"/"0"), numbers, or bytes (which turn a POST into a multipart upload).
using HMAPIParams = QList<QPair<QString, QVariant>>;
// The reply dictionary (empty when there is an error) and the error.
using HMAPICompletion = std::function<void(const QVariantMap &reply, const HMMaybeError &error)>;
using HMAPIErrorCompletion = std::function<void(const HMMaybeError &error)>;
// Whether the network is usable now; the reachability manager answers it in the running
// application, tests switch it by hand (a test's namespace has no link-local route).
using HMReachabilityQuery = std::function<bool()>;

enum HMAPIStatus : int
{
    HMAPIStatusHealthy = 0,
    HMAPIStatusUnknown = 1,
    HMAPIStatusBlocked = 2,
    HMAPIStatusChecking = 3,
};

enum HMAPIMethod : int
{
    HMAPIMethodGET = 0,
    HMAPIMethodPOST = 1,
};

class HMAPIClient : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isFallrootHealthy READ isFallrootHealthy NOTIFY isFallrootHealthyChanged)

public:
    static const QString kBlockedNotification; // "HMAPIBlockedNotification"
    // Transport failures carry this domain and the URL-loading codes (-1001 timed out,
    // -1004 cannot connect, -1011 bad server response, ...).
    static const QString kURLLoadingDomain;
    static constexpr qint64 kRequestTimeoutMs = 60 * 1000;
    // Replies beyond this size are cut off with an error instead of being held in memory.
    static constexpr qint64 kMaximumReplyBytes = 32 * 1024 * 1024;

    static HMAPIClient &instance();

    HMAPIClient(const HMDeploymentValues &deployment, HMReachabilityQuery isReachable,
                HMClock &clock, HMNotificationCenter &center, QObject *parent = nullptr);
    ~HMAPIClient() override;

    // The request entry. `root` indexes APIRoots(); `path` is appended as it stands.
    // Throws HMException "Invalid method" for a method other than GET or POST.
    void performRequestWithRoot(int root, const QString &path, int method,
                                const HMAPIParams &params, HMAPICompletion completion);
    void doCallAPI(int root, const QString &path, int method, const HMAPIParams &params,
                   HMAPICompletion completion);
    void doGETAPI(int root, const QString &path, const HMAPIParams &params,
                  HMAPICompletion completion);
    void doPOSTAPI(int root, const QString &path, const HMAPIParams &params,
                   HMAPICompletion completion);

    // Qt reports HTTP statuses as errors too (a QNetworkReply::NetworkError); true for those,
    // which are answers, not transport failures.
    static bool isHTTPStatusError(int networkError);
    // A transport failure in the URL-loading domain and codes.
    static HMError transportError(const QNetworkReply *reply);
    static QVariantMap fixData(const QVariantMap &reply);
    static HMAPIParams removePassword(const HMAPIParams &params);

    // "m<app version>/<hardware model>/<OS version>", sent as "v". On Linux the model is
    // the machine's DMI product name (the kernel's machine name where there is none) and
    // the OS version is "<os-release ID>-<VERSION_ID>" ("debian-12"; the kernel's
    // "major.minor" stands in for a missing VERSION_ID). Slashes inside either are
    // replaced so the three fields stay apart.
    static QString versionString();
    static QString versionStringFor(const QString &appVersion, const QString &model,
                                    const QString &osVersion);
    static QString hardwareModel(const QString &productNamePath = QString());
    static QString osVersion(const QString &osReleasePath = QString());

    // Health of the roots. setStatus() tells no observer; only setCheckStatus() announces
    // "isFallrootHealthy", and nothing in the client calls it (observers read the value when
    // they draw). Kept that way on purpose.
    int status() const { return m_status; }
    void setStatus(int status) { m_status = status; }
    void setCheckStatus(int status);
    bool isFallrootHealthy() const;

    QStringList APIRoots() const { return m_APIRoots; }
    void setAPIRoot(int index, const QString &root);
    QStringList backupIPs() const { return m_backupIPs; }

    // Fallback of the API roots.
    void checkAPIStatusWithCompletion(HMAPIErrorCompletion completion);
    void changeConfigAndTestWithCompletion(HMAPIErrorCompletion completion);

    // Endpoints.
    void loginWithUsername(const QString &username, const QString &password, const QString &country,
                           const QString &uuid, bool getToken, HMAPICompletion completion);
    void addAccountWithUsername(const QString &username, const QString &password,
                                const QString &firstName, const QString &lastName,
                                HMAPICompletion completion);
    void updateTwitterID(const QString &twitterID, const QString &username, const QString &password,
                         HMAPICompletion completion);
    void isVPNConnectedWithCompletion(HMAPICompletion completion);
    void resendVerificationEmailWithUsername(const QString &username, const QString &password,
                                             HMAPICompletion completion);
    void uploadLogData(const QByteArray &data, const QString &feedback, const QString &username,
                       HMAPICompletion completion);
    void getLoginTokenWithUsername(const QString &username, const QString &password,
                                   HMAPICompletion completion);
    void getPrivacyFilter(const QString &filter, const QString &username, const QString &password,
                          HMAPICompletion completion);
    void getPrivacyFilterStateWithUsername(const QString &username, const QString &password,
                                           HMAPICompletion completion);
    void setPrivacyFilter(const QString &filter, bool enabled, const QString &username,
                          const QString &password, HMAPICompletion completion);
    void setAllPrivacyFiltersEnabled(bool enabled, const QString &username, const QString &password,
                                     HMAPICompletion completion);
    void getStatusWithCompletion(HMAPICompletion completion);
    void getConfigIpsWithCompletion(HMAPICompletion completion);

    // Pages in the user's browser.
    void openForgotPasswordWithEmail(const QString &email);
    void openAccountURLWithToken(const QString &token);
    void openURLWithToken(const QString &url, const QString &token);
    void openHelpURL();
    void openWisprouteInfo();
    void openWisprouteUnsupportedInfo();
    void openTCPInfoURL();
    void openURL(const QString &url);
    void setURLOpener(std::function<bool(const QUrl &)> opener);

    QNetworkAccessManager *networkAccessManager() const { return m_network; }
    const HMDeploymentValues &deployment() const { return m_deployment; }

Q_SIGNALS:
    void willChangeValueForKey(const QString &key);
    void didChangeValueForKey(const QString &key);
    void isFallrootHealthyChanged();
    // Progress of a POST's body (the log upload is the one that takes a while); `path` is
    // the request's URL path.
    void uploadProgress(const QString &path, qint64 sent, qint64 total);

private:
    void send(QNetworkRequest request, int method, const QByteArray &body,
              HMAPICompletion completion);
    void finish(QNetworkReply *reply, int method, const HMAPICompletion &completion);
    static void checkMethod(int method);

    HMDeploymentValues m_deployment;
    HMReachabilityQuery m_isReachable;
    HMClock &m_clock;
    HMNotificationCenter &m_center;
    QNetworkAccessManager *m_network = nullptr;
    std::function<bool(const QUrl &)> m_urlOpener;
    int m_status = HMAPIStatusUnknown;
    QStringList m_APIRoots;
    QStringList m_backupIPs;
};
