// The text format of the selective-routing domain files, and reading and writing them.
//
// One domain per line, every line ended by "\n", UTF-8, nothing else. Reading is
// deliberately literal: a "\r" stays part of its domain, blank lines stay as empty
// entries, nothing is trimmed, sorted or de-duplicated, because the DNS proxy reads the
// same bytes and the editor shows exactly what it will use. Only one empty piece after
// the final "\n" is dropped, so a written list reads back unchanged.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class HMDomainListFile
{
public:
    enum class ReadResult
    {
        Loaded,
        Missing,
        // Exists but cannot be used: a directory, unreadable, or not UTF-8.
        Unreadable,
    };

    static QStringList parse(const QString &text);
    static QByteArray serialize(const QStringList &domains);

    // Reads `path` into `domains` (untouched unless Loaded); `why` receives the reason for
    // Unreadable. Invalid UTF-8 is Unreadable, never decoded with replacement characters.
    static ReadResult read(const QString &path, QStringList *domains, QString *why);
    // Replaces the file atomically; on failure the old file is left as it was.
    static bool write(const QString &path, const QStringList &domains, QString *why);

    // `directory` followed by `components`, for a shell command line: every component that
    // holds a space is wrapped in double quotes and nothing else is escaped.
    static QString shellPath(const QString &directory, const QStringList &components);
};
