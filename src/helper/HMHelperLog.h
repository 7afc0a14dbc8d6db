// The helper's own log, daemon.log in its log directory (root-only), mirrored to standard
// error so that the service manager's journal has it too. Every refusal is written here;
// the application collects the file through "getLogs". The file is rolled once it passes a
// size limit so that a client sending refused requests all day cannot fill the disk.
#pragma once

#include <QString>

class HMHelperLog
{
public:
    explicit HMHelperLog(const QString &path, qint64 rollSize = 1024 * 1024);
    HMHelperLog(const HMHelperLog &) = delete;
    HMHelperLog &operator=(const HMHelperLog &) = delete;

    void write(const QString &message);
    QString path() const { return m_path; }

private:
    QString m_path;
    qint64 m_rollSize;
};
