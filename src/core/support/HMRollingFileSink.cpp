#include "HMRollingFileSink.h"

#include "HMDirectoryEntries.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>

namespace {
const QString kPrefix = QStringLiteral("Hollowmere ");
const QString kSuffix = QStringLiteral(".log");
const QString kStampFormat = QStringLiteral("yyyy-MM-dd--HH-mm-ss-zzz");
} // namespace

HMRollingFileSink::HMRollingFileSink(const QString &directory, qint64 maximumFileSize,
                                     qint64 rollingFrequencySecs, int maximumNumberOfLogFiles,
                                     HMClock &clock)
    : m_directory(directory), m_maximumFileSize(maximumFileSize),
      m_rollingFrequencySecs(rollingFrequencySecs),
      m_maximumNumberOfLogFiles(maximumNumberOfLogFiles), m_clock(clock)
{
    std::lock_guard<std::mutex> lock(mutex_);
    openLocked();
}

HMRollingFileSink::~HMRollingFileSink()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (m_file) {
        std::fclose(m_file);
    }
}

QString HMRollingFileSink::currentLogFilePath()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return m_path;
}

QStringList HMRollingFileSink::sortedLogFilePaths()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return sortedPathsLocked();
}

void HMRollingFileSink::rollLogFile()
{
    std::lock_guard<std::mutex> lock(mutex_);
    rollLocked();
}

QStringList HMRollingFileSink::sortedPathsLocked() const
{
    const QStringList names = directory_files_with_affixes(m_directory, kPrefix, kSuffix);
    QStringList paths;
    // The time stamp in the name sorts lexically; the live file is the newest by construction.
    for (auto it = names.crbegin(); it != names.crend(); ++it) {
        paths.append(QDir(m_directory).filePath(*it));
    }
    return paths;
}

QDateTime HMRollingFileSink::openedAtFromName(const QString &path) const
{
    QString name = QFileInfo(path).fileName();
    name = name.mid(kPrefix.size(), name.size() - kPrefix.size() - kSuffix.size());
    return QDateTime::fromString(name.left(kStampFormat.size()), kStampFormat);
}

void HMRollingFileSink::openLocked()
{
    const QStringList existing = sortedPathsLocked();
    if (!existing.isEmpty()) {
        const QString newest = existing.first();
        const QDateTime openedAt = openedAtFromName(newest);
        const qint64 size = QFileInfo(newest).size();
        if (openedAt.isValid() && openedAt.secsTo(m_clock.now()) < m_rollingFrequencySecs &&
            size < m_maximumFileSize) {
            m_file = std::fopen(QFile::encodeName(newest).constData(), "ab");
            if (m_file) {
                m_path = newest;
                m_openedAt = openedAt;
                m_size = size;
                return;
            }
        }
    }
    openNewFileLocked();
    pruneLocked();
}

void HMRollingFileSink::openNewFileLocked()
{
    const QDateTime now = m_clock.now();
    QString path = QDir(m_directory).filePath(kPrefix + now.toString(kStampFormat) + kSuffix);
    // Two rolls within one millisecond (only a virtual clock manages that) get a counter.
    for (int n = 1; QFileInfo::exists(path); ++n) {
        path = QDir(m_directory)
                   .filePath(kPrefix + now.toString(kStampFormat) + QStringLiteral("-%1").arg(n) +
                             kSuffix);
    }
    m_file = std::fopen(QFile::encodeName(path).constData(), "ab");
    m_path = m_file ? path : QString();
    m_openedAt = now;
    m_size = 0;
}

void HMRollingFileSink::rollLocked()
{
    if (m_file) {
        std::fclose(m_file);
        m_file = nullptr;
    }
    openNewFileLocked();
    pruneLocked();
}

void HMRollingFileSink::pruneLocked()
{
    const QStringList paths = sortedPathsLocked();
    int keptArchives = 0;
    for (const QString &path : paths) {
        if (path == m_path) {
            continue;
        }
        if (keptArchives < m_maximumNumberOfLogFiles) {
            ++keptArchives;
        } else {
            QFile::remove(path);
        }
    }
}

void HMRollingFileSink::sink_it_(const spdlog::details::log_msg &msg)
{
    if (m_file && m_openedAt.secsTo(m_clock.now()) >= m_rollingFrequencySecs) {
        rollLocked();
    }
    if (!m_file) {
        return;
    }
    spdlog::memory_buf_t formatted;
    formatter_->format(msg, formatted);
    const size_t written = std::fwrite(formatted.data(), 1, formatted.size(), m_file);
    std::fflush(m_file);
    m_size += static_cast<qint64>(written);
    if (m_size >= m_maximumFileSize) {
        rollLocked();
    }
}

void HMRollingFileSink::flush_()
{
    if (m_file) {
        std::fflush(m_file);
    }
}
