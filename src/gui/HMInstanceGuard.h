// One running Hollowmere per user: the first instance listens on a socket in the user's
// runtime folder; a later launch finds it there, asks it to come forward and exits. A
// socket left by a crashed instance answers nobody and is replaced.
#pragma once

#include <QObject>

class QLocalServer;

class HMInstanceGuard : public QObject
{
    Q_OBJECT
public:
    explicit HMInstanceGuard(const QString &socketPath = defaultSocketPath(),
                             QObject *parent = nullptr);

    static QString defaultSocketPath();

    // True when this process is now the instance; false when another one was asked to
    // come forward (this one should exit).
    bool claim();

Q_SIGNALS:
    void raiseRequested();

private:
    QString m_path;
    QLocalServer *m_server = nullptr;
};
