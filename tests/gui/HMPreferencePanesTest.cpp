#include "HMAccountViewController.h"
#include "HMGeneralViewController.h"
#include "HMScreenWorld.h"

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QTemporaryFile>
#include <QtTest>

// The General and Account preference panes over a private preference store and account.
class HMPreferencePanesTest : public QObject
{
    Q_OBJECT

private:
    template <typename T> static T *child(QWidget &pane, const char *name)
    {
        return pane.findChild<T *>(name);
    }

private Q_SLOTS:
    // The box stores the opposite of the stored choice, not of what it happened to show.
    void notificationsBoxFlipsStoredChoice()
    {
        HMScreenWorld world;
        HMPreferenceStore &store = *world.accounts.store;
        store.setValue(QStringLiteral("notificationsEnabled"), true);
        HMGeneralViewController pane(world.context());
        auto *box = child<QCheckBox>(pane, "showNotificationsCheck");
        QVERIFY(box->isChecked());
        store.setValue(QStringLiteral("notificationsEnabled"), false); // changed elsewhere
        QTest::mouseClick(box, Qt::LeftButton);
        QCOMPARE(store.value(QStringLiteral("notificationsEnabled")), QVariant(true));
        QVERIFY(box->isChecked());
    }

    void tcpAndConfigurationFileAreStored()
    {
        HMScreenWorld world;
        HMPreferenceStore &store = *world.accounts.store;
        HMGeneralViewController pane(world.context());
        QTest::mouseClick(child<QCheckBox>(pane, "forceTCPCheck"), Qt::LeftButton);
        QCOMPARE(store.value(QStringLiteral("vpnForceTCP")), QVariant(true));

        pane.chooseConfigFile(QStringLiteral("/nonexistent/operator.ovpn"));
        QVERIFY(child<QLabel>(pane, "errorLabel")->text().contains("cannot read"));
        QVERIFY(!store.contains(QStringLiteral("vpnConfigFile")));

        QTemporaryFile file;
        QVERIFY(file.open());
        pane.chooseConfigFile(file.fileName());
        QCOMPARE(store.value(QStringLiteral("vpnConfigFile")).toString(), file.fileName());
        QCOMPARE(child<QLabel>(pane, "configPathLabel")->text(), file.fileName());
        QCOMPARE(child<QLabel>(pane, "errorLabel")->text(), QString());

        QTest::mouseClick(child<QPushButton>(pane, "clearConfigButton"), Qt::LeftButton);
        QVERIFY(!store.contains(QStringLiteral("vpnConfigFile")));
        QCOMPARE(child<QLabel>(pane, "configPathLabel")->text(),
                 QStringLiteral("Built-in settings"));
    }

    void launchAtLoginGoesThroughTheContext()
    {
        HMScreenWorld world;
        HMScreenContext context = world.context();
        {
            HMGeneralViewController without(context);
            QVERIFY(!child<QCheckBox>(without, "launchAtLoginCheck")->isEnabled());
        }
        bool entry = false;
        context.launchOnStartup = [&] { return entry; };
        context.setLaunchOnStartup = [&](bool value) { entry = value; };
        HMGeneralViewController pane(context);
        auto *box = child<QCheckBox>(pane, "launchAtLoginCheck");
        QTest::mouseClick(box, Qt::LeftButton);
        QVERIFY(entry);
        entry = false; // removed in the desktop's own settings
        pane.hide();
        pane.show();
        QVERIFY(!box->isChecked());
    }

    void accountPaneShowsPlanAllowanceAndTimeAsReceived_data()
    {
        QTest::addColumn<bool>("paid");
        QTest::addColumn<bool>("canyon");
        QTest::addColumn<QVariant>("remaining");
        QTest::addColumn<QString>("plan");
        QTest::addColumn<QString>("allowance");
        QTest::addColumn<QString>("time");
        const QString unlimited = "Unlimited";
        QTest::newRow("free") << false << false << QVariant() << "Sprout"
                              << QString("387 MB of 500 MB left") << "\u2013";
        QTest::newRow("summit, number")
            << true << false << QVariant(42) << "Summit" << unlimited << "42";
        QTest::newRow("canyon, text")
            << true << true << QVariant("3 months") << "Canyon" << unlimited << "3 months";
        QTest::newRow("odd shape") << true << false << QVariant(QVariantList{1, "d"}) << "Summit"
                                   << unlimited << "[1,\"d\"]";
    }
    void accountPaneShowsPlanAllowanceAndTimeAsReceived()
    {
        QFETCH(bool, paid);
        QFETCH(bool, canyon);
        QFETCH(QVariant, remaining);
        QFETCH(QString, plan);
        QFETCH(QString, allowance);
        QFETCH(QString, time);
        HMScreenWorld world;
        HMAccountManager &account = *world.accounts.account;
        account.setUsername(QStringLiteral("ann@example.test"));
        account.setPassword(QStringLiteral("secret"));
        HMAccountViewController pane(world.context());
        account.setBandwidthAvailable(387 * kMiB);
        account.setMaxBandwidth(500 * kMiB);
        account.setFullVersion(paid);
        account.setCanyon(canyon);
        account.setFullRemainingTime(remaining);
        QCOMPARE(child<QLabel>(pane, "usernameValue")->text(), QStringLiteral("ann@example.test"));
        QCOMPARE(child<QLabel>(pane, "planValue")->text(), plan);
        QCOMPARE(child<QLabel>(pane, "allowanceValue")->text(), allowance);
        QCOMPARE(child<QLabel>(pane, "remainingTimeValue")->text(), time);

        QTest::mouseClick(child<QPushButton>(pane, "signOutButton"), Qt::LeftButton);
        QVERIFY(!account.isLoggedIn());
        QVERIFY(!child<QPushButton>(pane, "signOutButton")->isEnabled());
        QCOMPARE(child<QLabel>(pane, "usernameValue")->text(), QStringLiteral("Not signed in"));
    }
};

QTEST_MAIN(HMPreferencePanesTest)
#include "HMPreferencePanesTest.moc"
