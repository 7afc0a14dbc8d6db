#include "HMVPNAccountAdapter.h"
#include "HMAccountManager.h"
#include "HMMemoryKeychain.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"

#include <QSignalSpy>
#include <QTest>

// The VPN manager reacts to old and new values; the account manager announces only new
// ones. These cases check that the pairing is right for every way the values change.
class HMVPNAccountAdapterTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMPreferenceStore> m_store;
    HMMemoryKeychain m_keychain;
    HMNotificationCenter m_center;
    std::unique_ptr<HMAccountManager> m_account;
    std::unique_ptr<HMVPNAccountAdapter> m_adapter;

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        static int round = 0;
        m_store = std::make_unique<HMPreferenceStore>(
            m_home->filePath(QStringLiteral("prefs%1.json").arg(++round)));
        m_account = std::make_unique<HMAccountManager>(*m_store, m_keychain, nullptr, m_center);
        m_adapter = std::make_unique<HMVPNAccountAdapter>(*m_account);
    }

    void cleanup()
    {
        m_adapter.reset();
        m_account.reset();
        m_store.reset();
    }

    void countryChangePairsOldAndNew()
    {
        QSignalSpy spy(m_adapter.get(), &HMVPNAccountSource::currentCountryChanged);
        // The first list announces the country derived from it, its first record's code.
        m_account->setCountries(
            {QVariantMap{{"id", "1"}, {"code", "US"}}, QVariantMap{{"id", "3"}, {"code", "DE"}}});
        m_account->setCurrentCountry(QStringLiteral("DE"));
        m_account->setCurrentCountry(QStringLiteral("DE"));
        QCOMPARE(spy.size(), 3);
        QCOMPARE(spy.at(0), (QVariantList{QString(), "US"}));
        QCOMPARE(spy.at(1), (QVariantList{"US", "DE"}));
        QCOMPARE(spy.at(2), (QVariantList{"DE", "DE"}));
    }

    void signInAndOutPairOldAndNew()
    {
        QSignalSpy spy(m_adapter.get(), &HMVPNAccountSource::loggedInChanged);
        m_account->setUsername(QStringLiteral("ann@example.test"));
        m_account->setPassword(QStringLiteral("secret"));
        QVERIFY(m_adapter->isLoggedIn());
        m_account->logout();
        QCOMPARE(spy.size(), 2);
        QCOMPARE(spy.at(0), (QVariantList{false, true}));
        QCOMPARE(spy.at(1), (QVariantList{true, false}));
    }

    void allowancePassesTheNewValue()
    {
        QSignalSpy spy(m_adapter.get(), &HMVPNAccountSource::bandwidthAvailableChanged);
        m_account->setBandwidthAvailable(123456789);
        QCOMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(0).toLongLong(), 123456789);
        QCOMPARE(m_adapter->bandwidthAvailable(), 123456789);
    }

    void signedOutTokenRefreshFailsInsteadOfThrowing()
    {
        HMMaybeError received;
        bool called = false;
        m_adapter->loginGetToken(true, [&](const HMMaybeError &error) {
            received = error;
            called = true;
        });
        QVERIFY(!called); // like every answer, it arrives on a later turn
        QTRY_VERIFY(called);
        QCOMPARE(received->localizedDescription(), QStringLiteral("Must be logged in"));
    }
};

QTEST_GUILESS_MAIN(HMVPNAccountAdapterTest)
#include "HMVPNAccountAdapterTest.moc"
