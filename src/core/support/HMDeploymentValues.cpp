#include "HMDeploymentValues.h"

#include "HMLog.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QUrl>
#include <algorithm>

const QString HMDeploymentValues::kFileName = QStringLiteral("hollowmere/deployment.json");

namespace {

// Anything that becomes "https://<host>" without further escaping: letters, digits, dots
// and hyphens, no port, no path. Checked by hand rather than by a regular expression: this
// runs at every start, and the expression engine alone would add some 0.4 MiB of resident
// code to the idle application.
bool isPlainHostName(const QString &value)
{
    const auto alphanumeric = [](QChar c) {
        return (c >= QLatin1Char('a') && c <= QLatin1Char('z')) ||
               (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) ||
               (c >= QLatin1Char('0') && c <= QLatin1Char('9'));
    };
    if (value.isEmpty() || value.size() > 253 || !alphanumeric(value.front()) ||
        !alphanumeric(value.back()) || value.contains(QLatin1String(".."))) {
        return false;
    }
    return std::all_of(value.begin(), value.end(), [&alphanumeric](QChar c) {
        return alphanumeric(c) || c == QLatin1Char('.') || c == QLatin1Char('-');
    });
}

// An http(s) address with a host and no query or fragment; trailing slashes removed so that
// pages can append their "/path" as they stand.
std::optional<QString> normalisedSiteRoot(const QString &value)
{
    const QUrl url(value, QUrl::StrictMode);
    if (!url.isValid() ||
        (url.scheme() != QLatin1String("https") && url.scheme() != QLatin1String("http"))) {
        return std::nullopt;
    }
    if (url.host().isEmpty() || url.hasQuery() || url.hasFragment() || !url.userInfo().isEmpty()) {
        return std::nullopt;
    }
    QString text = value;
    while (text.endsWith(QLatin1Char('/'))) {
        text.chop(1);
    }
    return text;
}

} // namespace

HMDeploymentValues HMDeploymentValues::builtIn()
{
    HMDeploymentValues values;
    values.m_serviceDomain = QStringLiteral("hollowmere.com");
    values.m_streamingHost = QStringLiteral("stream.hollowmere.com");
    values.m_staticHost = QStringLiteral("static.hollowmere.net");
    values.m_webSiteRoot = QStringLiteral("https://www.hollowmere.com");
    values.m_helpHost = QStringLiteral("help.hollowmere.com");
    return values;
}

const HMDeploymentValues &HMDeploymentValues::current()
{
    static const HMDeploymentValues values = loadFromSearchPath();
    return values;
}

QStringList HMDeploymentValues::searchPathFiles()
{
    // locateAll lists the most important folder first.
    QStringList files = QStandardPaths::locateAll(QStandardPaths::GenericConfigLocation, kFileName);
    std::reverse(files.begin(), files.end());
    return files;
}

HMDeploymentValues HMDeploymentValues::loadFromSearchPath()
{
    HMDeploymentValues values = builtIn();
    for (const QString &path : searchPathFiles()) {
        QString error;
        if (!values.applyFile(path, &error)) {
            HMLogError(QStringLiteral("Ignoring deployment file %1: %2").arg(path, error));
        }
    }
    return values;
}

bool HMDeploymentValues::applyFile(const QString &path, QString *error)
{
    auto fail = [error](const QString &text) {
        if (error) {
            *error = text;
        }
        return false;
    };

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return fail(file.errorString());
    }
    // A deployment file is a handful of names; anything big is not one.
    constexpr qint64 kMaximumSize = 64 * 1024;
    if (file.size() > kMaximumSize) {
        return fail(QStringLiteral("file is larger than %1 bytes").arg(kMaximumSize));
    }
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return fail(QStringLiteral("not valid JSON (%1 at offset %2)")
                        .arg(parseError.errorString())
                        .arg(parseError.offset));
    }
    if (!document.isObject()) {
        return fail(QStringLiteral("not a JSON object"));
    }
    const QJsonObject object = document.object();

    HMDeploymentValues updated = *this;
    struct HostKey
    {
        const char *key;
        QString HMDeploymentValues::*member;
    };
    const HostKey hostKeys[] = {
        {"serviceDomain", &HMDeploymentValues::m_serviceDomain},
        {"streamingHost", &HMDeploymentValues::m_streamingHost},
        {"staticHost", &HMDeploymentValues::m_staticHost},
        {"helpHost", &HMDeploymentValues::m_helpHost},
    };
    for (const HostKey &entry : hostKeys) {
        const QString key = QLatin1String(entry.key);
        if (!object.contains(key)) {
            continue;
        }
        const QJsonValue value = object.value(key);
        if (!value.isString() || !isPlainHostName(value.toString())) {
            return fail(QStringLiteral("\"%1\" must be a bare host name").arg(key));
        }
        updated.*(entry.member) = value.toString();
    }
    const QString siteKey = QStringLiteral("webSiteRoot");
    if (object.contains(siteKey)) {
        const QJsonValue value = object.value(siteKey);
        const auto root = value.isString() ? normalisedSiteRoot(value.toString()) : std::nullopt;
        if (!root) {
            return fail(QStringLiteral("\"%1\" must be an http or https address").arg(siteKey));
        }
        updated.m_webSiteRoot = *root;
    }
    updated.m_sources.append(path);
    *this = updated;
    return true;
}
