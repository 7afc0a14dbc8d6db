#include "HMLogging.h"
#include "HMLog.h"
#include "HMLogCapture.h"
#include "HMLogFormatter.h"
#include "HMManualClock.h"
#include "HMRollingFileSink.h"
#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>
#include <spdlog/logger.h>

class HMLoggingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_home = HMTestEnvironment::isolateUserDirectories(); }

    void formatsLineAtFixedTime()
    {
        HMLogMessage message;
        message.text = QStringLiteral("X");
        message.flag = 1;
        message.timestamp = QDateTime(QDate(2015, 3, 2), QTime(9, 5, 3, 7), Qt::LocalTime);
        message.file = QStringLiteral("/src/core/managers/HMVPNManager.cpp");
        message.line = 227;
        QCOMPARE(HMLogFormatter::instance().formatLogMessage(message),
                 QStringLiteral("2015-03-02 09:05:03.007 [E]HMVPNManager:227> X"));
    }
    void levelLetters_data()
    {
        QTest::addColumn<int>("flag");
        QTest::addColumn<QString>("letter");
        QTest::newRow("error") << 1 << "E";
        QTest::newRow("warning") << 2 << "W";
        QTest::newRow("info") << 4 << "I";
        QTest::newRow("verbose") << 8 << "V";
        QTest::newRow("higher verbose") << 16 << "V";
        QTest::newRow("combined bits") << 3 << "V";
        QTest::newRow("zero") << 0 << "V";
    }
    void levelLetters()
    {
        QFETCH(int, flag);
        QFETCH(QString, letter);
        QCOMPARE(HMLogFormatter::levelLetter(flag), letter);
    }
    void macroCapturesFileAndLine()
    {
        HMLogCapture capture;
        const int line = __LINE__ + 1;
        HMLogError(QStringLiteral("Could not stop daemon: %1").arg(QStringLiteral("gone")));
        QCOMPARE(capture.lines().size(), 1);
        const QString expectedTail =
            QStringLiteral(" [E]HMLoggingTest:%1> Could not stop daemon: gone").arg(line);
        QVERIFY2(capture.lines().first().endsWith(expectedTail),
                 qPrintable(capture.lines().first()));
        QVERIFY(QDateTime::fromString(capture.lines().first().left(23),
                                      QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"))
                    .isValid());
    }
    void rollsBySizeKeepingOneRolledFile()
    {
        QTemporaryDir dir;
        HMManualClock clock(QDateTime::currentDateTime());
        auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
        spdlog::logger logger = loggerFor(sink);
        const std::string payload(1000, 'x');
        const QString first = sink->currentLogFilePath();
        int lines = 0;
        while (sink->currentLogFilePath() == first) {
            logger.error("{}", payload);
            clock.advance(1);
            QVERIFY(++lines < 200);
        }
        // The first file rolled once it reached the cap, not before.
        QVERIFY(QFileInfo(first).size() >= 102400);
        QVERIFY(QFileInfo(first).size() < 102400 + 1100);
        QCOMPARE(fileCount(dir.path()), 2);

        const QString second = sink->currentLogFilePath();
        while (sink->currentLogFilePath() == second) {
            logger.error("{}", payload);
            clock.advance(1);
        }
        // Live file plus the one just rolled; the oldest is gone.
        QCOMPARE(fileCount(dir.path()), 2);
        QVERIFY(!QFile::exists(first));
        QVERIFY(QFile::exists(second));
        QCOMPARE(sink->sortedLogFilePaths(), (QStringList{sink->currentLogFilePath(), second}));
    }
    void rollsByAgeOnVirtualClock()
    {
        QTemporaryDir dir;
        HMManualClock clock(QDateTime::currentDateTime());
        auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
        spdlog::logger logger = loggerFor(sink);
        logger.error("one");
        const QString first = sink->currentLogFilePath();
        clock.advance(259199 * 1000LL);
        logger.error("two");
        QCOMPARE(sink->currentLogFilePath(), first);
        clock.advance(1000);
        logger.error("three");
        const QString second = sink->currentLogFilePath();
        QVERIFY(second != first);
        QCOMPARE(fileCount(dir.path()), 2);
        clock.advance(259200 * 1000LL);
        logger.error("four");
        QCOMPARE(fileCount(dir.path()), 2);
        QVERIFY(!QFile::exists(first));
        QFile live(sink->currentLogFilePath());
        QVERIFY(live.open(QIODevice::ReadOnly));
        QVERIFY(live.readAll().endsWith("> four\n"));
    }
    void restartReusesOnlyAYoungFile_data()
    {
        QTest::addColumn<qint64>("ageSeconds");
        QTest::addColumn<bool>("reused");
        QTest::newRow("an hour old") << qint64(3600) << true;
        QTest::newRow("72 hours old") << qint64(259200) << false;
    }
    void restartReusesOnlyAYoungFile()
    {
        QFETCH(qint64, ageSeconds);
        QFETCH(bool, reused);
        QTemporaryDir dir;
        HMManualClock clock(QDateTime::currentDateTime());
        QString path;
        {
            auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
            spdlog::logger logger = loggerFor(sink);
            logger.error("before restart");
            path = sink->currentLogFilePath();
        }
        clock.advance(ageSeconds * 1000);
        auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
        spdlog::logger logger = loggerFor(sink);
        logger.error("after restart");
        QCOMPARE(sink->currentLogFilePath() == path, reused);
        QCOMPARE(HMTestEnvironment::readFile(path).contains("after restart"), reused);
        if (!reused) {
            QCOMPARE(sink->sortedLogFilePaths(), (QStringList{sink->currentLogFilePath(), path}));
        }
    }
    void formatterPerThreadOnlyWithSeveralLoggers()
    {
        HMLogFormatter &formatter = HMLogFormatter::instance();
        const int base = formatter.loggerCount();
        auto addressOnOtherThread = [&formatter] {
            HMLogDateFormatter *address = nullptr;
            std::unique_ptr<QThread> thread(
                QThread::create([&] { address = &formatter.dateFormatter(); }));
            thread->start();
            thread->wait();
            return address;
        };
        {
            // With exactly one logger every thread shares the one date formatter.
            std::optional<HMSpdlogFormatter> first;
            if (base == 0) {
                first.emplace();
            }
            QCOMPARE(formatter.loggerCount(), 1);
            QCOMPARE(addressOnOtherThread(), &formatter.dateFormatter());
            HMSpdlogFormatter second;
            QCOMPARE(formatter.loggerCount(), 2);
            QVERIFY(addressOnOtherThread() != &formatter.dateFormatter());
        }
        QCOMPARE(formatter.loggerCount(), base);
    }
    void logsFolderFallsBackToTemporaryDirectory()
    {
        const QByteArray saved = qgetenv("XDG_STATE_HOME");
        QTemporaryDir dir;
        // A plain file where the state folder should be: the log folder cannot be made there.
        const QString blocker = dir.filePath(QStringLiteral("state"));
        QFile file(blocker);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        qputenv("XDG_STATE_HOME", blocker.toUtf8());
        const QString folder = HMLogging::logsDirectory();
        qputenv("XDG_STATE_HOME", saved);
        QVERIFY2(folder.startsWith(QDir::tempPath()), qPrintable(folder));
        QVERIFY(QFileInfo(folder).isDir());
        QCOMPARE(QFileInfo(folder).permissions() &
                     (QFile::ReadOther | QFile::WriteOther | QFile::ReadGroup),
                 QFile::Permissions());

        const QString normal = HMLogging::logsDirectory();
        QCOMPARE(normal, QString::fromUtf8(saved) + QStringLiteral("/Hollowmere"));
    }

private:
    static spdlog::logger loggerFor(const std::shared_ptr<HMRollingFileSink> &sink)
    {
        sink->set_formatter(std::make_unique<HMSpdlogFormatter>());
        spdlog::logger logger("test", sink);
        logger.set_level(spdlog::level::trace);
        return logger;
    }
    static int fileCount(const QString &dir) { return QDir(dir).entryList(QDir::Files).size(); }

    std::unique_ptr<QTemporaryDir> m_home;
};

QTEST_GUILESS_MAIN(HMLoggingTest)
#include "HMLoggingTest.moc"
