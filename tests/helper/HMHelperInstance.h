// A real hmwispd for tests: its own root-owned configuration, resource, log and run
// directories under a temporary directory, started by systemd-socket-activate on a private
// socket inside a network namespace (so that 127.0.0.1:53 and :5678 are the test's own).
// The destructor ends the helper, any OpenVPN it left running and the namespace it made,
// also when a test failed half-way.
#pragma once

#include "HMHelperPeerProcess.h"

#include <QByteArray>
#include <QCborMap>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

class HMHelperInstance
{
public:
    struct Options
    {
        // Installed (copied) as the helper's trusted OpenVPN unless useInPlace is set.
        QString openVPN;
        bool useInPlace = false;
        // Run inside this existing namespace; empty: make a namespace of its own.
        QString networkNamespace;
        QString group = QStringLiteral("hollowmere");
        // Install the built wisproute as the helper's trusted DNS proxy.
        bool dnsProxy = true;
        // Files copied into the resource directory besides the shipped up/down scripts.
        QStringList resourceFiles;
        int clientTimeoutMs = 1000;
        int startTimeoutMs = 15000;
        int stopTimeoutMs = 2000;
    };

    HMHelperInstance();
    ~HMHelperInstance();
    HMHelperInstance(const HMHelperInstance &) = delete;
    HMHelperInstance &operator=(const HMHelperInstance &) = delete;

    static QString helperProgram();
    static QString testProgram(const QString &name);
    static QString dnsProxyProgram();

    bool prepare(const Options &options, QString *error);
    bool start(QString *error);
    void stop();
    bool isRunning() const;

    QString socketPath() const { return m_process.socketPath(); }
    QString networkNamespace() const { return m_namespace; }
    QString path(const QString &relative) const { return m_root.filePath(relative); }
    QString resourceDir() const { return path(QStringLiteral("share")); }
    QString logDir() const { return path(QStringLiteral("log")); }
    QString runDir() const { return path(QStringLiteral("run")); }
    QString managementDir() const { return path(QStringLiteral("management")); }
    // Where OpenVPN started for uid listens for the application.
    QString managementSocket(uint uid) const;
    QString openVPNPath() const { return m_openVPN; }
    // What the application names: a link beside its executable to the trusted OpenVPN.
    QString applicationOpenVPNLink() const { return path(QStringLiteral("app/openvpn")); }

    // The argument list as the application builds it, aimed at this instance.
    QStringList applicationArguments(bool selectiveRouting, const QStringList &remotes) const;
    QCborMap startVPNRequest(const QStringList &arguments) const;
    QCborMap startDNSProxyRequest(const QStringList &proxyConfig) const;
    static QCborMap request(const QString &action, const QCborMap &params = QCborMap());

    // One exchange. The reply, or {"status": "no reply: <what went wrong>"}, so that a
    // test's check of the status fails showing why.
    QCborMap call(const QCborMap &request, int timeoutMs = 30000) const;
    // Sends exactly these bytes (then half-closes when asked) and reads the reply likewise.
    QCborMap callRaw(const QByteArray &bytes, bool closeAfterSending = false,
                     int timeoutMs = 30000) const;
    QString daemonLog() const;

    // The recorder standing in for OpenVPN (hm-test-fake-openvpn): what "mode" it runs in,
    // and each start it noted, as {"arguments": [...], "environment": [...]}.
    void setFakeOpenVPNMode(const QByteArray &mode) const;
    QList<QJsonObject> invocations() const;
    QStringList lastInvocationArguments() const;

    // Kills the OpenVPN recorded in the run directory, if it is still the one.
    void killTrackedOpenVPN() const;

private:
    QTemporaryDir m_root;
    HMHelperPeerProcess m_process;
    QString m_namespace;
    bool m_ownNamespace = false;
    QString m_openVPN;
};
