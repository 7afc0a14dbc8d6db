// The diagnostics screen driven offscreen through its real widgets, over a log manager
// whose helper is down and whose network is off: every operation ends with an error, and
// after the helper's error each completes twice.
#include "HMDiagnosticsViewController.h"
#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMDaemonManager.h"
#include "HMLogFileManager.h"
#include "HMManualClock.h"
#include "HMScreenPresenter.h"
#include "HMTestEnvironment.h"

#include <QApplication>
#include <QLabel>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QThreadPool>
#include <QtTest>

namespace {

class RecordingPresenter : public HMScreenPresenter
{
public:
    void presentViewController(QWidget *screen, Animation) override { delete screen; }
    void showWindow() override { visible = true; }
    void closeWindow() override
    {
        visible = false;
        ++closes;
    }
    bool isWindowVisible() const override { return visible; }

    bool visible = true;
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
    RecordingPresenter m_presenter;
    std::unique_ptr<HMDiagnosticsViewController> m_screen;

    template <typename T> T *child(const char *name)
    {
        T *widget = m_screen->findChild<T *>(QLatin1String(name));
        if (!widget) {
            qFatal("no %s", name);
        }
        return widget;
    }

    QList<QPushButton *> buttons()
    {
        return {child<QPushButton>("sendButton"), child<QPushButton>("viewLogsButton"),
                child<QPushButton>("helpButton")};
    }

    bool buttonsEnabled(bool enabled)
    {
        for (QPushButton *button : buttons()) {
            if (button->isEnabled() != enabled) {
                return false;
            }
        }
        return true;
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        m_world = std::make_unique<HMAccountWorld>();
        m_api = std::make_unique<HMAPIClient>(
            HMDeploymentValues::builtIn(), [] { return false; }, m_clock, m_center);
        m_api->setURLOpener([this](const QUrl &url) {
            m_opened.append(url);
            return true;
        });
        HMDaemonManager::Paths paths;
        paths.socketPath = m_world->dir.filePath("no-helper.sock");
        m_daemon = std::make_unique<HMDaemonManager>(*m_world->store, m_world->account.get(),
                                                     m_world->routing.get(), paths);
        m_daemon->createCommandQueue();
        HMLogFileOptions options;
        options.temporaryDirectory = m_world->dir.filePath("tmp");
        options.reports = {};
        options.openFile = [this](const QUrl &url) {
            m_opened.append(url);
            return true;
        };
        m_logs = std::make_unique<HMLogFileManager>(*m_daemon, *m_api, *m_world->account,
                                                    *m_world->store, m_clock, options);
    }

    void init()
    {
        m_opened.clear();
        m_presenter = RecordingPresenter();
        m_screen = std::make_unique<HMDiagnosticsViewController>(m_presenter, *m_logs, *m_api);
        m_screen->show();
    }

    void cleanup()
    {
        QThreadPool::globalInstance()->waitForDone();
        m_screen.reset();
    }

    void everyControlIsNamedForAssistiveTechnology()
    {
        for (QWidget *widget : m_screen->findChildren<QWidget *>()) {
            if (!qobject_cast<QLabel *>(widget) || widget->objectName() == "errorLabel") {
                QVERIFY2(widget->objectName().startsWith("qt_") ||
                             !widget->accessibleName().isEmpty() ||
                             !widget->isVisibleTo(m_screen.get()),
                         qPrintable(widget->objectName()));
            }
        }
    }

    // Send: everything off and the bar moving (showing the upload's share once known);
    // each completion turns the buttons back on, shows its error and puts the window away.
    void sendRunsToCompletionAndPutsWindowAway()
    {
        QTest::keyClicks(child<QPlainTextEdit>("commentEdit"), "It drops every hour");
        QTest::mouseClick(child<QPushButton>("sendButton"), Qt::LeftButton);
        QVERIFY(buttonsEnabled(false));
        QProgressBar *bar = child<QProgressBar>("activityBar");
        QVERIFY(bar->isVisible());
        QCOMPARE(bar->maximum(), 0);
        Q_EMIT m_logs->uploadProgress(250, 1000);
        QCOMPARE(bar->value() * 4, bar->maximum());

        QTRY_COMPARE(m_presenter.closes, 2);
        QVERIFY(buttonsEnabled(true));
        QVERIFY(!bar->isVisible());
        QCOMPARE(child<QLabel>("errorLabel")->text(), QStringLiteral("No internet connection"));
        QCOMPARE(m_opened, QList<QUrl>());
    }

    // View logs: the text file opens, the helper's error shows, the window stays.
    void viewLogsOpensTheTextFileAndKeepsWindow()
    {
        QTest::mouseClick(child<QPushButton>("viewLogsButton"), Qt::LeftButton);
        QVERIFY(buttonsEnabled(false));
        QTRY_COMPARE(m_opened.size(), 1);
        QVERIFY(buttonsEnabled(true));
        QVERIFY(!child<QLabel>("errorLabel")->text().isEmpty());
        const QByteArray text = HMTestEnvironment::readFile(m_opened.first().toLocalFile());
        QVERIFY(text.contains(QByteArray(QByteArray(61, '-') + "\ndefaults.log\n")));
        QCOMPARE(m_presenter.closes, 0);
    }

    void helpOpensHelpCentreAndPutsWindowAway()
    {
        QTest::mouseClick(child<QPushButton>("helpButton"), Qt::LeftButton);
        QCOMPARE(m_opened,
                 QList<QUrl>{QUrl("http://" + HMDeploymentValues::builtIn().helpHost() + "/")});
        QCOMPARE(m_presenter.closes, 1);
    }
};

QTEST_MAIN(HMDiagnosticsViewControllerTest)
#include "HMDiagnosticsViewControllerTest.moc"
