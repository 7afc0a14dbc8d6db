// Runs a helper program under systemd-socket-activate on a private socket path.
//
// By default the program is hm-test-helper-peer in "serve" mode, scripted through
// setScript() and recording every request it receives (requests()). The process, and
// everything it started, is killed when the object goes, also when a test fails half-way.
#pragma once

#include <QCborMap>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

class HMHelperPeerProcess
{
public:
    HMHelperPeerProcess();
    ~HMHelperPeerProcess();
    HMHelperPeerProcess(const HMHelperPeerProcess &) = delete;
    HMHelperPeerProcess &operator=(const HMHelperPeerProcess &) = delete;

    static QString peerProgram();
    // Whether a socket is bound to this path and listening, without connecting to it.
    static bool isListening(const QString &socketPath);

    // Starts `program arguments` (default: the scripted peer in "serve" mode) and waits
    // until the socket listens. False, with errorString(), if that did not happen.
    bool start();
    bool start(const QString &program, const QStringList &arguments);
    void stop();
    bool isRunning() const;

    QString socketPath() const { return m_socketPath; }
    QString workPath() const { return m_dir.path(); }
    QString errorString() const { return m_error; }
    QProcess &process() { return m_process; }

    void setScript(const QJsonObject &script);
    // Sets one action's step, keeping the others.
    void setStep(const QString &action, const QJsonObject &step);
    void setReply(const QString &action, const QJsonObject &reply);
    // The same for a reply JSON cannot express (byte strings): sent as its exact frame.
    void setCborReply(const QString &action, const QCborMap &reply);
    // Every request received so far: {"frame": hex, "request": {...}}.
    QList<QJsonObject> requests() const;
    QStringList actions() const;

private:
    QTemporaryDir m_dir;
    QString m_socketPath;
    QString m_scriptPath;
    QString m_recordPath;
    QJsonObject m_script;
    QProcess m_process;
    QString m_error;
};
