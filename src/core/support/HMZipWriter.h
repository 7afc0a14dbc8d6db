// Writes a standard zip archive of named members (deflate at level 9, each member stamped
// with the given local time) for the diagnostics upload. Members arrive already compressed
// (HMDeflatedLog) and are stored as they are, so writing costs no second copy of any member
// and no compressor state.
//
// The archive is written under a temporary name in the destination's folder and renamed
// over the destination only once it is whole, so an existing archive is replaced at once
// and a full or unwritable folder, or a crash half-way, never leaves a truncated archive
// under the real name. Safe on any thread; used from the background pool.
#pragma once

#include "HMDeflatedLog.h"
#include "HMError.h"

#include <QDateTime>
#include <QList>
#include <QPair>
#include <QString>

namespace HMZipWriter {

using Members = QList<QPair<QString, HMDeflatedLog>>;

// No error when `path` now holds the whole archive; otherwise the reason, and `path` is as
// it was before the call.
HMMaybeError write(const QString &path, const Members &members, const QDateTime &stamp);

} // namespace HMZipWriter
