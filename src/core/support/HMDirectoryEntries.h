// Listing a folder's files by the start and end of their names (log files, autostart
// entries).
//
// Deliberately not QDir's name filters: they go through the regular-expression engine,
// whose code alone would add some 0.4 MiB to the idle application's resident memory, for
// two folders it reads at start-up. Matching is case-sensitive: the log names are ours, and
// autostart entries end in ".desktop" exactly.
#pragma once

#include <QString>
#include <QStringList>

// The names (not paths) of the regular files in `directory` that start with `prefix` and
// end with `suffix` (the two not overlapping), in ascending name order.
QStringList directory_files_with_affixes(const QString &directory, const QString &prefix,
                                         const QString &suffix);
