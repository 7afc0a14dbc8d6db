#include "HMAccountManager.h"
#include "HMBundleInfo.h"
#include "HMKeyChangeLog.h"
#include "HMLogCapture.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <functional>
#include <memory>

namespace {

QVariantMap country(const QVariant &id, const QString &code)
{
    return QVariantMap{{QStringLiteral("id"), id}, {QStringLiteral("code"), code}};
}

#define HM_READER(key, getter)                                                                     \
    {                                                                                              \
        key, [](HMAccountManager &m) { return QVariant(m.getter()); }                              \
    }

// How each account key reads back, by the name of its stored key.
QVariant readKey(HMAccountManager &a, const QString &key)
{
    static const QHash<QString, std::function<QVariant(HMAccountManager &)>> readers = {
        HM_READER("username", username),
        HM_READER("previousUsername", previousUsername),
        HM_READER("twitterID", twitterID),
        HM_READER("vpnToken", vpnToken),
        HM_READER("currentCountry", currentCountry),
        HM_READER("twitterPromoMessage", twitterPromoMessage),
        HM_READER("templateTweet", templateTweet),
        HM_READER("salePromoImageURL", salePromoImageURL),
        HM_READER("salePromoClickURL", salePromoClickURL),
        HM_READER("accountVerified", isAccountVerified),
        HM_READER("fullVersion", isFullVersion),
        HM_READER("canyon", isCanyon),
        HM_READER("shouldReconnect", shouldReconnect),
        HM_READER("twitterPromoComplete", twitterPromoComplete),
        HM_READER("twitterPromoEnabled", twitterPromoEnabled),
        HM_READER("didCloseTwitterView", didCloseTwitterPromoView),
        HM_READER("didCloseSalePromoView", didCloseSalePromoView),
        HM_READER("bandwidthAvailable", bandwidthAvailable),
        HM_READER("maxBandwidth", maxBandwidth),
        HM_READER("vpnServers", vpnServers),
        HM_READER("countries", countries),
    };
    return readers.value(key)(a);
}

} // namespace

class HMAccountManagerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<HMPreferenceStore> m_store;
    std::unique_ptr<HMMemoryKeychain> m_keychain;
    std::unique_ptr<HMNotificationCenter> m_center;
    std::unique_ptr<HMWisprouteManager> m_routing;
    std::unique_ptr<HMAccountManager> m_account;

    QString storePath() const { return m_dir->filePath(QStringLiteral("prefs.json")); }
    void makeAccount()
    {
        m_account.reset();
        m_account =
            std::make_unique<HMAccountManager>(*m_store, *m_keychain, m_routing.get(), *m_center);
    }
    void signIn(const QString &user, const QString &password)
    {
        m_account->setUsername(user);
        m_account->setPassword(password);
    }

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_store = std::make_unique<HMPreferenceStore>(storePath());
        m_keychain = std::make_unique<HMMemoryKeychain>();
        m_center = std::make_unique<HMNotificationCenter>();
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
        makeAccount();
    }

    void cleanup()
    {
        m_account.reset();
        m_routing.reset();
        m_store.reset();
    }

    // Values must come back with their types from the file, not only from memory.
    void settersSurviveARestart()
    {
        const qint64 allowance = 5LL * 1024 * 1024 * 1024 * 1024; // beyond 32 bits
        const QVariantList servers{
            QVariantMap{{"host", "nl1.example.test"}, {"port", 443}, {"isUdp", true}}};
        m_account->setBandwidthAvailable(allowance);
        m_account->setFullVersion(true);
        m_account->setCanyon(false);
        m_account->setVpnServers(servers);
        m_account->setDidCloseTwitterPromoView(true);
        m_account->synchronize();

        m_account.reset();
        m_store = std::make_unique<HMPreferenceStore>(storePath());
        makeAccount();
        QCOMPARE(m_account->bandwidthAvailable(), allowance);
        QVERIFY(m_account->isFullVersion());
        QCOMPARE(m_store->value("canyon").typeId(), QMetaType::Bool);
        QVERIFY(!m_account->isCanyon());
        QCOMPARE(m_account->vpnServers(), servers);
        // The promotional key has always been spelled without "Promo".
        QCOMPARE(m_store->value("didCloseTwitterView"), QVariant(true));
        QVERIFY(!m_store->contains("didCloseTwitterPromoView"));
    }

    void absentOrWrongTypedValueReadsAsNothing_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QVariant>("expected");
        const QVariant list = QVariantList{1, 2};
        const QVariant map = QVariantMap{{"a", 1}};
        const QVariant noText = QVariant(QString());
        for (const char *key :
             {"username", "previousUsername", "twitterID", "vpnToken", "currentCountry",
              "twitterPromoMessage", "templateTweet", "salePromoImageURL", "salePromoClickURL"}) {
            QTest::addRow("%s absent", key) << key << QVariant() << noText;
            QTest::addRow("%s list", key) << key << list << noText;
            QTest::addRow("%s number", key) << key << QVariant(42) << noText;
        }
        for (const char *key :
             {"accountVerified", "fullVersion", "canyon", "shouldReconnect", "twitterPromoComplete",
              "twitterPromoEnabled", "didCloseTwitterView", "didCloseSalePromoView"}) {
            QTest::addRow("%s absent", key) << key << QVariant() << QVariant(false);
            QTest::addRow("%s word", key) << key << QVariant("maybe") << QVariant(false);
            QTest::addRow("%s list", key) << key << list << QVariant(false);
            QTest::addRow("%s map", key) << key << map << QVariant(false);
        }
        for (const char *key : {"bandwidthAvailable", "maxBandwidth"}) {
            QTest::addRow("%s absent", key) << key << QVariant() << QVariant(qint64(0));
            QTest::addRow("%s word", key) << key << QVariant("lots") << QVariant(qint64(0));
            QTest::addRow("%s list", key) << key << list << QVariant(qint64(0));
            QTest::addRow("%s numeric text", key)
                << key << QVariant("1024") << QVariant(qint64(1024));
        }
        for (const char *key : {"vpnServers", "countries"}) {
            QTest::addRow("%s absent", key) << key << QVariant() << QVariant(QVariantList());
            QTest::addRow("%s text", key) << key << QVariant("US") << QVariant(QVariantList());
            QTest::addRow("%s map", key) << key << map << QVariant(QVariantList());
            QTest::addRow("%s non-records", key)
                << key << QVariant(QVariantList{"x", 3, map}) << QVariant(QVariantList{map});
        }
    }

    void absentOrWrongTypedValueReadsAsNothing()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, stored);
        QFETCH(QVariant, expected);
        m_store->setValue(key, stored);
        const QVariant before = m_store->value(key);

        QCOMPARE(readKey(*m_account, key), expected);
        QCOMPARE(readKey(*m_account, key), expected);
        if (!stored.isValid() && expected.typeId() == QMetaType::QString) {
            QVERIFY(readKey(*m_account, key).toString().isNull()); // absent, not empty
        }
        // Nothing is rewritten behind the user's back.
        QCOMPARE(m_store->value(key), before);
        QVERIFY(!m_account->isLoggedIn());
    }

    void wrongTypeIsLoggedOncePerKey()
    {
        HMLogCapture capture;
        m_store->setValue("vpnToken", QVariantList{"a"});
        m_account->vpnToken();
        m_account->vpnToken();
        int lines = 0;
        for (const QString &line : capture.lines()) {
            lines += line.contains("\"vpnToken\"") ? 1 : 0;
        }
        QCOMPARE(lines, 1);
    }

    void uuidIsGeneratedOnceAndStored()
    {
        const QString first = m_account->uuid();
        QVERIFY(QUuid::fromString(first).isNull() == false);
        QCOMPARE(m_store->value("uuid").toString(), first);
        QCOMPARE(m_account->uuid(), first);

        m_store->setValue("uuid", 12345); // unusable: replaced by a fresh one
        const QString second = m_account->uuid();
        QVERIFY(second != first && !QUuid::fromString(second).isNull());
    }

    void currentCountryAndCode_data()
    {
        QTest::addColumn<QVariantList>("countries");
        QTest::addColumn<QString>("chosen");
        QTest::addColumn<QString>("current");
        QTest::addColumn<QString>("code");
        const QVariantList list{country("3", "US"), country(7, "DE"), country("-1", "Closest")};
        QTest::newRow("nothing chosen: first record") << list << QString() << "US"
                                                      << "3";
        QTest::newRow("chosen") << list << "DE"
                                << "DE"
                                << "7";
        QTest::newRow("closest") << list << "Closest"
                                 << "Closest"
                                 << "-1";
        QTest::newRow("gone from the list") << list << "FR"
                                            << "FR"
                                            << "0";
        QTest::newRow("no list") << QVariantList() << QString() << QString() << "0";
    }

    void currentCountryAndCode()
    {
        QFETCH(QVariantList, countries);
        QFETCH(QString, chosen);
        QFETCH(QString, current);
        QFETCH(QString, code);
        m_account->setCountries(countries);
        m_account->setCurrentCountry(chosen);
        QCOMPARE(m_account->currentCountry(), current);
        QCOMPARE(m_account->currentCountryCode(), code);
    }

    void setCountriesAnnouncesCountryOnlyForTheFirstList()
    {
        HMKeyChangeLog<HMAccountManager> log(*m_account);
        QSignalSpy current(m_account.get(), &HMAccountManager::currentCountryChanged);
        QSignalSpy code(m_account.get(), &HMAccountManager::currentCountryCodeChanged);

        m_account->setCountries({country("3", "US")});
        QCOMPARE(log.entries,
                 QStringList({"will:countries", "will:currentCountry", "will:currentCountryCode",
                              "did:currentCountryCode", "did:currentCountry", "did:countries"}));
        QCOMPARE(current.count(), 1);
        QCOMPARE(current.at(0).at(0).toString(), QStringLiteral("US"));
        QCOMPARE(code.at(0).at(0).toString(), QStringLiteral("3"));

        log.entries.clear();
        m_account->setCountries({country("4", "DE")});
        QCOMPARE(log.entries, QStringList({"will:countries", "did:countries"}));
        QCOMPARE(current.count(), 1);
    }

    void setCurrentCountryAnnouncesTheCode()
    {
        m_account->setCountries({country("3", "US"), country("4", "DE")});
        HMKeyChangeLog<HMAccountManager> log(*m_account);
        QSignalSpy code(m_account.get(), &HMAccountManager::currentCountryCodeChanged);
        m_account->setCurrentCountry("DE");
        QCOMPARE(log.entries, QStringList({"will:currentCountry", "will:currentCountryCode",
                                           "did:currentCountryCode", "did:currentCountry"}));
        QCOMPARE(code.count(), 1);
        QCOMPARE(code.at(0).at(0).toString(), QStringLiteral("4"));
    }

    void observableSettersNotifyWithNewValue()
    {
        QSignalSpy bandwidth(m_account.get(), &HMAccountManager::bandwidthAvailableChanged);
        QSignalSpy full(m_account.get(), &HMAccountManager::fullVersionChanged);
        QSignalSpy canyon(m_account.get(), &HMAccountManager::canyonChanged);
        m_account->setBandwidthAvailable(77);
        m_account->setFullVersion(true);
        m_account->setCanyon(true);
        QCOMPARE(bandwidth.count(), 1);
        QCOMPARE(bandwidth.at(0).at(0).toLongLong(), 77);
        QCOMPARE(full.at(0).at(0).toBool(), true);
        QCOMPARE(canyon.at(0).at(0).toBool(), true);
    }

    void passwordIsCachedEvenWhenAbsent()
    {
        m_account->setUsername("ann@example.test");
        QVERIFY(!m_account->isLoggedIn());
        QVERIFY(!m_account->isLoggedIn());
        QCOMPARE(m_keychain->readCount(), 1);

        // Another process stores a password: this one keeps what it found.
        m_keychain->setPassword("secret", app_bundle_identifier(), "ann@example.test");
        QVERIFY(!m_account->isLoggedIn());
        makeAccount();
        QVERIFY(m_account->isLoggedIn());
    }

    void setPasswordUsesTheUserNameAndAnnouncesLoggedIn()
    {
        m_account->setUsername("ann@example.test");
        HMKeyChangeLog<HMAccountManager> log(*m_account);
        QSignalSpy loggedIn(m_account.get(), &HMAccountManager::loggedInChanged);
        m_account->setPassword("secret");
        QCOMPARE(log.entries,
                 QStringList({"will:password", "will:loggedIn", "did:loggedIn", "did:password"}));
        QCOMPARE(loggedIn.count(), 1);
        QCOMPARE(loggedIn.at(0).at(0).toBool(), true);
        QCOMPARE(m_keychain->passwordForService(app_bundle_identifier(), "ann@example.test"),
                 QStringLiteral("secret"));
    }

    void keychainFailureIsLoggedAndReadsAsSignedOut()
    {
        HMLogCapture capture;
        m_keychain->setFailure(
            HMError::errorWithDomain("secret-service", 2, "The collection is locked"));
        m_account->setUsername("ann@example.test");
        QVERIFY(!m_account->isLoggedIn());
        QVERIFY(capture.contains("[E]"));
        QVERIFY(capture.contains("The collection is locked"));

        // A failed write still signs the user in for this session, as the cached password
        // is what the tunnel uses.
        capture.clear();
        m_account->setPassword("secret");
        QVERIFY(capture.contains("Keychain write failed"));
        QVERIFY(m_account->isLoggedIn());
    }

    void logoutClearsExactlyTheSignInFields()
    {
        signIn("ann@example.test", "secret");
        m_account->setTwitterID("t1");
        m_account->setFullRemainingTime(30);
        m_account->setAccountVerified(true);
        m_account->setTwitterPromoComplete(true);
        m_account->setFullVersion(true);
        m_account->setBandwidthAvailable(1000);
        m_account->setCanyon(true);
        m_account->setMaxBandwidth(5000);
        m_account->setVpnToken("tok");
        m_account->setCountries({country("3", "US")});
        m_account->setCurrentCountry("US");
        m_account->setShouldUpdateUsage(true);
        const QString uuid = m_account->uuid();
        m_routing->setWisprouteMode(2);
        m_routing->setArrayDomains({"a.test"});
        QVERIFY(m_routing->saveDomainsInFileWithExclusion(false));

        int posted = 0;
        m_center->addObserverForName(HMAccountManager::kDidLogOutNotification,
                                     [&posted] { ++posted; });
        HMKeyChangeLog<HMAccountManager> log(*m_account);
        QSignalSpy loggedIn(m_account.get(), &HMAccountManager::loggedInChanged);
        QSignalSpy full(m_account.get(), &HMAccountManager::fullVersionChanged);
        QSignalSpy bandwidth(m_account.get(), &HMAccountManager::bandwidthAvailableChanged);

        m_account->logout();

        QCOMPARE(posted, 1);
        QCOMPARE(log.entries.constFirst(), QStringLiteral("will:shouldUpdateUsage"));
        QCOMPARE(log.entries.at(2), QStringLiteral("will:loggedIn"));
        QCOMPARE(log.entries.constLast(), QStringLiteral("did:loggedIn"));
        QCOMPARE(loggedIn.count(), 1);
        QCOMPARE(loggedIn.at(0).at(0).toBool(), false);
        QCOMPARE(full.count(), 1);
        QCOMPARE(bandwidth.count(), 1);
        QVERIFY(!m_account->shouldUpdateUsage());

        QVERIFY(!m_keychain->contains(app_bundle_identifier(), "ann@example.test"));
        QCOMPARE(m_account->previousUsername(), QStringLiteral("ann@example.test"));
        for (const char *gone : {"username", "twitterID", "fullRemainingTime"}) {
            QVERIFY2(!m_store->contains(gone), gone);
        }
        QCOMPARE(m_store->value("accountVerified"), QVariant(false));
        QCOMPARE(m_store->value("twitterPromoComplete"), QVariant(false));
        QCOMPARE(m_store->value("fullVersion"), QVariant(false));
        QCOMPARE(m_account->bandwidthAvailable(), 0);
        QVERIFY(!m_account->isLoggedIn());

        QVERIFY(m_account->isCanyon());
        QCOMPARE(m_account->maxBandwidth(), 5000);
        QCOMPARE(m_account->vpnToken(), QStringLiteral("tok"));
        QCOMPARE(m_account->currentCountry(), QStringLiteral("US"));
        QCOMPARE(m_account->countries().size(), 1);
        QCOMPARE(m_account->uuid(), uuid);
        QCOMPARE(m_account->password(), QStringLiteral("secret"));

        QCOMPARE(m_routing->wisprouteMode(), 0);
        QVERIFY(m_routing->arrayDomains().isEmpty());
        QVERIFY(!QFile::exists(HMWisprouteManager::getDomainsFilePathWithExlusion(false)));
    }

    void paidUnlessFree_data()
    {
        QTest::addColumn<QString>("status");
        QTest::addColumn<bool>("paid");
        QTest::newRow("unknown") << QString() << true;
        QTest::newRow("free") << "FREE" << false;
        QTest::newRow("lower-case free") << "free" << true;
        QTest::newRow("paid") << "PAID" << true;
    }

    void paidUnlessFree()
    {
        QFETCH(QString, status);
        QFETCH(bool, paid);
        m_account->setPaymentStatus(status);
        QCOMPARE(m_account->isPaidUser(), paid);
    }

    void descriptionHasTenEntriesWithThePassword()
    {
        signIn("ann@example.test", "secret");
        const QVariantMap entries = m_account->descriptionDictionary();
        QCOMPARE(entries.size(), 10);
        QCOMPARE(entries.value("password").toString(), QStringLiteral("secret"));
        QCOMPARE(entries.value("twitterID").toString(), QStringLiteral(""));
        QCOMPARE(entries.value("loggedIn").toBool(), true);
        QVERIFY(m_account->description().contains("\"paymentStatus\""));
    }
};

QTEST_GUILESS_MAIN(HMAccountManagerTest)
#include "HMAccountManagerTest.moc"
