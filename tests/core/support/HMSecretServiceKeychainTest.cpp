#include "HMSecretServiceKeychain.h"
#include "HMAccountManager.h"
#include "HMBundleInfo.h"
#include "HMLogCapture.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMSecretServiceSession.h"
#include "HMTestEnvironment.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

using StringMap = QMap<QString, QString>;

namespace {

const QString kService = QStringLiteral("com.hollowmere.mac.Hollowmere");

// Talks to the Secret Service directly, to see what the keychain class really left there.
class SecretServiceProbe
{
public:
    SecretServiceProbe()
        : m_service(QStringLiteral("org.freedesktop.secrets"),
                    QStringLiteral("/org/freedesktop/secrets"),
                    QStringLiteral("org.freedesktop.Secret.Service"), QDBusConnection::sessionBus())
    {}

    // Items with exactly these attributes, locked or not.
    int itemCount(const QString &service, const QString &account)
    {
        const StringMap attributes{{QStringLiteral("service"), service},
                                   {QStringLiteral("account"), account}};
        const QDBusMessage reply =
            m_service.call(QStringLiteral("SearchItems"), QVariant::fromValue(attributes));
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
            return -1;
        }
        const auto unlocked = qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(0));
        const auto locked = qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(1));
        return static_cast<int>(unlocked.size() + locked.size());
    }

    bool lockDefaultCollection()
    {
        const QDBusObjectPath collection = defaultAlias();
        return collection.path() != QLatin1String("/") && !collection.path().isEmpty() &&
               m_service
                       .call(QStringLiteral("Lock"),
                             QVariant::fromValue(QList<QDBusObjectPath>{collection}))
                       .type() == QDBusMessage::ReplyMessage;
    }

    // What the login screen does with the password that with-secret-service.sh set.
    bool unlockDefaultCollection()
    {
        qDBusRegisterMetaType<HMServiceSecret>();
        const QDBusMessage session =
            m_service.call(QStringLiteral("OpenSession"), QStringLiteral("plain"),
                           QVariant::fromValue(QDBusVariant(QString())));
        if (session.type() != QDBusMessage::ReplyMessage || session.arguments().size() != 2) {
            return false;
        }
        const HMServiceSecret secret{session.arguments().at(1).value<QDBusObjectPath>(),
                                     {},
                                     QByteArrayLiteral("hollowmere-test"),
                                     QStringLiteral("text/plain")};
        QDBusInterface keyring(
            QStringLiteral("org.freedesktop.secrets"), QStringLiteral("/org/freedesktop/secrets"),
            QStringLiteral("org.gnome.keyring.InternalUnsupportedGuiltRiddenInterface"),
            QDBusConnection::sessionBus());
        const QDBusMessage reply =
            keyring.call(QStringLiteral("UnlockWithMasterPassword"),
                         QVariant::fromValue(defaultAlias()), QVariant::fromValue(secret));
        if (reply.type() != QDBusMessage::ReplyMessage) {
            qWarning("unlock failed: %s", qPrintable(reply.errorMessage()));
        }
        return reply.type() == QDBusMessage::ReplyMessage;
    }

    // As when the desktop has no default keyring yet; `collection` "/" removes the alias.
    bool setDefaultAlias(const QDBusObjectPath &collection)
    {
        return m_service
                   .call(QStringLiteral("SetAlias"), QStringLiteral("default"),
                         QVariant::fromValue(collection))
                   .type() == QDBusMessage::ReplyMessage;
    }

    QDBusObjectPath defaultAlias()
    {
        const QDBusReply<QDBusObjectPath> alias =
            m_service.call(QStringLiteral("ReadAlias"), QStringLiteral("default"));
        return alias.isValid() ? alias.value() : QDBusObjectPath();
    }

private:
    QDBusInterface m_service;
};

} // namespace

class HMSecretServiceKeychainTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    HMSecretServiceKeychain m_keychain;

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariable("HM_SECRET_SERVICE") != QLatin1String("keyring")) {
            QSKIP(
                "needs a private Secret Service: run through tests/support/with-secret-service.sh "
                "(ctest does), never against your own keyring");
        }
        m_home = HMTestEnvironment::isolateUserDirectories();
        qDBusRegisterMetaType<StringMap>();
        qDBusRegisterMetaType<QList<QDBusObjectPath>>();
    }

    // Values from an independent HKDF over the padded DH secret; the second exponent gives
    // a shared secret whose first byte is zero, which must still count as a byte.
    void keyAgreementMatchesAnIndependentDerivation_data()
    {
        const QByteArray prime = QByteArray::fromHex(
            "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22"
            "514A08798E3404DDEF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6"
            "F44C42E9A637ED6B0BFF5CB6F406B7EDEE386BFB5A899FA5AE9F24117C4B1FE649286651ECE65381"
            "FFFFFFFFFFFFFFFF");
        QByteArray primeLessOne = prime;
        primeLessOne.back() = '\xFE';
        const QByteArray peer = QByteArray::fromHex(
            "c02e8fbdf4720638d4bdf19cbe82a7dd38dd71e231be2f4624c3923a72a6252e8746a3844c29014c"
            "b4358c2a67e55a1c1f676096ee6892794d21f9f67b3656ba546cdb61067924e801e5fedca4a0e2ef"
            "2d3185f59238b3c662687d137cf52fe5b41cb689ac48049aa0673439b61962d94407b4ef3b03cd2b"
            "51e05b4e6d170eda");
        QTest::addColumn<QByteArray>("exponent");
        QTest::addColumn<QByteArray>("peer");
        QTest::addColumn<QByteArray>("key");
        QTest::newRow("full-width secret")
            << QByteArray::fromHex("0123456789abcdef") << peer
            << QByteArray::fromHex("e47d5648e3df37a7ee67f43cd3b66627");
        QTest::newRow("secret with a leading zero byte")
            << QByteArray::fromHex("0123456789abcf33") << peer
            << QByteArray::fromHex("b7bd90f6675af4208e4a915bed7ef32d");
        for (const auto &[name, bad] :
             {std::pair{"peer 0", QByteArray(1, '\0')}, std::pair{"peer 1", QByteArray(1, '\1')},
              std::pair{"peer p-1", primeLessOne}, std::pair{"peer p", prime}}) {
            QTest::newRow(name) << QByteArray::fromHex("0123456789abcdef") << bad << QByteArray();
        }
    }

    void keyAgreementMatchesAnIndependentDerivation()
    {
        QFETCH(QByteArray, exponent);
        QFETCH(QByteArray, peer);
        QFETCH(QByteArray, key);
        QCOMPARE(HMSecretServiceSession::agreedKey(exponent, peer).toHex(), key.toHex());
    }

    // The service takes the encrypted algorithm, and a secret that was not made for the
    // session, or whose padding is wrong, is refused rather than read as a password.
    void sessionWithTheServiceIsEncrypted()
    {
        HMMaybeError error;
        const auto session = HMSecretServiceSession::open(&error);
        QVERIFY2(session, error ? qPrintable(error->localizedDescription()) : "");
        QVERIFY(session->isEncrypted());
        for (const QByteArray &plain :
             {QByteArray(), QByteArray("hunter2"), QByteArray(16, 'x'), QByteArray(17, 'y')}) {
            const HMServiceSecret secret = session->encode(plain);
            QVERIFY(secret.value != plain);
            QCOMPARE(session->decode(secret), std::optional<QByteArray>(plain));
        }
        HMServiceSecret tampered = session->encode("hunter2");
        // A fresh IV each time: the same password never encrypts to the same bytes twice.
        QVERIFY(tampered.parameters != session->encode("hunter2").parameters);
        tampered.parameters.back() = char(tampered.parameters.back() ^ 1); // the pad byte
        QVERIFY(!session->decode(tampered));
        HMServiceSecret foreign = session->encode("hunter2");
        foreign.session = QDBusObjectPath(QStringLiteral("/org/freedesktop/secrets/session/x"));
        QVERIFY(!session->decode(foreign));
    }

    // With no keyring at all, storing asks the service to make one; when that prompt is
    // dismissed the store fails with a reason, and nothing waits for the prompt for ever.
    void storingWithoutAKeyringFailsWithAReason()
    {
        SecretServiceProbe probe;
        const QDBusObjectPath keyring = probe.defaultAlias();
        QVERIFY(probe.setDefaultAlias(QDBusObjectPath(QStringLiteral("/"))));
        HMMaybeError error;
        const bool stored =
            m_keychain.setPassword("pw", kService, "nokeyring@example.test", &error);
        QVERIFY(probe.setDefaultAlias(keyring));
        QVERIFY(!stored);
        QVERIFY(error);
        QVERIFY(!error->localizedDescription().isEmpty());
    }

    void storesAndFindsThePassword_data()
    {
        QTest::addColumn<QString>("password");
        QTest::newRow("plain") << "hunter2";
        QTest::newRow("non-ASCII") << QStringLiteral("p\u00e4ss \u00fc\U0001F511");
        QTest::newRow("quotes and spaces") << "a \"b\" 'c' \\ d";
        QTest::newRow("long") << QString(4096, QLatin1Char('x'));
    }

    void storesAndFindsThePassword()
    {
        QFETCH(QString, password);
        HMMaybeError error;
        QVERIFY(m_keychain.setPassword(password, kService, "ann@example.test", &error));
        QVERIFY(!error);
        QCOMPARE(m_keychain.passwordForService(kService, "ann@example.test", &error), password);
        QVERIFY(!error);
    }

    void itemsAreAddressedByServiceAndAccount()
    {
        SecretServiceProbe probe;
        QVERIFY(m_keychain.setPassword("first", kService, "a@example.test"));
        QVERIFY(m_keychain.setPassword("one", kService, "a@example.test")); // replaces it
        QVERIFY(m_keychain.setPassword("two", kService, "b@example.test"));
        QVERIFY(m_keychain.setPassword("three", "other.service", "a@example.test"));
        QCOMPARE(probe.itemCount(kService, "a@example.test"), 1);
        QCOMPARE(m_keychain.passwordForService(kService, "a@example.test"), QStringLiteral("one"));
        QCOMPARE(m_keychain.passwordForService(kService, "b@example.test"), QStringLiteral("two"));
        QCOMPARE(m_keychain.passwordForService("other.service", "a@example.test"),
                 QStringLiteral("three"));

        QVERIFY(m_keychain.deletePassword(kService, "b@example.test"));
        QCOMPARE(probe.itemCount(kService, "b@example.test"), 0);
        QCOMPARE(m_keychain.passwordForService(kService, "a@example.test"), QStringLiteral("one"));
        // A missing item is no error, to read or to delete.
        HMMaybeError error;
        QVERIFY(m_keychain.passwordForService(kService, "b@example.test", &error).isNull());
        QVERIFY(!error);
        QVERIFY(m_keychain.deletePassword(kService, "b@example.test", &error));
        QVERIFY(!error);
    }

    // A read started ahead answers as a direct read would, and never with a password that
    // was replaced or removed after it started.
    void prefetchedReadAnswersAsADirectRead_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<QString>("after"); // what happens between prefetch and read
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *stored, const char *after,
                            const char *expected) {
            QTest::newRow(name) << QString(stored) << QString(after) << QString(expected);
        };
        row("found", "one", "", "one");
        row("missing", "", "", "");
        row("replaced after", "one", "store", "two");
        row("removed after", "one", "delete", "");
        row("other item read first", "one", "other", "one");
    }

    void prefetchedReadAnswersAsADirectRead()
    {
        QFETCH(QString, stored);
        QFETCH(QString, after);
        QFETCH(QString, expected);
        const QString account = QStringLiteral("pre-%1@example.test").arg(QTest::currentDataTag());
        if (!stored.isEmpty()) {
            QVERIFY(m_keychain.setPassword(stored, kService, account));
        }
        QVERIFY(m_keychain.setPassword("other", kService, "someone-else@example.test"));
        m_keychain.prefetchPassword(kService, account);
        if (after == QLatin1String("store")) {
            QVERIFY(m_keychain.setPassword("two", kService, account));
        } else if (after == QLatin1String("delete")) {
            QVERIFY(m_keychain.deletePassword(kService, account));
        } else if (after == QLatin1String("other")) {
            QCOMPARE(m_keychain.passwordForService(kService, "someone-else@example.test"),
                     QStringLiteral("other"));
        }
        // Start-up waits for the read on the event loop: it is told in every case.
        bool told = false;
        m_keychain.whenPrefetched(this, [&told] { told = true; });
        QTRY_VERIFY(told);
        HMMaybeError error;
        QCOMPARE(m_keychain.passwordForService(kService, account, &error), expected);
        QVERIFY(!error);
    }

    // The account over the real store: what one run signs in, the next run finds.
    void signInSurvivesARestartAndLogoutRemovesIt()
    {
        QTemporaryDir dir;
        HMPreferenceStore store(dir.filePath("prefs.json"));
        HMNotificationCenter center;
        {
            HMAccountManager account(store, m_keychain, nullptr, center);
            account.setUsername("carol@example.test");
            account.setPassword("s3cret");
        }
        {
            HMAccountManager account(store, m_keychain, nullptr, center);
            QVERIFY(account.isLoggedIn());
            QCOMPARE(account.password(), QStringLiteral("s3cret"));
            account.logout();
        }
        QVERIFY(
            m_keychain.passwordForService(app_bundle_identifier(), "carol@example.test").isNull());
        HMAccountManager account(store, m_keychain, nullptr, center);
        QVERIFY(!account.isLoggedIn());
    }

    // Leaves the collection locked; the case after it unlocks it again.
    void lockedKeyringIsAnErrorAndReadsAsSignedOut()
    {
        QVERIFY(m_keychain.setPassword("s3cret", app_bundle_identifier(), "dave@example.test"));
        SecretServiceProbe probe;
        QVERIFY(probe.lockDefaultCollection());

        // Read directly and read ahead alike.
        for (bool ahead : {false, true}) {
            if (ahead) {
                m_keychain.prefetchPassword(app_bundle_identifier(), "dave@example.test");
            }
            HMMaybeError error;
            QVERIFY(
                m_keychain.passwordForService(app_bundle_identifier(), "dave@example.test", &error)
                    .isNull());
            QVERIFY2(error, "a locked keyring must not look like a missing password");
            QCOMPARE(error->code(), HMSecretServiceKeychain::kLockedCode);
        }
        QTemporaryDir dir;
        HMPreferenceStore store(dir.filePath("prefs.json"));
        HMNotificationCenter center;
        HMAccountManager account(store, m_keychain, nullptr, center);
        account.setUsername("dave@example.test");
        HMLogCapture capture;
        QVERIFY(!account.isLoggedIn());
        QVERIFY(capture.contains("Keychain read failed"));

        HMMaybeError error;
        QVERIFY(
            !m_keychain.setPassword("new", app_bundle_identifier(), "dave@example.test", &error));
        QVERIFY(error);

        // Signing out cannot remove the item; it says so and the sign-out still completes.
        error.reset();
        QVERIFY(!m_keychain.deletePassword(app_bundle_identifier(), "dave@example.test", &error));
        QVERIFY(error);
        QCOMPARE(error->code(), HMSecretServiceKeychain::kLockedCode);
        capture.clear();
        account.logout();
        QVERIFY(capture.contains("Keychain delete failed"));
        QVERIFY(account.username().isNull());
        QCOMPARE(probe.itemCount(app_bundle_identifier(), "dave@example.test"), 1);
    }

    // Auto-login: the client starts before the keyring is unlocked and reads as signed out;
    // the unlock brings the account back without a restart.
    void unlockedKeyringRestoresTheAccount()
    {
        SecretServiceProbe probe;
        QVERIFY(probe.unlockDefaultCollection());
        QVERIFY(m_keychain.setPassword("s3cret", app_bundle_identifier(), "erin@example.test"));
        QVERIFY(probe.lockDefaultCollection());

        QTemporaryDir dir;
        HMPreferenceStore store(dir.filePath("prefs.json"));
        HMNotificationCenter center;
        HMAccountManager account(store, m_keychain, nullptr, center);
        account.setUsername("erin@example.test");
        QVERIFY(!account.isLoggedIn());
        QSignalSpy loggedIn(&account, &HMAccountManager::loggedInChanged);
        QSignalSpy restored(&account, &HMAccountManager::accountRestoredFromKeychain);

        QVERIFY(probe.unlockDefaultCollection());
        QTRY_COMPARE(restored.size(), 1);
        QVERIFY(account.isLoggedIn());
        QCOMPARE(account.password(), QStringLiteral("s3cret"));
        QVERIFY(loggedIn.contains(QVariantList{true}));

        // Later changes of the keyring (another lock and unlock) bring nothing more.
        QVERIFY(probe.lockDefaultCollection());
        QVERIFY(probe.unlockDefaultCollection());
        QTest::qWait(200);
        QCOMPARE(restored.size(), 1);
    }
};

QTEST_GUILESS_MAIN(HMSecretServiceKeychainTest)
#include "HMSecretServiceKeychainTest.moc"
