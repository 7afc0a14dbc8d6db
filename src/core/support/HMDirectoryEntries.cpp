#include "HMDirectoryEntries.h"

#include <QDir>

QStringList directory_files_with_affixes(const QString &directory, const QString &prefix,
                                         const QString &suffix)
{
    QStringList names = QDir(directory).entryList(QDir::Files, QDir::Name);
    names.removeIf([&prefix, &suffix](const QString &name) {
        return name.size() < prefix.size() + suffix.size() || !name.startsWith(prefix) ||
               !name.endsWith(suffix);
    });
    return names;
}
