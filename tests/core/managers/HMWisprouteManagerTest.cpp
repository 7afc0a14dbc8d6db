#include "HMWisprouteManager.h"
#include "HMDomainListFile.h"
#include "HMLogCapture.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {

using HMTestEnvironment::readFile;
using HMTestEnvironment::writeFile;

} // namespace

class HMWisprouteManagerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    QString m_dataHome;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<HMPreferenceStore> m_store;
    std::unique_ptr<HMWisprouteManager> m_routing;

    QString folder() const { return m_dataHome + QStringLiteral("/Hollowmere"); }
    QString inclusionPath() const
    {
        return HMWisprouteManager::getDomainsFilePathWithExlusion(false);
    }
    QString exclusionPath() const
    {
        return HMWisprouteManager::getDomainsFilePathWithExlusion(true);
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        // Two components with spaces, so every file operation below also runs on such a path.
        m_dataHome = m_home->path() + QStringLiteral("/my data/Application Support");
        qputenv("XDG_DATA_HOME", m_dataHome.toUtf8());
    }

    void init()
    {
        QDir(m_dataHome).removeRecursively();
        m_dir = std::make_unique<QTemporaryDir>();
        m_store =
            std::make_unique<HMPreferenceStore>(m_dir->filePath(QStringLiteral("prefs.json")));
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
    }

    void cleanup()
    {
        m_routing.reset();
        m_store.reset();
    }

    void filePathsLieInTheDataFolder()
    {
        QCOMPARE(inclusionPath(), m_dataHome + QStringLiteral("/Hollowmere/domains.txt"));
        QCOMPARE(exclusionPath(), m_dataHome + QStringLiteral("/Hollowmere/domains_ex.txt"));
        const QString expected =
            m_home->path() +
            QStringLiteral("/\"my data\"/\"Application Support\"/Hollowmere/domains_ex.txt");
        QCOMPARE(HMWisprouteManager::getDomainsFilePathForShellWithExlusion(true), expected);

        // Cached for the life of the process, whatever happens to the environment.
        qputenv("XDG_DATA_HOME", "/elsewhere");
        QCOMPARE(inclusionPath(), m_dataHome + QStringLiteral("/Hollowmere/domains.txt"));
        QCOMPARE(HMWisprouteManager::getDomainsFilePathForShellWithExlusion(true), expected);
        qputenv("XDG_DATA_HOME", m_dataHome.toUtf8());
    }

    void shellPathQuotesOnlyComponentsWithSpaces_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << "/home/ann/.local/share"
                               << "/home/ann/.local/share/Hollowmere/domains.txt";
        QTest::newRow("two with spaces")
            << "/home/Ann Lee/my data/x"
            << "/home/\"Ann Lee\"/\"my data\"/x/Hollowmere/domains.txt";
        QTest::newRow("other characters untouched")
            << "/home/o'neil/$HOME;x"
            << "/home/o'neil/$HOME;x/Hollowmere/domains.txt";
    }

    void shellPathQuotesOnlyComponentsWithSpaces()
    {
        QFETCH(QString, directory);
        QFETCH(QString, expected);
        QCOMPARE(HMDomainListFile::shellPath(directory, {"Hollowmere", "domains.txt"}), expected);
    }

    void loadingKeepsTheFileLiterally_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("two lines")
            << QByteArray("a.test\nb.test\n") << QStringList{"a.test", "b.test"};
        QTest::newRow("blank line, no final newline")
            << QByteArray("a.test\n\nb.test") << QStringList{"a.test", "", "b.test"};
        QTest::newRow("empty") << QByteArray() << QStringList();
        QTest::newRow("only a newline") << QByteArray("\n") << QStringList{""};
        QTest::newRow("two trailing newlines")
            << QByteArray("a.test\n\n") << QStringList{"a.test", ""};
        QTest::newRow("CR LF keeps the CR")
            << QByteArray("a.test\r\nb.test\r\n") << QStringList{"a.test\r", "b.test\r"};
        QTest::newRow("no trimming, no de-duplication")
            << QByteArray(" a.test \na.test\na.test\n")
            << QStringList{" a.test ", "a.test", "a.test"};
        QTest::newRow("UTF-8") << QByteArray("b\xc3\xbc"
                                             "cher.test\n")
                               << QStringList{QStringLiteral("b\u00fccher.test")};
    }

    void loadingKeepsTheFileLiterally()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QStringList, expected);
        QVERIFY(writeFile(exclusionPath(), bytes));
        m_routing->setArrayDomainsExclusion({"stale.test"});
        QVERIFY(m_routing->readDomainsFromFileWithExclusion(true));
        QCOMPARE(m_routing->arrayDomainsExclusion(), expected);
        QVERIFY(m_routing->arrayDomains().isEmpty());
        QVERIFY(QFileInfo(exclusionPath()).isFile());
        QCOMPARE(readFile(exclusionPath()), bytes);
    }

    void savedListReadsBackUnchanged()
    {
        const QStringList domains{"a.test", "", "a.test", "b\r", QStringLiteral("\u00fc.test")};
        m_routing->setArrayDomains(domains);
        QVERIFY(m_routing->saveDomainsInFileWithExclusion(false));
        QCOMPARE(readFile(inclusionPath()), QByteArray("a.test\n\na.test\nb\r\n\xc3\xbc.test\n"));
        // The atomic write leaves no temporary file behind.
        QCOMPARE(QDir(folder()).entryList(QDir::Files), QStringList{"domains.txt"});

        m_routing->setArrayDomains({});
        QVERIFY(m_routing->readDomainsFromFileWithExclusion(false));
        QCOMPARE(m_routing->arrayDomains(), domains);
    }

    void anEmptyListIsNeverSaved()
    {
        QVERIFY(writeFile(inclusionPath(), "last.test\n"));
        QVERIFY(m_routing->readDomainsFromFileWithExclusion(false));
        m_routing->setArrayDomains({});
        QVERIFY(m_routing->saveDomainsInFileWithExclusion(false));
        QCOMPARE(readFile(inclusionPath()), QByteArray("last.test\n"));
    }

    void missingFileIsCreatedEmpty()
    {
        QVERIFY(!QFileInfo::exists(m_dataHome));
        m_routing->setArrayDomains({"old.test"});
        QVERIFY(m_routing->readDomainsFromFileWithExclusion(false));
        QVERIFY(m_routing->arrayDomains().isEmpty());
        QVERIFY(QFileInfo(inclusionPath()).isFile());
        QCOMPARE(QFileInfo(inclusionPath()).size(), 0);
        QVERIFY(!QFileInfo::exists(exclusionPath()));
    }

    void uncreatableFileLeavesTheListAlone()
    {
        // A plain file where the folder should be: nothing can be created inside it.
        QVERIFY(writeFile(folder(), "not a folder"));
        m_routing->setArrayDomains({"old.test"});
        HMLogCapture capture;
        QVERIFY(!m_routing->readDomainsFromFileWithExclusion(false));
        QCOMPARE(m_routing->arrayDomains(), QStringList{"old.test"});
        QVERIFY(capture.contains(inclusionPath()));
        QCOMPARE(readFile(folder()), QByteArray("not a folder"));
    }

    void directoryInPlaceOfTheFile()
    {
        QVERIFY(QDir().mkpath(inclusionPath()));
        QVERIFY(writeFile(inclusionPath() + "/keep.me", "x"));
        m_routing->setArrayDomains({"old.test"});
        HMLogCapture capture;
        QVERIFY(m_routing->readDomainsFromFileWithExclusion(false));
        QVERIFY(m_routing->arrayDomains().isEmpty());
        QVERIFY(capture.contains("directory"));

        capture.clear();
        m_routing->setArrayDomains({"new.test"});
        QVERIFY(!m_routing->saveDomainsInFileWithExclusion(false));
        QVERIFY(capture.contains("Could not write domain list"));

        m_routing->resetWisprouteConfig();
        QCOMPARE(readFile(inclusionPath() + "/keep.me"), QByteArray("x"));
    }

    void invalidUtf8IsSetAsideNotDecoded()
    {
        const QByteArray bytes("good.test\n\xff\xfe bad\n");
        QVERIFY(writeFile(exclusionPath(), bytes));
        HMLogCapture capture;
        QVERIFY(m_routing->readDomainsFromFileWithExclusion(true));
        QVERIFY(m_routing->arrayDomainsExclusion().isEmpty());
        QVERIFY(capture.contains("not UTF-8"));

        const QStringList aside =
            QDir(folder()).entryList({"domains_ex.txt.damaged-*"}, QDir::Files);
        QCOMPARE(aside.size(), 1);
        QCOMPARE(readFile(folder() + "/" + aside.first()), bytes);
        QCOMPARE(QFileInfo(exclusionPath()).size(), 0);

        // Saving a new list now cannot destroy the user's original bytes.
        m_routing->setArrayDomainsExclusion({"new.test"});
        QVERIFY(m_routing->saveDomainsInFileWithExclusion(true));
        QCOMPARE(readFile(folder() + "/" + aside.first()), bytes);
    }

    void modeReadsAsAnInteger_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("enabled");
        QTest::newRow("absent") << QVariant() << 0 << false;
        QTest::newRow("exclusion") << QVariant(1) << 1 << true;
        QTest::newRow("inclusion") << QVariant(2) << 2 << true;
        QTest::newRow("unknown non-zero") << QVariant(3) << 3 << true;
        // Other stored types read as the preference store's integer rule has them.
    }

    void modeReadsAsAnInteger()
    {
        QFETCH(QVariant, stored);
        QFETCH(int, mode);
        QFETCH(bool, enabled);
        m_store->setValue("wisprouteMode", stored);
        QCOMPARE(m_routing->wisprouteMode(), mode);
        QCOMPARE(m_routing->isEnabled(), enabled);
    }

    void setModeStoresANumberAndNotifies()
    {
        QSignalSpy changed(m_routing.get(), &HMWisprouteManager::wisprouteModeChanged);
        QSignalSpy did(m_routing.get(), &HMWisprouteManager::didChangeValueForKey);
        m_routing->setWisprouteMode(2);
        const HMPreferenceStore reread(m_store->filePath());
        QCOMPARE(reread.value("wisprouteMode"), QVariant(qint64(2)));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).toInt(), 2);
        QCOMPARE(did.at(0).at(0).toString(), QStringLiteral("wisprouteMode"));
    }

    void resetTurnsEverythingOff()
    {
        m_routing->setWisprouteMode(1);
        m_routing->setArrayDomains({"a.test"});
        m_routing->setArrayDomainsExclusion({"b.test"});
        QVERIFY(m_routing->saveDomainsInFileWithExclusion(false));
        QVERIFY(m_routing->saveDomainsInFileWithExclusion(true));
        m_routing->resetWisprouteConfig();
        QCOMPARE(m_routing->wisprouteMode(), 0);
        QVERIFY(m_routing->arrayDomains().isEmpty());
        QVERIFY(m_routing->arrayDomainsExclusion().isEmpty());
        QVERIFY(!QFileInfo::exists(inclusionPath()));
        QVERIFY(!QFileInfo::exists(exclusionPath()));
    }
};

QTEST_GUILESS_MAIN(HMWisprouteManagerTest)
#include "HMWisprouteManagerTest.moc"
