// Stand-ins for tunnel control's collaborators, and a fake OpenVPN management server.
//
// Every answer is delivered through the event loop, as the real account, helper and
// closest-server managers deliver theirs, so a test sees the same interleavings. Requests
// are recorded in order; the helper's and the account's answers can be scripted or held.
#pragma once

#include "HMVPNAccountSource.h"
#include "HMVPNClosestSource.h"
#include "HMVPNHelperTransport.h"
#include "HMVPNReachabilitySource.h"
#include "HMVPNRoutingSource.h"

#include <QHash>
#include <QList>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QStringList>
#include <QTemporaryDir>

class HMFakeAccount : public HMVPNAccountSource
{
    Q_OBJECT
public:
    QString token = QStringLiteral("tok3n");
    qint64 allowance = 0;
    bool reconnectWish = false;
    bool loggedIn = true;
    QString country = QStringLiteral("US");
    QString countryCode = QStringLiteral("7");
    QVariantMap groups;
    QString closestCountry = QStringLiteral("unset");
    QVariantList servers;
    int setVpnServersCalls = 0;

    // Token refresh: answered with `tokenError` unless held; `beforeTokenAnswer` runs just
    // before the answer (to change the account the way a real sign-in reply would).
    bool holdTokenRequests = false;
    HMMaybeError tokenError;
    std::function<void()> beforeTokenAnswer;
    int tokenRequests = 0;
    QList<Completion> heldTokenRequests;

    QString vpnToken() const override { return token; }
    qint64 bandwidthAvailable() const override { return allowance; }
    bool shouldReconnect() const override { return reconnectWish; }
    void setShouldReconnect(bool value) override { reconnectWish = value; }
    bool isLoggedIn() const override { return loggedIn; }
    QString currentCountry() const override { return country; }
    QString currentCountryCode() const override { return countryCode; }
    QVariantMap closestServers() const override { return groups; }
    void setCurrentClosestCountry(const QString &value) override { closestCountry = value; }
    QVariantList vpnServers() const override { return servers; }
    void setVpnServers(const QVariantList &value) override
    {
        servers = value;
        ++setVpnServersCalls;
    }
    void loginGetToken(bool getToken, Completion completion) override;

    void setAllowance(qint64 value);
    void setCountry(const QString &value);
    void setLoggedIn(bool value);
};

class HMFakeReachability : public HMVPNReachabilitySource
{
    Q_OBJECT
public:
    bool reachable = true;
    bool isReachable() const override { return reachable; }
    void report(bool value);
};

class HMFakeHelper : public HMVPNHelperTransport
{
public:
    struct Request
    {
        QString action;
        QString tap;
        int mode = -1;
    };
    QList<Request> requests;
    // Per action, the errors of the next answers (front first); an empty queue answers "ok".
    QHash<QString, QList<HMMaybeError>> scripted;
    // Actions whose every answer is this error.
    QHash<QString, HMMaybeError> failing;
    // Actions whose answers are kept until release().
    QStringList held;
    QList<QPair<QString, Completion>> heldAnswers;

    void startVPN(Completion completion) override
    {
        answer({QStringLiteral("startVPN"), {}, -1}, std::move(completion));
    }
    void stopVPN(Completion completion) override
    {
        answer({QStringLiteral("stopVPN"), {}, -1}, std::move(completion));
    }
    void startDNSProxy(const QString &tap, int mode, Completion completion) override
    {
        answer({QStringLiteral("startDNSProxy"), tap, mode}, std::move(completion));
    }
    void stopDNSProxy(Completion completion) override
    {
        answer({QStringLiteral("stopDNSProxy"), {}, -1}, std::move(completion));
    }
    void stopBeforeExit() override { requests.append({QStringLiteral("stopBeforeExit"), {}, -1}); }

    QStringList actions() const;
    int count(const QString &action) const { return int(actions().count(action)); }
    void release(const QString &action);

private:
    void answer(const Request &request, Completion completion);
};

class HMFakeRouting : public HMVPNRoutingSource
{
public:
    bool supported = false;
    int mode = 0;
    bool isSupported() const override { return supported; }
    int wisprouteMode() const override { return mode; }
};

class HMFakeClosest : public HMVPNClosestSource
{
public:
    QList<QVariantMap> tests;
    QString country;
    QVariantList servers;
    HMMaybeError error;
    // Answers are kept here instead while set.
    bool hold = false;
    QList<Completion> held;
    void initClosestTest(const QVariantMap &serverGroups, Completion completion) override;
};

// Plays OpenVPN's side of the management interface: accepts one client at a time, records
// every command line it receives and sends whatever the test scripts.
class HMFakeManagementServer : public QObject
{
    Q_OBJECT
public:
    HMFakeManagementServer();
    QString path() const { return m_server.fullServerName(); }
    bool hasClient() const { return m_client != nullptr; }
    QStringList commands() const { return m_commands; }
    void send(const QByteArray &data);
    void sendLines(const QStringList &lines); // each gets CR LF
    void closeClient();
    void stopListening() { m_server.close(); }

private:
    QTemporaryDir m_dir;
    QLocalServer m_server;
    QPointer<QLocalSocket> m_client;
    QByteArray m_pending;
    QStringList m_commands;
};
