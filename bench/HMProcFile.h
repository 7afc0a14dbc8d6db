// Reads one "Name:   value kB" line of a /proc file (status, smaps_rollup), as every
// memory figure of the benchmarks is read: -1 when the file or the line is missing.
#pragma once

#include <QFile>
#include <QString>

class HMProcFile
{
public:
    static qint64 fieldKiB(const QString &path, const char *field)
    {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            return -1;
        }
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (line.startsWith(field)) {
                return line.mid(qstrlen(field)).trimmed().split(' ').value(0).toLongLong();
            }
        }
        return -1;
    }
};
