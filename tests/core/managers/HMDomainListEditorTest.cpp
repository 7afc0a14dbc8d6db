// The editor on a real routing manager and its files.
#include "HMDomainListEditor.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <optional>

using MaybeText = std::optional<QString>;
Q_DECLARE_METATYPE(MaybeText)

class HMDomainListEditorTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMPreferenceStore> m_store;
    std::unique_ptr<HMWisprouteManager> m_routing;
    std::unique_ptr<HMDomainListEditor> m_editor;
    bool m_connected = false;
    QList<int> m_restarts;

    QByteArray file(bool exclusion) const
    {
        return HMTestEnvironment::readFile(
            HMWisprouteManager::getDomainsFilePathWithExlusion(exclusion));
    }

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        QFile::remove(HMWisprouteManager::getDomainsFilePathWithExlusion(false));
        QFile::remove(HMWisprouteManager::getDomainsFilePathWithExlusion(true));
        m_store = std::make_unique<HMPreferenceStore>(m_home->filePath("prefs.json"));
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
        m_routing->setDnsProxyRestarter(
            [this](int mode, HMWisprouteManager::Completion) { m_restarts << mode; });
        m_connected = false;
        m_restarts.clear();
        m_editor = std::make_unique<HMDomainListEditor>(*m_routing, [this] { return m_connected; });
        m_editor->load();
    }

    void validateDomain_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<MaybeText>("stored");
        QTest::newRow("address with path and query")
            << "https://www.example.co.uk/a/b?x=1" << MaybeText("www.example.co.uk");
        QTest::newRow("query without path") << "example.com?x=/y" << MaybeText("example.com");
        QTest::newRow("upper case kept") << "WWW.Example.COM" << MaybeText("WWW.Example.COM");
        QTest::newRow("blanks kept") << " example.com " << MaybeText(" example.com ");
        QTest::newRow("empty") << "" << MaybeText();
        QTest::newRow("no dot") << "localhost" << MaybeText();
        QTest::newRow("only dot last") << "example." << MaybeText();
        QTest::newRow("only dot first") << ".com" << MaybeText(".com");
        QTest::newRow("prefix before a dotless name") << "http://localhost" << MaybeText();
        QTest::newRow("dot then prefix: tested as typed")
            << "example.http://" << MaybeText("example.");
        QTest::newRow("prefix anywhere") << "a.bhttps://c" << MaybeText("a.bc");
        QTest::newRow("leading slash: empty entry") << "/a.b" << MaybeText("");
        const QString longText = "a." + QString(1200, 'b') + "/tail";
        QTest::newRow("cut only below 1111") << longText << MaybeText(longText);
        QTest::newRow("cut at 1110")
            << "a." + QString(1108, 'b') + "/x" << MaybeText("a." + QString(1108, 'b'));
    }

    void validateDomain()
    {
        QFETCH(QString, typed);
        QFETCH(MaybeText, stored);
        QCOMPARE(HMDomainListEditor::validateDomain(typed), stored);
    }

    void addRefusesSilentlyAndKeepsListsApart()
    {
        QCOMPARE(m_editor->addDomain(false, "https://example.com/x"), std::optional<int>(0));
        QCOMPARE(m_editor->addDomain(false, "example.com"), std::nullopt); // duplicate
        QCOMPARE(m_editor->addDomain(false, "Example.com"), std::optional<int>(1));
        QCOMPARE(m_editor->addDomain(false, "nodot"), std::nullopt);
        QCOMPARE(m_editor->addDomain(true, "example.com"), std::optional<int>(0)); // other list
        QCOMPARE(file(false), QByteArray("example.com\nExample.com\n"));
        QCOMPARE(file(true), QByteArray("example.com\n"));
    }

    void editAndDeleteFollowTheirOwnRules()
    {
        m_editor->addDomain(false, "a.example");
        m_editor->addDomain(false, "b.example");
        QVERIFY(m_editor->editDomain(false, 1, QString("a.example"))); // no duplicate test
        QVERIFY(!m_editor->editDomain(false, 0, QString("nodot")));
        QVERIFY(!m_editor->editDomain(false, 0, 42));
        QVERIFY(!m_editor->editDomain(false, 5, QString("c.example")));
        QCOMPARE(m_editor->list(false), QStringList({"a.example", "a.example"}));
        QCOMPARE(file(false), QByteArray("a.example\na.example\n"));

        QVERIFY(m_editor->deleteDomain(false, 0));
        QCOMPARE(file(false), QByteArray("a.example\n"));
        QVERIFY(!m_editor->deleteDomain(false, 3));
        QVERIFY(m_editor->deleteDomain(false, 0));
        QVERIFY(m_editor->list(false).isEmpty());
    }

    void tagsCrossModesAndRestartOnlyWhileConnected_data()
    {
        QTest::addColumn<int>("tag");
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("connected");
        QTest::newRow("off, connected") << 0 << 0 << true;
        QTest::newRow("inclusion choice stores 2") << 1 << 2 << true;
        QTest::newRow("exclusion choice stores 1") << 2 << 1 << true;
        QTest::newRow("unknown tag stores 1") << 7 << 1 << false;
        QTest::newRow("inclusion, disconnected") << 1 << 2 << false;
    }

    void tagsCrossModesAndRestartOnlyWhileConnected()
    {
        QFETCH(int, tag);
        QFETCH(int, mode);
        QFETCH(bool, connected);
        m_connected = connected;
        m_editor->chooseTag(tag);
        QCOMPARE(m_routing->wisprouteMode(), mode);
        QCOMPARE(m_restarts, connected ? QList<int>{mode} : QList<int>{});
        if (tag <= 2) {
            QCOMPARE(HMDomainListEditor::tagForMode(mode), std::optional<int>(tag));
        }
        QCOMPARE(HMDomainListEditor::tagForMode(3), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(HMDomainListEditorTest)
#include "HMDomainListEditorTest.moc"
