#include "HMLogging.h"

#include "HMLog.h"
#include "HMLogFormatter.h"
#include "HMRollingFileSink.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QStandardPaths>
#include <spdlog/logger.h>
#include <unistd.h>

namespace {

QMutex g_mutex;
std::shared_ptr<HMRollingFileSink> g_fileSink;

spdlog::logger &appLogger()
{
    static spdlog::logger logger("Hollowmere");
    static const bool configured = [] {
        logger.set_level(spdlog::level::trace);
        logger.flush_on(spdlog::level::trace);
        return true;
    }();
    Q_UNUSED(configured);
    return logger;
}

spdlog::level::level_enum levelForFlag(HMLogFlag flag)
{
    switch (flag) {
    case HMLogFlag::Error:
        return spdlog::level::err;
    case HMLogFlag::Warning:
        return spdlog::level::warn;
    case HMLogFlag::Info:
        return spdlog::level::info;
    default:
        return spdlog::level::debug;
    }
}

bool makePrivateDirectory(const QString &path)
{
    if (!QDir().mkpath(path)) {
        return false;
    }
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return QFileInfo(path).isDir() && QFileInfo(path).isWritable();
}

} // namespace

void hm_log(HMLogFlag flag, const char *file, int line, const QString &message)
{
    const QByteArray text = message.toUtf8();
    appLogger().log(spdlog::source_loc{file, line, ""}, levelForFlag(flag), "{}",
                    std::string_view(text.constData(), static_cast<size_t>(text.size())));
}

namespace HMLogging {

QString logsDirectory()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || !QDir::isAbsolutePath(state)) {
        state = QDir::homePath() + QStringLiteral("/.local/state");
    }
    const QString preferred = state + QStringLiteral("/Hollowmere");
    if (makePrivateDirectory(preferred)) {
        return preferred;
    }
    // Per user, so another account on the machine cannot pre-create it for us.
    const QString fallback =
        QDir::tempPath() + QStringLiteral("/Hollowmere-%1").arg(static_cast<qulonglong>(getuid()));
    makePrivateDirectory(fallback);
    return fallback;
}

std::shared_ptr<HMRollingFileSink> initializeLogging(const QString &directory, HMClock &clock)
{
    const QString folder = directory.isEmpty() ? logsDirectory() : directory;
    QDir().mkpath(folder);
    auto sink = std::make_shared<HMRollingFileSink>(folder, kMaximumFileSize, kRollingFrequencySecs,
                                                    kMaximumNumberOfLogFiles, clock);
    sink->set_formatter(std::make_unique<HMSpdlogFormatter>());
    QMutexLocker locker(&g_mutex);
    auto &sinks = appLogger().sinks();
    if (g_fileSink) {
        sinks.erase(std::remove(sinks.begin(), sinks.end(), g_fileSink), sinks.end());
    }
    g_fileSink = sink;
    sinks.push_back(sink);
    return sink;
}

std::shared_ptr<HMRollingFileSink> fileLogger()
{
    QMutexLocker locker(&g_mutex);
    return g_fileSink;
}

void addSink(const std::shared_ptr<spdlog::sinks::sink> &sink)
{
    QMutexLocker locker(&g_mutex);
    appLogger().sinks().push_back(sink);
}

void removeSink(const std::shared_ptr<spdlog::sinks::sink> &sink)
{
    QMutexLocker locker(&g_mutex);
    auto &sinks = appLogger().sinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink), sinks.end());
}

} // namespace HMLogging
