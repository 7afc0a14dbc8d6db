// String and byte shortcuts used across the client.
#pragma once

#include <QByteArray>
#include <QString>

// Plain, case-sensitive substring test.
bool contains(const QString &receiver, const QString &needle);

// True only when the WHOLE receiver matches the pattern, despite the name: a pattern that
// matches inside the string is not enough. Callers rely on this; an invalid pattern is false.
bool containsRegex(const QString &receiver, const QString &pattern);

// Appends UTF-8 text or bytes to the file, creating it (not its directory) when missing.
// False when the file cannot be opened or written.
bool appendToFile(const QString &text, const QString &path);
bool appendToFile(const QByteArray &data, const QString &path);
