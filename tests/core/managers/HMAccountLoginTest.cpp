#include "HMAPITestBed.h"
#include "HMAccountManager.h"
#include "HMBundleInfo.h"
#include "HMException.h"
#include "HMLogCapture.h"
#include "HMManualClock.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"

#include <QSignalSpy>
#include <QtTest>

// Sign-in and the other account operations through the real API client against the reference
// service over TLS. The stored values' own rules are HMAccountManagerTest's.
class HMAccountLoginTest : public QObject
{
    Q_OBJECT

private:
    HMAPITestBed m_bed;
    // Request time-outs run on a clock of their own that never moves, so that moving the
    // usage loop's clock cannot cut a request short.
    HMManualClock m_requestClock;
    std::unique_ptr<HMManualClock> m_clockHolder;
    HMNotificationCenter m_center;
    std::unique_ptr<HMAPIClient> m_api;
    std::unique_ptr<HMPreferenceStore> m_store;
    std::unique_ptr<HMMemoryKeychain> m_keychain;
    std::unique_ptr<HMAccountManager> m_account;
    bool m_closestEnabled = false;
    int m_storeNumber = 0;

    // Waits for a completion and hands back its error.
    template <typename Call> HMMaybeError await(Call call)
    {
        bool done = false;
        HMMaybeError result;
        call([&](const HMMaybeError &error) {
            done = true;
            result = error;
        });
        if (!QTest::qWaitFor([&] { return done; }, 10000)) {
            return HMError::errorWithDescription("test: no completion");
        }
        return result;
    }

    HMMaybeError signIn(const QString &username, const QString &password, bool getToken = false)
    {
        return await(
            [&](auto done) { m_account->loginWithUsername(username, password, getToken, done); });
    }

    QString lastRegisterParam(const char *name)
    {
        const QJsonObject request = m_bed.service.requestsTo("/core/register").last().toObject();
        return request.value("params").toObject().value(name).toString();
    }

    QString latestWebToken()
    {
        return m_bed.service.account("ann@example.test")
            .value("webTokens")
            .toArray()
            .last()
            .toString();
    }

    static QString describe(const HMMaybeError &error)
    {
        return error ? error->description() : QStringLiteral("no error");
    }

    void putAccount(const QJsonObject &fields)
    {
        QJsonObject account{
            {"username", "ann@example.test"}, {"password", "secret"}, {"vpnToken", "token-1"}};
        for (auto it = fields.begin(); it != fields.end(); ++it) {
            account.insert(it.key(), it.value());
        }
        m_bed.service.putAccount(account);
    }

    int registerCount() { return m_bed.service.requestsTo("/core/register").size(); }

private Q_SLOTS:
    void initTestCase() { HM_START_API_TEST_BED(m_bed); }

    void init()
    {
        m_bed.reachable = true;
        m_bed.service.clearFaults();
        m_bed.service.clearRequests();
        putAccount({});
        m_bed.service.removeAccount("new@example.test");
        m_clockHolder = std::make_unique<HMManualClock>();
        m_api = m_bed.makeClient(m_requestClock, m_center);
        m_store = std::make_unique<HMPreferenceStore>(
            m_bed.homeFile(QStringLiteral("prefs-%1.json").arg(++m_storeNumber)));
        m_keychain = std::make_unique<HMMemoryKeychain>();
        m_account = std::make_unique<HMAccountManager>(*m_store, *m_keychain, nullptr, m_center);
        m_account->setAPIClient(m_api.get());
        m_account->setClock(m_clockHolder.get());
        m_closestEnabled = false;
        m_account->setClosestEnabledQuery([this] { return m_closestEnabled; });
    }

    void cleanup()
    {
        m_account.reset();
        m_api.reset();
    }

    void acceptedSignInStoresTheAccountInOrder()
    {
        putAccount({{"plan", "yearly"},
                    {"dataAllowed", 3000000000LL},
                    {"dataCap", 5000000000LL},
                    {"twitterId", "tw-7"},
                    {"fullRemainingTime", 86400},
                    {"templateTweet", "Tweet me"},
                    {"twitterPromoEnabled", true},
                    {"currentTweet", "Now"},
                    {"twitterPromo", true},
                    {"countries", QJsonArray{QJsonArray{"US", "1"}, QJsonArray{"DE", 3}}},
                    {"banner", QJsonObject{{"imageUrlRetina", "https://img.test/b@2x.png"},
                                           {"clickLink", "https://sale.test"}}}});
        QStringList order;
        connect(m_account.get(), &HMAccountManager::didChangeValueForKey, this,
                [&order](const QString &key) { order.append(key); });
        QVERIFY2(!signIn("ann@example.test", "secret"), "sign-in failed");

        QVERIFY(m_account->isLoggedIn());
        QCOMPARE(m_account->username(), QStringLiteral("ann@example.test"));
        QVERIFY(m_keychain->contains(app_bundle_identifier(), "ann@example.test"));
        QVERIFY(m_account->isAccountVerified());
        QVERIFY(m_account->isFullVersion());
        QVERIFY(m_account->isCanyon());
        QCOMPARE(m_account->paymentStatus(), QStringLiteral("YEARLY"));
        QCOMPARE(m_account->bandwidthAvailable(), 3000000000LL);
        QCOMPARE(m_account->maxBandwidth(), 5000000000LL);
        QCOMPARE(m_account->twitterID(), QStringLiteral("tw-7"));
        QCOMPARE(m_account->fullRemainingTime().toLongLong(), 86400LL);
        QCOMPARE(m_account->templateTweet(), QStringLiteral("Tweet me"));
        QCOMPARE(m_account->twitterPromoMessage(), QStringLiteral("Now"));
        QVERIFY(m_account->twitterPromoComplete());
        QVERIFY(m_account->twitterPromoEnabled());
        QCOMPARE(m_account->countries(), (QVariantList{QVariantMap{{"id", "1"}, {"code", "US"}},
                                                       QVariantMap{{"id", "3"}, {"code", "DE"}}}));
        QCOMPARE(m_account->currentCountry(), QStringLiteral("US"));
        QCOMPARE(m_account->vpnServers().size(), 1);
        QCOMPARE(m_account->vpnServers().first().toMap().value("host").toString(),
                 QStringLiteral("10.99.0.1"));
        QCOMPARE(m_account->closestServers().toMap().keys(), QStringList{"US"});
        QVERIFY(m_account->vpnToken().isEmpty());
        QCOMPARE(m_account->salePromoImageURL(), QStringLiteral("https://img.test/b@2x.png"));
        QCOMPARE(m_account->salePromoClickURL(), QStringLiteral("https://sale.test"));
        QCOMPARE(m_account->previousUsername(), QStringLiteral("ann@example.test"));
        QVERIFY(!m_account->uuid().isEmpty());

        // The stored fields in the order they were written, other keys left out.
        const QStringList expected =
            QStringLiteral("twitterID accountVerified twitterPromoComplete bandwidthAvailable "
                           "maxBandwidth fullVersion canyon twitterID templateTweet "
                           "twitterPromoEnabled twitterPromoMessage fullRemainingTime "
                           "closestServers paymentStatus vpnServers countries")
                .split(' ');
        QStringList stored;
        for (const QString &key : order) {
            if (expected.contains(key)) {
                stored.append(key);
            }
        }
        QCOMPARE(stored, expected);
        QVERIFY(order.indexOf("username") < order.indexOf("twitterID"));

        // What went out: the stored country's id and the installation id.
        QCOMPARE(lastRegisterParam("deviceId"), m_account->uuid());
        QCOMPARE(lastRegisterParam("country"), QStringLiteral("0"));
        QVERIFY2(!signIn("ann@example.test", "secret"), "second sign-in failed");
        QCOMPARE(lastRegisterParam("country"), QStringLiteral("1"));
    }

    void unconfirmedAddressStillSignsIn()
    {
        putAccount({{"confirmed", false}});
        const HMMaybeError error = signIn("ann@example.test", "secret");
        QVERIFY2(!error, qPrintable(describe(error)));
        QVERIFY(m_account->isLoggedIn());
        QVERIFY(!m_account->isAccountVerified());
        QCOMPARE(m_account->paymentStatus(), QStringLiteral("FREE"));
        // The usage loop waits for a confirmed address.
        m_account->startUpdatingUsage();
        QVERIFY(!m_account->shouldUpdateUsage());
        QCOMPARE(m_clockHolder->pendingTimers(), 0);
    }

    void refusalChangesNothing_data()
    {
        QTest::addColumn<QString>("password");
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("description");
        QTest::newRow("wrong password") << "nope" << QJsonObject() << "Incorrect password";
        QTest::newRow("refusal in the other reply style")
            << "secret"
            << QJsonObject{{"body", "{\"result\":\"FAIL\",\"message\":\"Account suspended\"}"}}
            << "Account suspended";
        QTest::newRow("status of the wrong type")
            << "secret"
            << QJsonObject{{"body", "{\"status\":1,\"message\":[\"x\"],\"dataAllowed\":5}"}} << "";
        QTest::newRow("malformed JSON")
            << "secret" << QJsonObject{{"body", "{\"status\":\"ok\""}}
            << "The data couldn't be read because it isn't in the correct format.";
        QTest::newRow("empty JSON body")
            << "secret" << QJsonObject{{"body", ""}} << "Hollowmere server is acting up";
        QTest::newRow("HTML error page") << "secret"
                                         << QJsonObject{{"status", 502},
                                                        {"contentType", "text/html"},
                                                        {"body", "<p>bad gateway</p>"}}
                                         << "Hollowmere server is acting up";
        QTest::newRow("bare dictionary") << "secret" << QJsonObject{{"body", "{}"}} << "";
    }

    void refusalChangesNothing()
    {
        QFETCH(QString, password);
        QFETCH(QJsonObject, fault);
        QFETCH(QString, description);
        putAccount({{"dataAllowed", 777}});
        QVERIFY(!signIn("ann@example.test", "secret", true));
        m_account->setDidCloseSalePromoView(true);
        const QVariantMap before = m_store->allValues();
        const QString passwordBefore = m_account->password();
        if (!fault.isEmpty()) {
            fault.insert("path", "/core/register");
            m_bed.service.addFault(fault);
        }
        putAccount({{"username", "bob@example.test"}, {"password", "secret"}});
        HMLogCapture log;
        const HMMaybeError error =
            signIn(fault.isEmpty() ? "bob@example.test" : "ann@example.test", password, true);
        QVERIFY(error);
        QCOMPARE(error->localizedDescription(), description);
        QCOMPARE(m_store->allValues(), before);
        QCOMPARE(m_account->password(), passwordBefore);
        QCOMPARE(m_account->username(), QStringLiteral("ann@example.test"));
        QCOMPARE(m_account->bandwidthAvailable(), 777LL);
        m_bed.service.removeAccount("bob@example.test");
    }

    void tokenIsStoredOnlyWhenAskedFor()
    {
        QVERIFY(!signIn("ann@example.test", "secret", true));
        QCOMPARE(m_account->vpnToken(), QStringLiteral("token-1"));
        const int keychainWrites = m_keychain->writeCount();
        m_bed.service.updateAccount(
            {{"username", "ann@example.test"}, {"vpnToken", "token-2"}, {"dataAllowed", 10}});
        QVERIFY(!await([this](auto done) { m_account->loginGetToken(false, done); }));
        QCOMPARE(m_account->vpnToken(), QStringLiteral("token-1"));
        QCOMPARE(m_account->bandwidthAvailable(), 10LL);
        QCOMPARE(lastRegisterParam("getToken"), QStringLiteral("0"));
        QVERIFY(!await([this](auto done) { m_account->loginGetToken(true, done); }));
        QCOMPARE(m_account->vpnToken(), QStringLiteral("token-2"));
        // Renewals keep the password: the keychain item is not rewritten.
        QCOMPARE(m_keychain->writeCount(), keychainWrites);
    }

    void closestIsAppendedOnlyWhenEnabled_data()
    {
        QTest::addColumn<bool>("enabled");
        QTest::addColumn<QJsonArray>("countries");
        QTest::addColumn<QVariantList>("expected");
        const QVariantMap closest{{"id", "-1"}, {"code", "Closest"}};
        const QVariantMap us{{"id", "1"}, {"code", "US"}};
        QTest::newRow("enabled") << true << QJsonArray{QJsonArray{"US", "1"}}
                                 << QVariantList{us, closest};
        QTest::newRow("disabled") << false << QJsonArray{QJsonArray{"US", "1"}} << QVariantList{us};
        QTest::newRow("enabled, empty list") << true << QJsonArray() << QVariantList{closest};
        QTest::newRow("disabled, empty list") << false << QJsonArray() << QVariantList();
    }

    void closestIsAppendedOnlyWhenEnabled()
    {
        QFETCH(bool, enabled);
        QFETCH(QJsonArray, countries);
        QFETCH(QVariantList, expected);
        putAccount({{"countries", countries}});
        m_closestEnabled = enabled;
        QVERIFY(!signIn("ann@example.test", "secret"));
        QCOMPARE(m_account->countries(), expected);
    }

    void legacyTwitterIdIsReplaced_data()
    {
        QTest::addColumn<QJsonObject>("overrides");
        QTest::addColumn<QString>("stored");
        QTest::newRow("legacy spelling only") << QJsonObject{{"twitterID", "legacy"}} << "";
        QTest::newRow("both spellings")
            << QJsonObject{{"twitterID", "legacy"}, {"twitterId", "current"}} << "current";
        QTest::newRow("current spelling only")
            << QJsonObject{{"twitterId", "current"}} << "current";
    }

    void legacyTwitterIdIsReplaced()
    {
        QFETCH(QJsonObject, overrides);
        QFETCH(QString, stored);
        m_account->setUsername("ann@example.test");
        m_account->setTwitterID("before");
        putAccount({{"replyOverrides", overrides}});
        QVERIFY(!signIn("ann@example.test", "secret"));
        QCOMPARE(m_account->twitterID(), stored);
    }

    void bannerAndPromotionFlags()
    {
        putAccount({{"banner", QJsonObject{{"imageUrlRetina", "https://img.test/1.png"},
                                           {"clickLink", "https://sale.test"}}}});
        QVERIFY(!signIn("ann@example.test", "secret"));
        m_account->setDidCloseSalePromoView(true);
        m_account->setDidCloseTwitterPromoView(true);
        // Same user again: the closed flags stay while the banner stays.
        QVERIFY(!signIn("ann@example.test", "secret"));
        QVERIFY(m_account->didCloseSalePromoView());
        QVERIFY(m_account->didCloseTwitterPromoView());
        // No banner: its picture goes and the sale banner may show again.
        putAccount({});
        QVERIFY(!signIn("ann@example.test", "secret"));
        QVERIFY(m_account->salePromoImageURL().isNull());
        QCOMPARE(m_account->salePromoClickURL(), QStringLiteral("https://sale.test"));
        QVERIFY(!m_account->didCloseSalePromoView());
        QVERIFY(m_account->didCloseTwitterPromoView());
        // Another user: both flags are cleared and that user becomes the previous one.
        m_account->setDidCloseSalePromoView(true);
        m_bed.service.putAccount({{"username", "bob@example.test"}, {"password", "pw"}});
        QVERIFY(!signIn("bob@example.test", "pw"));
        QVERIFY(!m_account->didCloseSalePromoView());
        QVERIFY(!m_account->didCloseTwitterPromoView());
        QCOMPARE(m_account->previousUsername(), QStringLiteral("bob@example.test"));
        m_bed.service.removeAccount("bob@example.test");
    }

    void wrongFieldTypesReadAsDefined_data()
    {
        QTest::addColumn<QJsonObject>("overrides");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QVariant>("expected");
        const auto row = [](const char *name, const QJsonObject &overrides, const char *field,
                            const QVariant &expected) {
            QTest::newRow(name) << overrides << QString(field) << expected;
        };
        row("allowance as text", {{"dataAllowed", "1024"}}, "bandwidthAvailable", 1024LL);
        row("allowance as junk text", {{"dataAllowed", "lots"}}, "bandwidthAvailable", 0LL);
        row("allowance as object", {{"dataAllowed", QJsonObject{{"n", 1}}}}, "bandwidthAvailable",
            0LL);
        row("allowance null", {{"dataAllowed", QJsonValue()}}, "bandwidthAvailable", 0LL);
        row("cap as huge number", {{"dataCap", 1e300}}, "maxBandwidth", 0LL);
        row("confirmed as text", {{"emailConfirmed", "true"}}, "accountVerified", true);
        row("paid as number", {{"fullVersion", 1}}, "fullVersion", true);
        row("yearly as list", {{"isYearly", QJsonArray{true}}}, "canyon", false);
        row("twitter id as number", {{"twitterId", 42}}, "twitterID", QString());
        row("payment status as object", {{"paymentStatus", QJsonObject()}}, "paymentStatus",
            QString());
        row("servers as object", {{"vpnServers", QJsonObject{{"host", "x"}}}}, "vpnServers",
            QVariantList());
        row("servers with junk entries",
            {{"vpnServers",
              QJsonArray{"x", QJsonObject{{"host", "10.0.0.9"}, {"port", 443}, {"isUdp", false}}}}},
            "vpnServers",
            QVariantList{QVariantMap{{"host", "10.0.0.9"}, {"port", 443}, {"isUdp", false}}});
        row("countries as object", {{"countryList", QJsonObject{{"US", "1"}}}}, "countries",
            QVariantList());
        row("countries with junk entries",
            {{"countryList",
              QJsonArray{QJsonArray{"US"}, 5, QJsonArray{1, 2}, QJsonArray{"DE", QJsonValue()},
                         QJsonArray{"FR", "4", "extra"}}}},
            "countries", QVariantList{QVariantMap{{"id", "4"}, {"code", "FR"}}});
        row("remaining time null", {{"fullRemainingTime", QJsonValue()}}, "fullRemainingTime",
            QVariant());
        row("remaining time as text", {{"fullRemainingTime", "12 days"}}, "fullRemainingTime",
            QString("12 days"));
        row("closest groups as text", {{"fastestServers", "US"}}, "closestServers", QVariant());
        row("banner as text", {{"bannerDisplay", "x"}}, "salePromoImageURL", QString());
        row("banner fields as numbers",
            {{"bannerDisplay", QJsonObject{{"imageUrlRetina", 1}, {"clickLink", 2}}}},
            "salePromoClickURL", QString());
    }

    void wrongFieldTypesReadAsDefined()
    {
        QFETCH(QJsonObject, overrides);
        QFETCH(QString, field);
        QFETCH(QVariant, expected);
        putAccount({{"replyOverrides", overrides},
                    {"twitterId", "t"},
                    {"banner", QJsonObject{{"imageUrlRetina", "i"}, {"clickLink", "c"}}}});
        const HMMaybeError error = signIn("ann@example.test", "secret", true);
        QVERIFY2(!error, qPrintable(describe(error)));
        QVERIFY(m_account->isLoggedIn());
        const QHash<QString, std::function<QVariant()>> read{
            {"bandwidthAvailable", [this] { return QVariant(m_account->bandwidthAvailable()); }},
            {"maxBandwidth", [this] { return QVariant(m_account->maxBandwidth()); }},
            {"accountVerified", [this] { return QVariant(m_account->isAccountVerified()); }},
            {"fullVersion", [this] { return QVariant(m_account->isFullVersion()); }},
            {"canyon", [this] { return QVariant(m_account->isCanyon()); }},
            {"twitterID", [this] { return QVariant(m_account->twitterID()); }},
            {"paymentStatus", [this] { return QVariant(m_account->paymentStatus()); }},
            {"vpnServers", [this] { return QVariant(m_account->vpnServers()); }},
            {"countries", [this] { return QVariant(m_account->countries()); }},
            {"fullRemainingTime", [this] { return m_account->fullRemainingTime(); }},
            {"closestServers", [this] { return m_account->closestServers(); }},
            {"salePromoImageURL", [this] { return QVariant(m_account->salePromoImageURL()); }},
            {"salePromoClickURL", [this] { return QVariant(m_account->salePromoClickURL()); }},
        };
        QCOMPARE(read.value(field)(), expected);
    }

    void operationsWhileSignedOutAreProgrammingErrors()
    {
        QVERIFY(!m_account->isLoggedIn());
        auto reason = [](const std::function<void()> &call) -> QString {
            try {
                call();
            } catch (const HMException &exception) {
                return exception.name() + "|" + exception.reason();
            }
            return QStringLiteral("no exception");
        };
        QCOMPARE(reason([this] { m_account->loginGetToken(true, nullptr); }),
                 QStringLiteral("HMAssertion|Must be logged in"));
        QCOMPARE(reason([this] { m_account->getTokenWithCompletion([](const QString &) {}); }),
                 QStringLiteral("HMAssertion|Must be logged in"));
        QCOMPARE(reason([this] { m_account->verifyAccountWithCompletion(nullptr); }),
                 QStringLiteral("HMExceptionNotLoggedIn|Must be logged in to verify account"));
        QCOMPARE(reason([this] { m_account->resendVerificationEmailWithCompletion(nullptr); }),
                 QStringLiteral("HMAssertion|Should be logged in to resend email"));
        QCOMPARE(reason([this] { m_account->updateUsage(); }),
                 QStringLiteral("HMAssertion|Should be logged in to update usage"));
        QCOMPARE(reason([this] { m_account->updateTwitterID("1", nullptr); }),
                 QStringLiteral("HMAssertion|Should be logged in to store Twitter ID"));
        QVERIFY(!signIn("ann@example.test", "secret"));
        QCOMPARE(reason([this] { m_account->getTokenWithCompletion(nullptr); }),
                 QStringLiteral("HMAssertion|Must specify non-nil completion"));
        QCOMPARE(m_bed.service.requests().size(), 2); // the health probe and the one sign-in
    }

    void usageLoopRefreshesEveryMinuteUntilTheAccountIsUnknown()
    {
        QVERIFY(!signIn("ann@example.test", "secret"));
        m_account->startUpdatingUsage();
        QVERIFY(m_account->shouldUpdateUsage());
        QTRY_COMPARE(registerCount(), 2);
        QTRY_COMPARE(m_clockHolder->pendingTimers(), 1);
        m_account->startUpdatingUsage(); // already running: nothing more
        m_bed.service.updateAccount({{"username", "ann@example.test"}, {"dataAllowed", 1234}});
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs - 1);
        QCOMPARE(registerCount(), 2);
        m_clockHolder->advance(1);
        QTRY_COMPARE(registerCount(), 3);
        QTRY_COMPARE(m_account->bandwidthAvailable(), 1234LL);
        QTRY_COMPARE(m_clockHolder->pendingTimers(), 1);

        QSignalSpy loggedOut(m_account.get(), &HMAccountManager::loggedInChanged);
        m_bed.service.removeAccount("ann@example.test");
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs);
        QTRY_VERIFY(!m_account->isLoggedIn());
        QVERIFY(!m_account->shouldUpdateUsage());
        QCOMPARE(m_account->previousUsername(), QStringLiteral("ann@example.test"));
        QCOMPARE(m_clockHolder->pendingTimers(), 0);
        m_clockHolder->advance(10 * HMAccountManager::kUsageRefreshIntervalMs);
        QTest::qWait(100);
        QCOMPARE(registerCount(), 4);
    }

    void usageLoopOutlastsOtherFailures()
    {
        QVERIFY(!signIn("ann@example.test", "secret"));
        m_account->startUpdatingUsage();
        QTRY_COMPARE(m_clockHolder->pendingTimers(), 1);
        m_bed.reachable = false;
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs);
        // "No internet connection" arrives before the call returns: the next run is due.
        QCOMPARE(m_clockHolder->pendingTimers(), 1);
        QVERIFY(m_account->isLoggedIn());
        m_bed.reachable = true;
        m_bed.service.addFault({{"path", "/core/register"},
                                {"status", 503},
                                {"contentType", "text/html"},
                                {"body", "busy"},
                                {"times", 1}});
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs);
        QTRY_COMPARE(registerCount(), 3);
        QTRY_COMPARE(m_clockHolder->pendingTimers(), 1);
        QVERIFY(m_account->isLoggedIn());
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs);
        QTRY_COMPARE(registerCount(), 4);
    }

    void stoppedLoopRunsNoMore()
    {
        QVERIFY(!signIn("ann@example.test", "secret"));
        m_account->startUpdatingUsage();
        QTRY_COMPARE(m_clockHolder->pendingTimers(), 1);
        m_account->stopUpdatingUsage();
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs);
        QTest::qWait(100);
        QCOMPARE(registerCount(), 2);
        // Restarted before the old run was due: one loop, not two.
        m_account->startUpdatingUsage();
        QTRY_COMPARE(registerCount(), 3);
        m_account->stopUpdatingUsage();
        m_account->startUpdatingUsage();
        QTRY_COMPARE(registerCount(), 4);
        QTRY_COMPARE(m_clockHolder->pendingTimers(), 1);
        m_clockHolder->advance(HMAccountManager::kUsageRefreshIntervalMs);
        QTRY_COMPARE(registerCount(), 5);
        QTest::qWait(100);
        QCOMPARE(registerCount(), 5);
    }

    void verification()
    {
        putAccount({{"confirmed", false}});
        QVERIFY(!signIn("ann@example.test", "secret"));
        HMMaybeError error =
            await([this](auto done) { m_account->verifyAccountWithCompletion(done); });
        QCOMPARE(describe(error), QStringLiteral("Email has not been confirmed [hmwisp](0)"));
        QVERIFY(
            !await([this](auto done) { m_account->resendVerificationEmailWithCompletion(done); }));
        QCOMPARE(m_bed.service.account("ann@example.test").value("confirmationEmailsSent").toInt(),
                 1);
        m_bed.service.updateAccount({{"username", "ann@example.test"}, {"confirmed", true}});
        error = await([this](auto done) { m_account->verifyAccountWithCompletion(done); });
        QVERIFY2(!error, qPrintable(describe(error)));
        QVERIFY(m_account->isAccountVerified());
    }

    void accountCreation()
    {
        HMMaybeError error = await([this](auto done) {
            m_account->addAccountWithUsername("new@example.test", "pw", "New", "User", done);
        });
        QVERIFY2(!error, qPrintable(describe(error)));
        QVERIFY(m_account->isLoggedIn());
        QCOMPARE(m_account->username(), QStringLiteral("new@example.test"));
        QVERIFY(!m_account->isAccountVerified());
        const QVariantMap before = m_store->allValues();
        HMLogCapture log;
        error = await([this](auto done) {
            m_account->addAccountWithUsername("ann@example.test", "pw", "A", "B", done);
        });
        QCOMPARE(describe(error),
                 QStringLiteral("This email address is already registered [hmwisp](0)"));
        QVERIFY(log.contains("This email address is already registered"));
        QCOMPARE(m_store->allValues(), before);
    }

    void webTokenAndAccountPage()
    {
        QVERIFY(!signIn("ann@example.test", "secret"));
        QString token;
        m_account->getTokenWithCompletion([&token](const QString &value) { token = value; });
        QTRY_VERIFY(!token.isEmpty());
        QCOMPARE(token, latestWebToken());

        QList<QUrl> opened;
        m_api->setURLOpener([&opened](const QUrl &url) {
            opened.append(url);
            return true;
        });
        m_account->openAccountDetailsPage();
        QTRY_COMPARE(opened.size(), 1);
        QCOMPARE(opened.first().toString(QUrl::FullyEncoded),
                 "https://www.hollowmere.test/account?token=" + latestWebToken());

        // Refused: logged, and the completion is never called.
        m_bed.service.updateAccount({{"username", "ann@example.test"}, {"password", "changed"}});
        HMLogCapture log;
        bool called = false;
        m_account->getTokenWithCompletion([&called](const QString &) { called = true; });
        QTRY_VERIFY(log.contains("error: Incorrect password"));
        QVERIFY(!called);
    }

    void twitterIdIsStoredWhenTheServiceTakesIt()
    {
        QVERIFY(!signIn("ann@example.test", "secret"));
        QVERIFY(!await([this](auto done) { m_account->updateTwitterID("9876", done); }));
        QCOMPARE(m_account->twitterID(), QStringLiteral("9876"));
        QCOMPARE(m_bed.service.account("ann@example.test").value("twitterId").toString(),
                 QStringLiteral("9876"));
        m_bed.service.updateAccount({{"username", "ann@example.test"}, {"password", "changed"}});
        const HMMaybeError error =
            await([this](auto done) { m_account->updateTwitterID("1111", done); });
        QCOMPARE(describe(error), QStringLiteral("Incorrect password [hmwisp](0)"));
        QCOMPARE(m_account->twitterID(), QStringLiteral("9876"));
    }

    void vpnConnectedProbeRunsOncePerStart()
    {
        m_account->checkIfVPNConnected();
        m_account->startCheckingVPNConnection();
        QVERIFY(m_account->shouldCheckVPNConnection());
        QTRY_COMPARE(m_bed.service.requestsTo("/core/isVPNConnected").size(), 1);
        const QJsonObject probe =
            m_bed.service.requestsTo("/core/isVPNConnected").first().toObject();
        QCOMPARE(probe.value("listener").toString(), QStringLiteral("api-http"));
        m_account->stopCheckingVPNConnection();
        m_account->checkIfVPNConnected();
        QTest::qWait(200);
        QCOMPARE(m_bed.service.requestsTo("/core/isVPNConnected").size(), 1);
    }
};

QTEST_GUILESS_MAIN(HMAccountLoginTest)
#include "HMAccountLoginTest.moc"
