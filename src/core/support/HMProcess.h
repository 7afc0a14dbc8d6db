// Synchronous runner for the small system tools diagnostics call.
//
// `run` blocks its calling thread until the child has exited, so it is only called from
// the background pool. Outputs are collected while the child runs (a chatty tool cannot
// fill a pipe and hang) but handed back only after it exited, trimmed, as UTF-8; bytes
// that are not valid UTF-8 give no string at all.
#pragma once

#include <QStringList>
#include <optional>

// Returns the exit status, or -1 when the program could not be started or crashed.
int run(const QString &launchPath, const QStringList &arguments,
        std::optional<QString> *output = nullptr, std::optional<QString> *errorOutput = nullptr);

// Decodes strictly: nullopt for malformed UTF-8, otherwise the text trimmed of white space.
std::optional<QString> decode_trimmed_utf8(const QByteArray &bytes);
