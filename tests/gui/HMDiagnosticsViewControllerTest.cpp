// The diagnostics screen over a log manager whose helper is down and whose network is off:
// every operation ends with an error, and after the helper's error each completes twice.
#include "HMDiagnosticsViewController.h"
#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMDaemonManager.h"
#include "HMLogFileManager.h"
#include "HMManualClock.h"
#include "HMScreenPresenter.h"
#include "HMTestEnvironment.h"

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QThreadPool>
#include <QtTest>

namespace {

struct RecordingPresenter : HMScreenPresenter
{
    void presentViewController(QWidget *screen, Animation) override { delete screen; }
    void showWindow() override {}
    void closeWindow() override { ++closes; }
    bool isWindowVisible() const override { return closes == 0; }
    int closes = 0;
};

} // namespace

class HMDiagnosticsViewControllerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    std::unique_ptr<HMAccountWorld> m_world;
    HMManualClock m_clock;
    HMNotificationCenter m_center;
    std::unique_ptr<HMAPIClient> m_api;
    std::unique_ptr<HMDaemonManager> m_daemon;
    std::unique_ptr<HMLogFileManager> m_logs;
    QList<QUrl> m_opened;
    std::unique_ptr<RecordingPresenter> m_presenter;
    std::unique_ptr<HMDiagnosticsViewController> m_screen;

    template <typename T = QPushButton> T *child(const char *name)
    {
        return m_screen->findChild<T *>(QLatin1String(name));
    }
    bool buttonsEnabled(bool enabled)
    {
        return child("sendButton")->isEnabled() == enabled &&
               child("viewLogsButton")->isEnabled() == enabled &&
               child("helpButton")->isEnabled() == enabled;
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        m_world = std::make_unique<HMAccountWorld>();
        const auto record = [this](const QUrl &url) {
            m_opened.append(url);
            return true;
        };
        m_api = std::make_unique<HMAPIClient>(
            HMDeploymentValues::builtIn(), [] { return false; }, m_clock, m_center);
        m_api->setURLOpener(record);
        m_daemon = std::make_unique<HMDaemonManager>(
            *m_world->store, m_world->account.get(), m_world->routing.get(),
            HMDaemonManager::Paths{m_world->dir.filePath("no-helper.sock"), {}, {}, {}});
        m_daemon->createCommandQueue();
        m_logs = std::make_unique<HMLogFileManager>(
            *m_daemon, *m_api, *m_world->account, *m_world->store, m_clock,
            HMLogFileOptions{m_world->dir.filePath("tmp"), {}, 1000, record});
    }

    void init()
    {
        m_opened.clear();
        m_presenter = std::make_unique<RecordingPresenter>();
        m_screen = std::make_unique<HMDiagnosticsViewController>(*m_presenter, *m_logs, *m_api);
        m_screen->show();
        const auto controls =
            m_screen->findChildren<QWidget *>(QRegularExpression("^(?!qt_)[a-z]"));
        QVERIFY(controls.size() >= 8);
        for (QWidget *control : controls) {
            QVERIFY2(!control->accessibleName().isEmpty(), qPrintable(control->objectName()));
        }
    }

    void cleanup()
    {
        QThreadPool::globalInstance()->waitForDone();
        m_screen.reset();
    }

    // Send: everything off and the bar moving (showing the upload's share once known);
    // each completion turns the buttons back on, shows its error and puts the window away.
    void sendRunsToCompletionAndPutsWindowAway()
    {
        QTest::mouseClick(child("sendButton"), Qt::LeftButton);
        QVERIFY(buttonsEnabled(false));
        QProgressBar *bar = child<QProgressBar>("activityBar");
        QVERIFY(bar->isVisible());
        QCOMPARE(bar->maximum(), 0);
        Q_EMIT m_logs->uploadProgress(250, 1000);
        QCOMPARE(bar->value() * 4, bar->maximum());

        QTRY_COMPARE(m_presenter->closes, 2);
        QVERIFY(buttonsEnabled(true));
        QVERIFY(!bar->isVisible());
        QCOMPARE(child<QLabel>("errorLabel")->text(), QStringLiteral("No internet connection"));
        QCOMPARE(m_opened, QList<QUrl>());
    }

    // View logs: the text file opens, the helper's error shows, the window stays.
    void viewLogsOpensTheTextFileAndKeepsWindow()
    {
        QTest::mouseClick(child("viewLogsButton"), Qt::LeftButton);
        QVERIFY(buttonsEnabled(false));
        QTRY_COMPARE(m_opened.size(), 1);
        QVERIFY(buttonsEnabled(true));
        QVERIFY(!child<QLabel>("errorLabel")->text().isEmpty());
        const QByteArray text = HMTestEnvironment::readFile(m_opened.first().toLocalFile());
        QVERIFY(text.contains(QByteArray(QByteArray(61, '-') + "\ndefaults.log\n")));
        QCOMPARE(m_presenter->closes, 0);
    }

    void helpOpensHelpCentreAndPutsWindowAway()
    {
        QTest::mouseClick(child("helpButton"), Qt::LeftButton);
        const QString page = "http://" + HMDeploymentValues::builtIn().helpHost() + "/";
        QCOMPARE(m_opened, QList<QUrl>{QUrl(page)});
        QCOMPARE(m_presenter->closes, 1);
    }
};

QTEST_MAIN(HMDiagnosticsViewControllerTest)
#include "HMDiagnosticsViewControllerTest.moc"
