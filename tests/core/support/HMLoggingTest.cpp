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
    void initTestCase();

    void formatsLineAtFixedTime();
    void levelLetters_data();
    void levelLetters();
    void macroCapturesFileAndLine();
    void rollsBySizeKeepingOneRolledFile();
    void rollsByAgeOnVirtualClock();
    void reusesYoungFileAtStart();
    void startsNewFileWhenNewestIsTooOld();
    void formatterPerThreadOnlyWithSeveralLoggers();
    void logsFolderFallsBackToTemporaryDirectory();

private:
    static spdlog::logger loggerFor(const std::shared_ptr<HMRollingFileSink> &sink);
    static int fileCount(const QString &dir);

    std::unique_ptr<QTemporaryDir> m_home;
};

void HMLoggingTest::initTestCase()
{
    m_home = HMTestEnvironment::isolateUserDirectories();
}

spdlog::logger HMLoggingTest::loggerFor(const std::shared_ptr<HMRollingFileSink> &sink)
{
    sink->set_formatter(std::make_unique<HMSpdlogFormatter>());
    spdlog::logger logger("test", sink);
    logger.set_level(spdlog::level::trace);
    return logger;
}

int HMLoggingTest::fileCount(const QString &dir)
{
    return QDir(dir).entryList(QDir::Files).size();
}

void HMLoggingTest::formatsLineAtFixedTime()
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

void HMLoggingTest::levelLetters_data()
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

void HMLoggingTest::levelLetters()
{
    QFETCH(int, flag);
    QFETCH(QString, letter);
    QCOMPARE(HMLogFormatter::levelLetter(flag), letter);
}

void HMLoggingTest::macroCapturesFileAndLine()
{
    HMLogCapture capture;
    const int line = __LINE__ + 1;
    HMLogError(QStringLiteral("Could not stop daemon: %1").arg(QStringLiteral("gone")));
    QCOMPARE(capture.lines().size(), 1);
    const QString expectedTail =
        QStringLiteral(" [E]HMLoggingTest:%1> Could not stop daemon: gone").arg(line);
    QVERIFY2(capture.lines().first().endsWith(expectedTail), qPrintable(capture.lines().first()));
    QVERIFY(QDateTime::fromString(capture.lines().first().left(23),
                                  QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz"))
                .isValid());
}

void HMLoggingTest::rollsBySizeKeepingOneRolledFile()
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

void HMLoggingTest::rollsByAgeOnVirtualClock()
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

void HMLoggingTest::reusesYoungFileAtStart()
{
    QTemporaryDir dir;
    HMManualClock clock(QDateTime::currentDateTime());
    QString path;
    {
        auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
        spdlog::logger logger = loggerFor(sink);
        logger.error("before restart");
        path = sink->currentLogFilePath();
    }
    clock.advance(3600 * 1000);
    auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
    spdlog::logger logger = loggerFor(sink);
    logger.error("after restart");
    QCOMPARE(sink->currentLogFilePath(), path);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray content = file.readAll();
    QVERIFY(content.contains("before restart") && content.contains("after restart"));
}

void HMLoggingTest::startsNewFileWhenNewestIsTooOld()
{
    QTemporaryDir dir;
    HMManualClock clock(QDateTime::currentDateTime());
    QString path;
    {
        auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
        path = sink->currentLogFilePath();
    }
    clock.advance(259200 * 1000LL);
    auto sink = std::make_shared<HMRollingFileSink>(dir.path(), 102400, 259200, 1, clock);
    QVERIFY(sink->currentLogFilePath() != path);
    QCOMPARE(sink->sortedLogFilePaths(), (QStringList{sink->currentLogFilePath(), path}));
}

void HMLoggingTest::formatterPerThreadOnlyWithSeveralLoggers()
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
        // Bring the count to exactly one logger.
        std::vector<std::unique_ptr<HMSpdlogFormatter>> extra;
        while (formatter.loggerCount() < 1) {
            extra.push_back(std::make_unique<HMSpdlogFormatter>());
        }
        if (formatter.loggerCount() == 1) {
            QCOMPARE(addressOnOtherThread(), &formatter.dateFormatter());
        }
        HMSpdlogFormatter second;
        HMSpdlogFormatter third;
        QVERIFY(formatter.loggerCount() > 1);
        QVERIFY(addressOnOtherThread() != &formatter.dateFormatter());
    }
    QCOMPARE(formatter.loggerCount(), base);
}

void HMLoggingTest::logsFolderFallsBackToTemporaryDirectory()
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

QTEST_GUILESS_MAIN(HMLoggingTest)
#include "HMLoggingTest.moc"
