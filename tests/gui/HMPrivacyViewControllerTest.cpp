// The Privacy tab driven through its widgets, over a real privacy manager whose stream and
// dashboard calls go to the reference service (the tunnel is switched by hand).
#include "HMPrivacyViewController.h"
#include "EventSource.h"
#include "HMPrivacyWorld.h"
#include "HMWisprouteManager.h"

#include <QCheckBox>
#include <QLabel>
#include <QLayout>
#include <QTreeWidget>
#include <QtTest>

class HMPrivacyViewControllerTest : public QObject
{
    Q_OBJECT

private:
    HMRefService m_service;
    std::unique_ptr<HMPrivacyWorld> m_w;
    std::unique_ptr<HMPrivacyViewController> m_pane;

    template <class T> T *child(const char *name)
    {
        T *found = m_pane->findChild<T *>(QLatin1String(name));
        if (!found) {
            qFatal("no %s in the pane", name);
        }
        return found;
    }
    QString text(const char *label) { return child<QLabel>(label)->text(); }
    // On the box itself, not the middle of a row that may be wider than its text.
    void click(const char *box)
    {
        QCheckBox *widget = child<QCheckBox>(box);
        QTest::mouseClick(widget, Qt::LeftButton, {}, QPoint(6, widget->height() / 2));
    }

    // "ads(2): b=1 a=1" per category, in order.
    QStringList tree()
    {
        QStringList rows;
        QTreeWidget *widget = child<QTreeWidget>("blockedTree");
        for (int i = 0; i < widget->topLevelItemCount(); ++i) {
            QTreeWidgetItem *category = widget->topLevelItem(i);
            QString row = category->text(0) + "(" + category->text(1) + "):";
            for (int j = 0; j < category->childCount(); ++j) {
                row += " " + category->child(j)->text(0) + "=" + category->child(j)->text(1);
            }
            rows << row;
        }
        return rows;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QString error;
        QVERIFY2(HMPrivacyWorld::startService(m_service, &error), qPrintable(error));
    }

    void init()
    {
        m_w = std::make_unique<HMPrivacyWorld>(m_service);
        m_pane = std::make_unique<HMPrivacyViewController>(*m_w->privacy, *m_w->account.routing);
        m_pane->show();
    }

    void cleanup()
    {
        m_pane.reset();
        m_w.reset();
    }

    void switchesAreUsableOnlyWhenConnectedOutsideInclusionRouting_data()
    {
        QTest::addColumn<bool>("connected");
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("usable");
        QTest::addColumn<QString>("notice"); // start of the notice; empty: none shown
        QTest::addColumn<bool>("counters");
        QTest::newRow("disconnected") << false << 0 << false << "Switch the VPN on" << true;
        QTest::newRow("connected") << true << 0 << true << "" << true;
        QTest::newRow("connected, exclusion list") << true << 1 << true << "" << true;
        QTest::newRow("connected, inclusion list")
            << true << 2 << false << "The privacy filter is not available while Selective routing"
            << false;
    }

    void switchesAreUsableOnlyWhenConnectedOutsideInclusionRouting()
    {
        QFETCH(bool, connected);
        QFETCH(int, mode);
        QFETCH(bool, usable);
        QFETCH(QString, notice);
        QFETCH(bool, counters);
        m_w->account.routing->setWisprouteMode(mode);
        m_pane->vpnConnectedDidChange(connected);
        for (const char *name :
             {"enabledSwitch", "facebookSwitch", "twitterSwitch", "linkedinSwitch"}) {
            QCOMPARE(child<QCheckBox>(name)->isEnabled(), usable);
        }
        QCOMPARE(child<QLabel>("noticeLabel")->isVisible(), !notice.isEmpty());
        QVERIFY(notice.isEmpty() ? text("noticeLabel").isEmpty()
                                 : text("noticeLabel").startsWith(notice));
        QCOMPARE(child<QTreeWidget>("blockedTree")->isVisible(), counters);
        QCOMPARE(child<QLabel>("facebookCount")->isVisible(), counters);
        if (qEnvironmentVariableIsSet("HM_SCREENSHOT_DIR")) {
            m_pane->layout()->activate();
            m_pane->grab().save(qEnvironmentVariable("HM_SCREENSHOT_DIR") + "/privacy-pane-" +
                                QTest::currentDataTag() + ".png");
        }
    }

    void clicksReachTheServiceAndServiceStateReachesTheSwitches()
    {
        m_pane->vpnConnectedDidChange(true);
        click("twitterSwitch");
        QVERIFY(m_w->privacy->isTwitterEnabled());
        QTRY_COMPARE(m_w->requests("/dashboard/setFilter"), 1);

        m_service.updateAccount(
            {{"username", HMPrivacyWorld::kUser},
             {"privacy",
              QJsonObject{{"globalSwitch", true}, {"filters", QJsonObject{{"linkedin", true}}}}}});
        m_w->privacy->syncFilterSettings();
        QTRY_VERIFY(child<QCheckBox>("enabledSwitch")->isChecked());
        QVERIFY(child<QCheckBox>("linkedinSwitch")->isChecked());
        QVERIFY(!child<QCheckBox>("twitterSwitch")->isChecked());
    }

    // Connected with privacy on: what the service blocks shows up live; the dial switched
    // off resets it.
    void blocksFromTheServiceMoveTheCounters()
    {
        QCOMPARE(tree(), (QStringList{"analytics(0):", "ads(0):"}));
        QTreeWidget *widget = child<QTreeWidget>("blockedTree");
        for (int i = 0; i < 2; ++i) {
            QVERIFY(!widget->topLevelItem(i)->icon(0).pixmap(16).isNull());
        }
        // The tunnel comes up: the manager synchronises first (privacy still off on the service).
        QSignalSpy synced(m_w->privacy.get(), &HMPrivacyManager::linkedinEnabledChanged);
        m_w->connected = true;
        m_w->privacy->vpnConnectedDidChange(true);
        m_pane->vpnConnectedDidChange(true);
        QTRY_COMPARE(synced.size(), 1);
        QVERIFY(!m_w->privacy->eventSource());
        click("enabledSwitch");
        QVERIFY(m_w->privacy->eventSource());
        m_w->clock.advance(EventSource::kOpenDelayMs);
        QTRY_COMPARE(m_w->openStreams(), 1);

        m_w->push({{"category", "social"}, {"text", "Facebook"}});
        QTRY_COMPARE(text("facebookCount"), QStringLiteral("1"));
        // One at a time, as the service sends them: events written back to back may reach the
        // client as one chunk, which it reads as one event.
        const QList<QPair<const char *, QStringList>> steps{
            {"a.example", {"analytics(0):", "ads(1): a.example=1"}},
            {"b.example", {"analytics(0):", "ads(2): b.example=1 a.example=1"}},
            {"a.example", {"analytics(0):", "ads(3): a.example=2 b.example=1"}}};
        for (const auto &step : steps) {
            m_w->push({{"category", "ads"}, {"text", step.first}});
            QTRY_COMPARE(tree(), step.second);
        }
        m_w->push({{"category", "shop"}, {"text", "cart.example"}});
        QTRY_COMPARE(tree(), (QStringList{"analytics(0):", "ads(3): a.example=2 b.example=1",
                                          "shop(1): cart.example=1"}));
        QVERIFY(widget->topLevelItem(2)->icon(0).isNull());
        if (qEnvironmentVariableIsSet("HM_SCREENSHOT_DIR")) {
            m_pane->grab().save(qEnvironmentVariable("HM_SCREENSHOT_DIR") + "/privacy-pane.png");
        }

        m_w->account.center.postNotificationName(HMPrivacyManager::kDidSwitchDialOffNotification);
        QCOMPARE(text("facebookCount"), QStringLiteral("0"));
        QCOMPARE(tree(), (QStringList{"analytics(0):", "ads(0):"}));
    }
};

QTEST_MAIN(HMPrivacyViewControllerTest)
#include "HMPrivacyViewControllerTest.moc"
