// The one file destination of the application log, rolling by size and by age.
//
// Files are named "Hollowmere <opened local time>.log" in the log folder. The live file
// rolls once it reaches `maximumFileSize` bytes or once it is `rollingFrequency` seconds
// old; after a roll only the `maximumNumberOfLogFiles` newest rolled files stay beside the
// live one. At start the newest file is reused while it is still young and small enough.
// Time comes from an HMClock so tests can age a file without waiting.
#pragma once

#include "HMClock.h"

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <cstdio>
#include <mutex>
#include <spdlog/sinks/base_sink.h>

class HMRollingFileSink : public spdlog::sinks::base_sink<std::mutex>
{
public:
    HMRollingFileSink(const QString &directory, qint64 maximumFileSize, qint64 rollingFrequencySecs,
                      int maximumNumberOfLogFiles, HMClock &clock = HMClock::system());
    ~HMRollingFileSink() override;
    HMRollingFileSink(const HMRollingFileSink &) = delete;
    HMRollingFileSink &operator=(const HMRollingFileSink &) = delete;

    QString logsDirectory() const { return m_directory; }
    QString currentLogFilePath();
    // Every log file in the folder, newest first (the live file leads).
    QStringList sortedLogFilePaths();
    // Rolls now, whatever the size and age.
    void rollLogFile();

protected:
    void sink_it_(const spdlog::details::log_msg &msg) override;
    void flush_() override;

private:
    QStringList sortedPathsLocked() const;
    void openLocked();
    void openNewFileLocked();
    void rollLocked();
    void pruneLocked();
    QDateTime openedAtFromName(const QString &path) const;

    QString m_directory;
    qint64 m_maximumFileSize;
    qint64 m_rollingFrequencySecs;
    int m_maximumNumberOfLogFiles;
    HMClock &m_clock;
    std::FILE *m_file = nullptr;
    QString m_path;
    QDateTime m_openedAt;
    qint64 m_size = 0;
};
