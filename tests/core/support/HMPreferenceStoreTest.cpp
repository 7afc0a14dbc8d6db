#include "HMPreferenceStore.h"
#include "HMBundleInfo.h"
#include "HMLogCapture.h"
#include "HMPreferences.h"
#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>
#include <memory>

class HMPreferenceStoreTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    void migratesAtStart_data()
    {
        QTest::addColumn<QVariantMap>("before");
        QTest::addColumn<QVariantMap>("after");
        const QString version = app_version();
        QTest::newRow("fresh install turns notifications on")
            << QVariantMap{}
            << QVariantMap{{"notificationsEnabled", true}, {"lastVersionRun", version}};
        QTest::newRow("upgrade keeps the old choice")
            << QVariantMap{{"enabled", false}}
            << QVariantMap{{"notificationsEnabled", false}, {"lastVersionRun", version}};
        QTest::newRow("later start touches only the version")
            << QVariantMap{{"lastVersionRun", "0.9"}, {"enabled", false}}
            << QVariantMap{{"lastVersionRun", version}, {"enabled", false}};
        QTest::newRow("stray false is overridden on a first start")
            << QVariantMap{{"notificationsEnabled", false}}
            << QVariantMap{{"notificationsEnabled", true}, {"lastVersionRun", version}};
    }
    void migratesAtStart()
    {
        QFETCH(QVariantMap, before);
        QFETCH(QVariantMap, after);
        {
            HMPreferenceStore store(storePath());
            for (auto it = before.cbegin(); it != before.cend(); ++it) {
                store.setValue(it.key(), it.value());
            }
            migratePreferencesFromOlderVersions(store);
        }
        // A second store object reads what the first wrote to disk.
        HMPreferenceStore reopened(storePath());
        QCOMPARE(reopened.allValues(), after);
    }
    void typesSurviveRestart()
    {
        const QVariantList servers{
            QVariantMap{{"host", "nl1.example"}, {"port", 443}, {"isUdp", true}}};
        const QByteArray bytes("\x00\xff\x10", 3);
        {
            HMPreferenceStore store(storePath());
            store.setValue(QStringLiteral("username"), QStringLiteral("jo@example.com"));
            store.setValue(QStringLiteral("bandwidthAvailable"), qint64(5368709120));
            store.setValue(QStringLiteral("ratio"), 0.25);
            store.setValue(QStringLiteral("fullVersion"), true);
            store.setValue(QStringLiteral("vpnServers"), servers);
            store.setValue(QStringLiteral("blob"), bytes);
            store.setValue(QStringLiteral("vpnConfigFile"), QStringLiteral("/etc/x.ovpn"));
            store.setValue(QStringLiteral("vpnConfigFile"), QVariant()); // removes the key
        }
        HMPreferenceStore store(storePath());
        QVERIFY(store.contains(QStringLiteral("blob")));
        QVERIFY(!store.contains(QStringLiteral("vpnConfigFile")));
        QCOMPARE(store.value(QStringLiteral("username")).typeId(), int(QMetaType::QString));
        QCOMPARE(store.value(QStringLiteral("bandwidthAvailable")).toLongLong(),
                 qint64(5368709120));
        QVERIFY(store.value(QStringLiteral("bandwidthAvailable")).typeId() != QMetaType::Double);
        QCOMPARE(store.value(QStringLiteral("ratio")).toDouble(), 0.25);
        QCOMPARE(store.value(QStringLiteral("fullVersion")).typeId(), int(QMetaType::Bool));
        QCOMPARE(store.value(QStringLiteral("vpnServers")).toList(), servers);
        QCOMPARE(store.value(QStringLiteral("blob")).toByteArray(), bytes);
    }
    void booleanAndIntegerReadings_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<bool>("asBool");
        QTest::addColumn<qint64>("asInt");
        QTest::newRow("absent") << QVariant() << false << qint64(0);
        QTest::newRow("true") << QVariant(true) << true << qint64(1);
        QTest::newRow("number") << QVariant(qint64(2)) << true << qint64(2);
        QTest::newRow("zero") << QVariant(0) << false << qint64(0);
        QTest::newRow("string YES") << QVariant(QStringLiteral("YES")) << true << qint64(0);
        QTest::newRow("string 12") << QVariant(QStringLiteral("12")) << true << qint64(12);
        QTest::newRow("string no") << QVariant(QStringLiteral("no")) << false << qint64(0);
        QTest::newRow("list") << QVariant(QVariantList{1}) << false << qint64(0);
        QTest::newRow("dictionary") << QVariant(QVariantMap{{"a", 1}}) << false << qint64(0);
    }
    void booleanAndIntegerReadings()
    {
        QFETCH(QVariant, value);
        QFETCH(bool, asBool);
        QFETCH(qint64, asInt);
        QCOMPARE(pref_bool_value(value), asBool);
        QCOMPARE(pref_int_value(value), asInt);
    }
    void concurrentWritersLoseNothing()
    {
        HMPreferenceStore store(storePath());
        constexpr int kWrites = 200;
        auto writer = [&store](const QString &prefix) {
            for (int i = 0; i < kWrites; ++i) {
                store.setValue(prefix + QString::number(i), i);
                QCOMPARE(store.value(prefix + QString::number(i)).toInt(), i);
            }
        };
        std::unique_ptr<QThread> first(QThread::create(writer, QStringLiteral("a")));
        std::unique_ptr<QThread> second(QThread::create(writer, QStringLiteral("b")));
        first->start();
        second->start();
        QVERIFY(first->wait(60000));
        QVERIFY(second->wait(60000));
        HMPreferenceStore reopened(storePath());
        QCOMPARE(reopened.allKeys().size(), 2 * kWrites);
        QCOMPARE(reopened.value(QStringLiteral("a199")).toInt(), 199);
        QCOMPARE(reopened.value(QStringLiteral("b0")).toInt(), 0);
    }
    void damagedFileIsKeptAside_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("not json") << QByteArray("username = jo\n");
        QTest::newRow("truncated") << QByteArray("{\n    \"username\": \"jo@exa");
        QTest::newRow("top level array") << QByteArray("[1, 2, 3]");
        QTest::newRow("binary garbage") << QByteArray("\x00\xff\xfe{", 4);
    }
    void damagedFileIsKeptAside()
    {
        QFETCH(QByteArray, content);
        QVERIFY(HMTestEnvironment::writeFile(storePath(), content));
        HMLogCapture log;
        HMPreferenceStore store(storePath());
        QVERIFY(store.allKeys().isEmpty());
        store.setValue(QStringLiteral("username"), QStringLiteral("new@example.com"));
        store.sync();

        const QStringList copies =
            QDir(m_dir->path()).entryList({QStringLiteral("prefs.json.damaged-*")});
        QCOMPARE(copies.size(), 1);
        QCOMPARE(HMTestEnvironment::readFile(m_dir->filePath(copies.first())), content);
        QVERIFY(log.contains(QStringLiteral("is damaged")));

        // The live file is valid again and holds only the new value.
        const QJsonDocument document =
            QJsonDocument::fromJson(HMTestEnvironment::readFile(storePath()));
        QCOMPARE(document.object().value(QStringLiteral("username")).toString(),
                 QStringLiteral("new@example.com"));
        QCOMPARE(document.object().size(), 1);
    }
    void burstOfChangesIsWrittenOnce()
    {
        HMPreferenceStore store(storePath());
        store.setValue(QStringLiteral("seed"), 1);
        store.sync();
        const QDateTime seeded = QFileInfo(storePath()).lastModified();
        for (int i = 0; i < 16; ++i) {
            store.setValue(QStringLiteral("key%1").arg(i), i);
        }
        // Nothing reached the disk yet; readers of the store already see every value.
        QVERIFY(store.hasPendingWrite());
        QCOMPARE(store.value(QStringLiteral("key15")).toInt(), 15);
        QVERIFY(!HMTestEnvironment::readFile(storePath()).contains("key0"));
        QCOMPARE(QFileInfo(storePath()).lastModified(), seeded);

        QTRY_VERIFY_WITH_TIMEOUT(!store.hasPendingWrite(), 5000);
        const QJsonObject written =
            QJsonDocument::fromJson(HMTestEnvironment::readFile(storePath())).object();
        QCOMPARE(written.size(), 17);
        QCOMPARE(written.value(QStringLiteral("key15")).toInt(), 15);
    }
    void dumpIsReadableJson()
    {
        HMPreferenceStore store(storePath());
        store.setValue(QStringLiteral("wisprouteMode"), 2);
        store.setValue(QStringLiteral("countries"),
                       QVariantList{QVariantMap{{"id", "7"}, {"code", "NL"}}});
        const QString dump = store.dumpText();
        QVERIFY(dump.contains(QStringLiteral("\"wisprouteMode\": 2")));
        QVERIFY(dump.contains(QStringLiteral("\"code\": \"NL\"")));
        QCOMPARE(QJsonDocument::fromJson(dump.toUtf8()).object().size(), 2);
    }
    void sharedAccessorsUseXdgConfigFile()
    {
        set_pref(QStringLiteral("vpnForceTCP"), true);
        QVERIFY(get_pref_bool(QStringLiteral("vpnForceTCP")));
        sync_prefs();
        const QString expected = qEnvironmentVariable("XDG_CONFIG_HOME") +
                                 QStringLiteral("/com.hollowmere.mac.Hollowmere.json");
        QCOMPARE(HMPreferenceStore::defaultFilePath(), expected);
        QVERIFY(HMTestEnvironment::readFile(expected).contains("\"vpnForceTCP\": true"));

        // A default fills only an absent key: a stored false stays.
        set_pref(QStringLiteral("notificationsEnabled"), false);
        set_pref_default(QStringLiteral("notificationsEnabled"), true);
        QCOMPARE(get_pref(QStringLiteral("notificationsEnabled")), QVariant(false));
        set_pref(QStringLiteral("notificationsEnabled"), QVariant());
        set_pref_default(QStringLiteral("notificationsEnabled"), true);
        QCOMPARE(get_pref(QStringLiteral("notificationsEnabled")), QVariant(true));
        // The shared store outlives the test's home folder: leave it nothing to write at exit.
        sync_prefs();
    }

private:
    QString storePath() const { return m_dir->filePath(QStringLiteral("prefs.json")); }

    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
};

QTEST_GUILESS_MAIN(HMPreferenceStoreTest)
#include "HMPreferenceStoreTest.moc"
