// Start-up of the application log and access to its file destination.
//
// initializeLogging creates the one rolling file destination (100 KiB, 72 hours, one rolled
// file kept) in the log folder, gives it the shared formatter and makes it the only
// destination: no console, no journal. Until it runs, messages are dropped.
#pragma once

#include "HMClock.h"

#include <QString>
#include <memory>
#include <spdlog/sinks/sink.h>

class HMRollingFileSink;

namespace HMLogging {

constexpr qint64 kMaximumFileSize = 102400;
constexpr qint64 kRollingFrequencySecs = 259200;
constexpr int kMaximumNumberOfLogFiles = 1;

// $XDG_STATE_HOME/Hollowmere (~/.local/state/Hollowmere); when that folder cannot be made,
// a private folder in the temporary directory.
QString logsDirectory();

// Sets up the file destination in `directory` (default: logsDirectory()).
std::shared_ptr<HMRollingFileSink> initializeLogging(const QString &directory = QString(),
                                                     HMClock &clock = HMClock::system());

// The file destination made by initializeLogging, or null before it ran.
std::shared_ptr<HMRollingFileSink> fileLogger();

// Extra destinations (tests capture lines with these).
void addSink(const std::shared_ptr<spdlog::sinks::sink> &sink);
void removeSink(const std::shared_ptr<spdlog::sinks::sink> &sink);

} // namespace HMLogging
