// The selective-routing pane driven through its real widgets.
#include "HMWisprouteViewController.h"
#include "HMPreferenceStore.h"
#include "HMTestEnvironment.h"
#include "HMWisprouteManager.h"

#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTableWidget>
#include <QtTest>
#include <memory>

class HMWisprouteViewControllerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMPreferenceStore> m_store;
    std::unique_ptr<HMWisprouteManager> m_routing;
    std::unique_ptr<HMWisprouteViewController> m_pane;
    bool m_connected = false;
    bool m_full = true;
    QList<int> m_restarts;
    QStringList m_opened;

    template <typename T> T *child(const char *name) const
    {
        T *found = m_pane->findChild<T *>(QLatin1String(name));
        if (!found) {
            qFatal("no %s in the pane", name);
        }
        return found;
    }

    // On the choice's own label: a radio button ignores clicks on its empty right part.
    void choose(const char *name)
    {
        auto *button = child<QRadioButton>(name);
        QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(8, button->height() / 2));
    }

    QStringList rows(const char *table) const
    {
        QStringList texts;
        auto *view = child<QTableWidget>(table);
        for (int row = 0; row < view->rowCount(); ++row) {
            texts << view->item(row, 0)->text();
        }
        return texts;
    }

    void makePane()
    {
        HMWisprouteViewController::Context context;
        context.isConnected = [this] { return m_connected; };
        context.isFullVersion = [this] { return m_full; };
        context.openInfo = [this] { m_opened << "info"; };
        context.openUnsupportedInfo = [this] { m_opened << "unsupported"; };
        m_pane = std::make_unique<HMWisprouteViewController>(*m_routing, context);
        m_pane->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_pane.get()));
    }

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void init()
    {
        QFile::remove(HMWisprouteManager::getDomainsFilePathWithExlusion(false));
        QFile::remove(HMWisprouteManager::getDomainsFilePathWithExlusion(true));
        QFile::remove(m_home->filePath("prefs.json"));
        m_store = std::make_unique<HMPreferenceStore>(m_home->filePath("prefs.json"));
        m_routing = std::make_unique<HMWisprouteManager>(*m_store);
        m_routing->setSupported(true);
        m_routing->setDnsProxyRestarter(
            [this](int mode, HMWisprouteManager::Completion) { m_restarts << mode; });
        m_connected = false;
        m_full = true;
        m_restarts.clear();
        m_opened.clear();
    }

    void cleanup() { m_pane.reset(); }

    void addingFromEitherFieldFillsItsOwnList()
    {
        QVERIFY(HMTestEnvironment::writeFile(
            HMWisprouteManager::getDomainsFilePathWithExlusion(false), "kept.example\n"));
        makePane();
        QCOMPARE(rows("domainsTableView"), QStringList{"kept.example"});

        auto *field = child<QLineEdit>("domainTextField");
        QTest::keyClicks(field, "https://www.Example.com/path?q=1");
        QTest::keyClick(field, Qt::Key_Return);
        QCOMPARE(rows("domainsTableView"), QStringList({"kept.example", "www.Example.com"}));
        QCOMPARE(field->text(), QString());
        QCOMPARE(child<QTableWidget>("domainsTableView")->currentRow(), 1);

        QTest::keyClicks(field, "localhost");
        QTest::keyClick(field, Qt::Key_Return);
        QTest::mouseClick(child<QPushButton>("addDomainButton"), Qt::LeftButton);
        QCOMPARE(field->text(), QString("localhost")); // refused silently, text kept
        QCOMPARE(rows("domainsTableView").size(), 2);

        auto *exField = child<QLineEdit>("domainExTextField");
        QTest::keyClicks(exField, "www.Example.com");
        QTest::mouseClick(child<QPushButton>("addDomainExButton"), Qt::LeftButton);
        QCOMPARE(rows("domainsExTableView"), QStringList{"www.Example.com"});
        QCOMPARE(
            HMTestEnvironment::readFile(HMWisprouteManager::getDomainsFilePathWithExlusion(true)),
            QByteArray("www.Example.com\n"));
        if (qEnvironmentVariableIsSet("HM_SCREENSHOT_DIR")) {
            m_pane->grab().save(qEnvironmentVariable("HM_SCREENSHOT_DIR") + "/wisproute-pane.png");
        }
    }

    void rowsAreEditedAndRemovedInPlace()
    {
        QVERIFY(HMTestEnvironment::writeFile(
            HMWisprouteManager::getDomainsFilePathWithExlusion(false), "a.example\nb.example\n"));
        makePane();
        auto *table = child<QTableWidget>("domainsTableView");
        table->item(0, 0)->setText("nodot");
        QTRY_COMPARE(rows("domainsTableView"), QStringList({"a.example", "b.example"}));
        table->item(0, 0)->setText("http://c.example/x");
        QTRY_COMPARE(rows("domainsTableView"), QStringList({"c.example", "b.example"}));

        table->setCurrentCell(1, 0);
        QTest::mouseClick(child<QPushButton>("deleteDomainButton"), Qt::LeftButton);
        QCOMPARE(rows("domainsTableView"), QStringList{"c.example"});
        table->setCurrentCell(0, 0);
        table->setFocus();
        QTest::keyClick(table, Qt::Key_Delete);
        QCOMPARE(rows("domainsTableView"), QStringList());
        QCOMPARE(m_routing->arrayDomains(), QStringList());
    }

    void modeChoiceCrossesTagsAndRestartsOnceWhileConnected()
    {
        m_routing->setWisprouteMode(HMWisprouteManager::ModeExclusion);
        makePane();
        QVERIFY(child<QRadioButton>("exclusionRadioButton")->isChecked());

        choose("wisprouteRadioButton");
        QCOMPARE(m_routing->wisprouteMode(), int(HMWisprouteManager::ModeInclusion));
        QCOMPARE(m_restarts, QList<int>());

        m_connected = true;
        choose("exclusionRadioButton");
        QCOMPARE(m_routing->wisprouteMode(), int(HMWisprouteManager::ModeExclusion));
        QCOMPARE(m_restarts, QList<int>{HMWisprouteManager::ModeExclusion});

        // A stored mode outside 0-2 leaves the shown choice alone when the pane reappears.
        m_routing->setWisprouteMode(3);
        m_pane->hide();
        m_pane->show();
        QVERIFY(child<QRadioButton>("exclusionRadioButton")->isChecked());
    }

    void noticesReplaceTheEditor_data()
    {
        QTest::addColumn<bool>("full");
        QTest::addColumn<bool>("supported");
        QTest::addColumn<QString>("notice");
        QTest::addColumn<QString>("button");
        QTest::addColumn<QString>("opens");
        QTest::newRow("paid plan missing")
            << false << true << "paidNotice" << QString("paidInfoButton") << "info";
        QTest::newRow("proxy unsupported") << true << false << "unsupportedNotice"
                                           << QString("infoUnsupportedButton") << "unsupported";
    }

    void noticesReplaceTheEditor()
    {
        QFETCH(bool, full);
        QFETCH(bool, supported);
        QFETCH(QString, notice);
        QFETCH(QString, button);
        QFETCH(QString, opens);
        m_full = full;
        m_routing->setSupported(supported);
        makePane();
        QVERIFY(!child<QWidget>("editingArea")->isVisible());
        for (const char *name : {"paidNotice", "unsupportedNotice"}) {
            QCOMPARE(child<QWidget>(name)->isVisible(), notice == QLatin1String(name));
        }
        QTest::mouseClick(child<QPushButton>(qPrintable(button)), Qt::LeftButton);
        QCOMPARE(m_opened, QStringList{opens});

        // Every control of the pane has a name for screen readers (Qt's own parts aside).
        for (QWidget *widget : m_pane->findChildren<QWidget *>()) {
            if (!widget->objectName().isEmpty() && !widget->objectName().startsWith("qt_") &&
                (qobject_cast<QAbstractButton *>(widget) || qobject_cast<QLineEdit *>(widget) ||
                 qobject_cast<QTableWidget *>(widget))) {
                QVERIFY2(!widget->accessibleName().isEmpty(), qPrintable(widget->objectName()));
            }
        }
    }
};

QTEST_MAIN(HMWisprouteViewControllerTest)
#include "HMWisprouteViewControllerTest.moc"
