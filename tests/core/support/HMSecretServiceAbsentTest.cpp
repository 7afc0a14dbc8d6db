#include "HMAccountManager.h"
#include "HMLogCapture.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMSecretServiceKeychain.h"
#include "HMTestEnvironment.h"

#include <QTemporaryDir>
#include <QtTest>
#include <memory>

// Runs twice: on a bus where no Secret Service exists, and with no session bus at all.
class HMSecretServiceAbsentTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    HMSecretServiceKeychain m_keychain;

private Q_SLOTS:
    void initTestCase()
    {
        const QString mode = qEnvironmentVariable("HM_SECRET_SERVICE");
        if (mode != QLatin1String("none") && mode != QLatin1String("no-bus")) {
            QSKIP("needs a session without a Secret Service: run through "
                  "tests/support/with-secret-service.sh --none or --no-bus (ctest does)");
        }
        m_home = HMTestEnvironment::isolateUserDirectories();
    }

    void everyOperationFailsWithAReason()
    {
        HMMaybeError error;
        QVERIFY(m_keychain.passwordForService("svc", "ann@example.test", &error).isNull());
        QVERIFY(error);
        QVERIFY(!error->localizedDescription().isEmpty());

        error.reset();
        QVERIFY(!m_keychain.setPassword("pw", "svc", "ann@example.test", &error));
        QVERIFY(error);

        error.reset();
        QVERIFY(!m_keychain.deletePassword("svc", "ann@example.test", &error));
        QVERIFY(error);
    }

    void accountReadsAsSignedOutAndKeepsWorking()
    {
        QTemporaryDir dir;
        HMPreferenceStore store(dir.filePath("prefs.json"));
        HMNotificationCenter center;
        int loggedOut = 0;
        center.addObserverForName(HMAccountManager::kDidLogOutNotification,
                                  [&loggedOut] { ++loggedOut; });
        store.setValue("username", "ann@example.test");

        HMLogCapture capture;
        HMAccountManager account(store, m_keychain, nullptr, center);
        QVERIFY(!account.isLoggedIn());
        QVERIFY(account.password().isEmpty());
        QVERIFY(capture.contains("[E]"));
        QVERIFY(capture.contains("Keychain read failed"));

        capture.clear();
        account.logout();
        QVERIFY(capture.contains("Keychain delete failed"));
        QCOMPARE(loggedOut, 1);
        QCOMPARE(account.previousUsername(), QStringLiteral("ann@example.test"));
        QVERIFY(account.username().isNull());
    }
};

QTEST_GUILESS_MAIN(HMSecretServiceAbsentTest)
#include "HMSecretServiceAbsentTest.moc"
