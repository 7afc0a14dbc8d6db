// A privacy manager for tests: a throw-away account, an API client whose stream root is the
// reference service's plain-HTTP listener, virtual time and a tunnel switched by hand.
// The service is the test's own (started once per test case); the rest is made per test.
#pragma once

#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMManualClock.h"
#include "HMPrivacyManager.h"
#include "HMRefService.h"

#include <QJsonArray>
#include <QJsonObject>
#include <memory>

struct HMPrivacyWorld
{
    static inline const QString kUser = QStringLiteral("ann@example.test");
    static inline const QString kPassword = QStringLiteral("p&ss word");

    // Starts a service with one plain-HTTP listener named "api".
    static bool startService(HMRefService &service, QString *error)
    {
        return service.start(
            QJsonObject{
                {"listeners",
                 QJsonArray{QJsonObject{{"name", "api"}, {"address", "127.0.0.1"}, {"port", 0}}}}},
            error);
    }

    explicit HMPrivacyWorld(HMRefService &refService) : service(refService)
    {
        service.putAccount({{"username", kUser}, {"password", kPassword}});
        account.account->setUsername(kUser);
        account.account->setPassword(kPassword);
        api = std::make_unique<HMAPIClient>(
            HMDeploymentValues::builtIn(), [] { return true; }, clock, account.center);
        api->setStatus(HMAPIStatusHealthy);
        api->setAPIRoot(2, QStringLiteral("http://127.0.0.1:%1").arg(service.port("api")));
        HMPrivacyManager::Collaborators c;
        c.store = account.store.get();
        c.api = api.get();
        c.account = account.account.get();
        c.notifications = &account.center;
        c.clock = &clock;
        c.isVPNConnected = [this] { return connected; };
        privacy = std::make_unique<HMPrivacyManager>(c);
    }

    // Ends every stream the test left open (a plain-HTTP stream notices a client that left
    // only when it is written to or ended) and forgets the requests.
    ~HMPrivacyWorld()
    {
        privacy.reset();
        service.call("POST", "/test/blocks/end");
        service.clearRequests();
    }

    int openStreams() { return service.call("GET", "/test/state").value("streams").toInt(); }
    int requests(const QString &path) { return service.requestsTo(path).size(); }
    void push(const QJsonObject &block)
    {
        service.call("POST", "/test/blocks", {{"username", kUser}, {"events", QJsonArray{block}}});
    }

    HMRefService &service;
    HMManualClock clock;
    HMAccountWorld account;
    std::unique_ptr<HMAPIClient> api;
    bool connected = false;
    std::unique_ptr<HMPrivacyManager> privacy;
};
