#include "HMAPIClient.h"

#include "HMBundleInfo.h"
#include "HMClock.h"
#include "HMException.h"
#include "HMNotificationCenter.h"
#include "HMReachabilityManager.h"
#include "IgnoreCert.h"

#include <QDesktopServices>
#include <QFile>
#include <QNetworkAccessManager>
#include <sys/utsname.h>

const QString HMAPIClient::kBlockedNotification = QStringLiteral("HMAPIBlockedNotification");
const QString HMAPIClient::kURLLoadingDomain = QStringLiteral("URLLoadingErrorDomain");

HMAPIClient &HMAPIClient::instance()
{
    static HMAPIClient *client = new HMAPIClient(
        HMDeploymentValues::current(),
        [] { return HMReachabilityManager::instance().isReachable(); }, HMClock::system(),
        HMNotificationCenter::defaultCenter());
    return *client;
}

HMAPIClient::HMAPIClient(const HMDeploymentValues &deployment, HMReachabilityQuery isReachable,
                         HMClock &clock, HMNotificationCenter &center, QObject *parent)
    : QObject(parent), m_deployment(deployment), m_isReachable(std::move(isReachable)),
      m_clock(clock), m_center(center), m_network(new QNetworkAccessManager(this)),
      m_urlOpener([](const QUrl &url) { return QDesktopServices::openUrl(url); })
{
    m_APIRoots = {
        QStringLiteral("https://") + deployment.serviceDomain(),
        QStringLiteral("http://") + deployment.serviceDomain(),
        QStringLiteral("https://") + deployment.streamingHost(),
        QStringLiteral("https://") + deployment.staticHost() + QStringLiteral("/hollowmere"),
    };
    IgnoreCert::install(m_network, IgnoreCert::acceptedNamesFor(deployment.serviceDomain(),
                                                                deployment.staticHost()));
}

HMAPIClient::~HMAPIClient() = default;

void HMAPIClient::checkMethod(int method)
{
    if (method != HMAPIMethodGET && method != HMAPIMethodPOST) {
        throw HMException(QStringLiteral("Invalid method"), QStringLiteral("Invalid HTTP method"));
    }
}

void HMAPIClient::performRequestWithRoot(int root, const QString &path, int method,
                                         const HMAPIParams &params, HMAPICompletion completion)
{
    // Raised here rather than after the health check, so that it reaches the caller.
    checkMethod(method);
    if (!m_isReachable()) {
        completion(QVariantMap(),
                   HMError::errorWithDescription(QStringLiteral("No internet connection")));
        return;
    }
    // Only the very first request checks the roots. Requests made while the check runs, or
    // after it found the service blocked, go out at once with the roots of that moment.
    if (m_status != HMAPIStatusUnknown) {
        doCallAPI(root, path, method, params, std::move(completion));
        return;
    }
    setStatus(HMAPIStatusChecking);
    checkAPIStatusWithCompletion(
        [this, root, path, method, params, completion](const HMMaybeError &error) {
            if (error) {
                setStatus(HMAPIStatusBlocked);
                m_center.postNotificationName(kBlockedNotification);
                completion(QVariantMap(), error);
                return;
            }
            setStatus(HMAPIStatusHealthy);
            doCallAPI(root, path, method, params, completion);
        });
}

void HMAPIClient::doCallAPI(int root, const QString &path, int method, const HMAPIParams &params,
                            HMAPICompletion completion)
{
    checkMethod(method);
    if (method == HMAPIMethodGET) {
        doGETAPI(root, path, params, std::move(completion));
    } else {
        doPOSTAPI(root, path, params, std::move(completion));
    }
}

QVariantMap HMAPIClient::fixData(const QVariantMap &reply)
{
    QVariantMap fixed = reply;
    const QString statusKey = QStringLiteral("status");
    const QString resultKey = QStringLiteral("result");
    if (fixed.contains(statusKey)) {
        fixed.insert(statusKey, fixed.value(statusKey).toString().toLower());
    }
    if (fixed.contains(resultKey)) {
        fixed.insert(statusKey, fixed.value(resultKey).toString().toLower());
        fixed.remove(resultKey);
    }
    return fixed;
}

HMAPIParams HMAPIClient::removePassword(const HMAPIParams &params)
{
    HMAPIParams kept;
    for (const auto &pair : params) {
        if (pair.first != QLatin1String("password")) {
            kept.append(pair);
        }
    }
    return kept;
}

void HMAPIClient::setCheckStatus(int status)
{
    const QString key = QStringLiteral("isFallrootHealthy");
    Q_EMIT willChangeValueForKey(key);
    m_status = status;
    Q_EMIT didChangeValueForKey(key);
    Q_EMIT isFallrootHealthyChanged();
}

bool HMAPIClient::isFallrootHealthy() const
{
    return m_status != HMAPIStatusBlocked && m_status != HMAPIStatusChecking;
}

void HMAPIClient::setAPIRoot(int index, const QString &root)
{
    if (index >= 0 && index < m_APIRoots.size()) {
        m_APIRoots[index] = root;
    }
}

namespace {

QString withoutSlashes(QString text)
{
    return text.replace(QLatin1Char('/'), QLatin1Char('-'));
}

QString kernelMajorMinor()
{
    struct utsname name
    {
    };
    if (uname(&name) != 0) {
        return QString();
    }
    const QStringList fields = QString::fromUtf8(name.release).split(QLatin1Char('.'));
    // By hand: a pattern here would load the expression engine for the first request alone.
    const auto leadingNumber = [](const QString &field) {
        qsizetype digits = 0;
        while (digits < field.size() && field.at(digits) >= QLatin1Char('0') &&
               field.at(digits) <= QLatin1Char('9')) {
            ++digits;
        }
        return field.left(digits);
    };
    const QString major = leadingNumber(fields.value(0));
    const QString minor = leadingNumber(fields.value(1));
    return minor.isEmpty() ? major : major + QLatin1Char('.') + minor;
}

QString osReleaseValue(const QByteArray &content, const QString &key)
{
    for (const QByteArray &rawLine : content.split('\n')) {
        const QString line = QString::fromUtf8(rawLine).trimmed();
        if (!line.startsWith(key + QLatin1Char('='))) {
            continue;
        }
        QString value = line.mid(key.size() + 1).trimmed();
        if (value.size() >= 2 &&
            (value.startsWith(QLatin1Char('"')) || value.startsWith(QLatin1Char('\''))) &&
            value.endsWith(value.at(0))) {
            value = value.mid(1, value.size() - 2);
        }
        return value;
    }
    return QString();
}

} // namespace

QString HMAPIClient::versionString()
{
    return versionStringFor(app_version(), hardwareModel(), osVersion());
}

QString HMAPIClient::versionStringFor(const QString &appVersion, const QString &model,
                                      const QString &osVersion)
{
    return QStringLiteral("m%1/%2/%3")
        .arg(appVersion, withoutSlashes(model), withoutSlashes(osVersion));
}

QString HMAPIClient::hardwareModel(const QString &productNamePath)
{
    QFile file(productNamePath.isEmpty() ? QStringLiteral("/sys/class/dmi/id/product_name")
                                         : productNamePath);
    if (file.open(QIODevice::ReadOnly)) {
        const QString model = QString::fromUtf8(file.read(256)).trimmed();
        if (!model.isEmpty()) {
            return model;
        }
    }
    return platform_id();
}

QString HMAPIClient::osVersion(const QString &osReleasePath)
{
    QByteArray content;
    for (const QString &path :
         osReleasePath.isEmpty()
             ? QStringList{QStringLiteral("/etc/os-release"), QStringLiteral("/usr/lib/os-release")}
             : QStringList{osReleasePath}) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly)) {
            content = file.read(64 * 1024);
            break;
        }
    }
    QString id = osReleaseValue(content, QStringLiteral("ID"));
    QString version = osReleaseValue(content, QStringLiteral("VERSION_ID"));
    if (id.isEmpty()) {
        id = QStringLiteral("linux");
    }
    if (version.isEmpty()) {
        version = kernelMajorMinor();
    }
    return id + QLatin1Char('-') + version;
}

void HMAPIClient::setURLOpener(std::function<bool(const QUrl &)> opener)
{
    m_urlOpener = std::move(opener);
}
