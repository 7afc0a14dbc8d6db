#include "HMAccountManager.h"
#include "HMLogCapture.h"
#include "HMNotificationCenter.h"
#include "HMPreferenceStore.h"
#include "HMSecretServiceKeychain.h"
#include "HMSecretServicePrompt.h"
#include "HMTestEnvironment.h"

#include <QDBusConnection>
#include <QDBusVariant>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>
#include <future>
#include <memory>

// A Secret Service prompt waiting for a person who never answers: only Dismiss ends it.
class WaitingPrompt : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Secret.Prompt")
public:
    std::atomic<bool> started{false};

public Q_SLOTS:
    void Prompt(const QString &) { started = true; }
    void Dismiss() { Q_EMIT Completed(true, QDBusVariant(QString())); }

Q_SIGNALS:
    void Completed(bool dismissed, const QDBusVariant &result);
};

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
        HMMaybeError read, stored, deleted;
        QVERIFY(m_keychain.passwordForService("svc", "ann@example.test", &read).isNull());
        QVERIFY(!m_keychain.setPassword("pw", "svc", "ann@example.test", &stored));
        QVERIFY(!m_keychain.deletePassword("svc", "ann@example.test", &deleted));
        for (const HMMaybeError &error : {read, stored, deleted}) {
            QVERIFY(error && !error->localizedDescription().isEmpty());
        }
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

    // At quit, a read waiting on the keyring's prompt is let go at once, not after the
    // minutes a person is given to answer.
    void quitDismissesAPromptStillWaiting()
    {
        if (qEnvironmentVariable("HM_SECRET_SERVICE") == QLatin1String("no-bus")) {
            QSKIP("plays the Secret Service on the session bus");
        }
        const QString path = QStringLiteral("/org/freedesktop/secrets/prompt/p1");
        QThread serving; // the played service answers on a thread of its own
        serving.start();
        // A check that fails returns early: the thread must still end before it is destroyed.
        const auto stopServing = qScopeGuard([&serving] {
            QDBusConnection::disconnectFromBus("played-secret-service");
            serving.quit();
            serving.wait();
        });
        auto *prompt = new WaitingPrompt;
        prompt->moveToThread(&serving);
        QObject::connect(&serving, &QThread::finished, prompt, &QObject::deleteLater);
        // Registered from the serving thread: an object is exported where it lives.
        bool registered = false;
        QMetaObject::invokeMethod(
            prompt,
            [&] {
                QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                                                    "played-secret-service");
                registered = bus.registerService("org.freedesktop.secrets") &&
                             bus.registerObject(path, prompt,
                                                QDBusConnection::ExportAllSlots |
                                                    QDBusConnection::ExportAllSignals);
            },
            Qt::BlockingQueuedConnection);
        QVERIFY(registered);

        auto waiting = std::async(std::launch::async, [&path] {
            HMMaybeError error;
            return HMSecretServicePrompt::run(QDBusObjectPath(path), std::chrono::seconds(30),
                                              &error);
        });
        // Runs before the future's destructor, which would wait out the 30 s otherwise.
        const auto letGo = qScopeGuard([] { HMSecretServicePrompt::dismissAll(); });
        QTRY_VERIFY(prompt->started);
        HMSecretServicePrompt::dismissAll();
        QTRY_VERIFY(waiting.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
        QVERIFY(!waiting.get());
    }
};

QTEST_GUILESS_MAIN(HMSecretServiceAbsentTest)
#include "HMSecretServiceAbsentTest.moc"
