#include "HMHelperPeerProcess.h"

#include "HMTestEnvironment.h"
#include "HMWireCodec.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QThread>
#include <csignal>
#include <cstdio>
#include <sys/types.h>

HMHelperPeerProcess::HMHelperPeerProcess() : m_dir(QStringLiteral("/tmp/hmpeer-XXXXXX"))
{
    m_socketPath = m_dir.filePath(QStringLiteral("helper.socket"));
    m_scriptPath = m_dir.filePath(QStringLiteral("script.json"));
    m_recordPath = m_dir.filePath(QStringLiteral("requests.jsonl"));
    setScript(QJsonObject());
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // Its own process group, so stop() reaches whatever the program started.
    m_process.setChildProcessModifier([] { ::setpgid(0, 0); });
}

HMHelperPeerProcess::~HMHelperPeerProcess()
{
    stop();
}

QString HMHelperPeerProcess::peerProgram()
{
    return HMTestEnvironment::buildDir() + QStringLiteral("/tests/support/hm-test-helper-peer");
}

bool HMHelperPeerProcess::start()
{
    return start(peerProgram(), {QStringLiteral("serve"), m_scriptPath, m_recordPath});
}

bool HMHelperPeerProcess::start(const QString &program, const QStringList &arguments)
{
    const QString activate =
        HMTestEnvironment::findProgram(QStringLiteral("systemd-socket-activate"));
    if (activate.isEmpty()) {
        m_error = QStringLiteral("systemd-socket-activate is not installed");
        return false;
    }
    QStringList args{QStringLiteral("--listen=") + m_socketPath,
                     QStringLiteral("--fdname=MasterSocket"), program};
    args += arguments;
    m_process.start(activate, args);
    if (!m_process.waitForStarted(5000)) {
        m_error = m_process.errorString();
        return false;
    }
    const QDeadlineTimer deadline(10000);
    while (!QFileInfo(m_socketPath).exists()) {
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
            m_error = QStringLiteral("the socket %1 did not appear").arg(m_socketPath);
            return false;
        }
        QThread::msleep(10);
    }
    return true;
}

void HMHelperPeerProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning) {
        return;
    }
    const qint64 pid = m_process.processId();
    if (pid > 0) {
        ::kill(-static_cast<pid_t>(pid), SIGKILL);
    }
    m_process.waitForFinished(5000);
}

bool HMHelperPeerProcess::isRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

void HMHelperPeerProcess::setScript(const QJsonObject &script)
{
    m_script = script;
    QFile file(m_scriptPath + QStringLiteral(".new"));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QJsonDocument(script).toJson());
        file.close();
        // Replace in one step so the peer never reads half a script.
        std::rename(QFile::encodeName(file.fileName()).constData(),
                    QFile::encodeName(m_scriptPath).constData());
    }
}

void HMHelperPeerProcess::setStep(const QString &action, const QJsonObject &step)
{
    QJsonObject script = m_script;
    script.insert(action, step);
    setScript(script);
}

void HMHelperPeerProcess::setReply(const QString &action, const QJsonObject &reply)
{
    setStep(action, QJsonObject{{QStringLiteral("reply"), reply}});
}

void HMHelperPeerProcess::setCborReply(const QString &action, const QCborMap &reply)
{
    const QByteArray payload = encode_dictionary(reply);
    const auto length = static_cast<quint64>(payload.size());
    const QByteArray frame =
        QByteArray(reinterpret_cast<const char *>(&length), sizeof length) + payload;
    setStep(action, QJsonObject{{QStringLiteral("rawHex"), QString::fromLatin1(frame.toHex())}});
}

QList<QJsonObject> HMHelperPeerProcess::requests() const
{
    return HMTestEnvironment::readJsonLines(m_recordPath);
}

QStringList HMHelperPeerProcess::actions() const
{
    QStringList names;
    for (const QJsonObject &entry : requests()) {
        names.append(entry.value(QStringLiteral("request"))
                         .toObject()
                         .value(QStringLiteral("action"))
                         .toString());
    }
    return names;
}
