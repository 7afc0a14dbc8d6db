// Small formatting helpers for the status display and the connecting animation.
#pragma once

#include <QStringList>
#include <cstdint>
#include <functional>

// Whole mebibytes of a byte count, truncated toward zero, followed by ONE blank and no unit.
// Callers append the unit. A negative count prints as its unsigned 64-bit value: kept so,
// because the display never passes one and the old builds printed it the same way.
QString pretty_mb(int64_t bytes);

// prefix1..prefixN (two-digit numbers once N > 9), optionally last-to-first.
QStringList make_frames(const QString &prefix, unsigned long count, bool reversed);

// Developer aid: runs the block and prints "runtime: %f" seconds to standard error,
// never to the application log.
void time_block(const std::function<void()> &block);
