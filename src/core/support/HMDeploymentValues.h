// Where the service lives: the host names and web addresses this build talks to.
//
// The values are compiled in and can be overridden by "hollowmere/deployment.json" in the
// XDG config search path (every folder of $XDG_CONFIG_DIRS, then $XDG_CONFIG_HOME, each
// overriding the keys it names). A packager points a build at another deployment with a
// file in /etc/xdg; the test suite and the demo point the client at the local reference
// service with one in the user's config folder. The API client, the certificate rule,
// the closest-server check and the browser pages read them from here.
//
// A file that cannot be read, is not a JSON object, or holds a value of the wrong shape is
// ignored as a whole (and logged): a half-applied file could send the API to one
// deployment and the fallback file to another.
#pragma once

#include <QString>
#include <QStringList>

class HMDeploymentValues
{
public:
    static const QString kFileName; // "hollowmere/deployment.json"

    // Loaded once per process from the search path, on first use.
    static const HMDeploymentValues &current();
    // The compiled-in values alone.
    static HMDeploymentValues builtIn();
    // The compiled-in values overridden by every deployment file found now, least
    // important folder first.
    static HMDeploymentValues loadFromSearchPath();
    // The deployment files that exist in the search path, least important first.
    static QStringList searchPathFiles();

    // Applies the keys of one file over the current values. On failure nothing changes and
    // `error` says why.
    bool applyFile(const QString &path, QString *error = nullptr);

    // The bare domain of the API ("hollowmere.com"): root 0 is "https://" + this.
    QString serviceDomain() const { return m_serviceDomain; }
    // Host of the event stream and dashboard (root 2).
    QString streamingHost() const { return m_streamingHost; }
    // Host of the static files and the fallback address list (root 3).
    QString staticHost() const { return m_staticHost; }
    // The public web site, scheme included, no trailing slash ("https://www.hollowmere.com").
    QString webSiteRoot() const { return m_webSiteRoot; }
    // The help site's host; pages there are reached over plain HTTP.
    QString helpHost() const { return m_helpHost; }

    // The files whose values are in effect, least important first.
    QStringList sources() const { return m_sources; }

    void setServiceDomain(const QString &value) { m_serviceDomain = value; }
    void setStreamingHost(const QString &value) { m_streamingHost = value; }
    void setStaticHost(const QString &value) { m_staticHost = value; }
    void setWebSiteRoot(const QString &value) { m_webSiteRoot = value; }
    void setHelpHost(const QString &value) { m_helpHost = value; }

private:
    QString m_serviceDomain;
    QString m_streamingHost;
    QString m_staticHost;
    QString m_webSiteRoot;
    QString m_helpHost;
    QStringList m_sources;
};
