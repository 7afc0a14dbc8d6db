#include "HMHelperPeerProcess.h"

#include "HMTestEnvironment.h"
#include "HMWireCodec.h"

#include <QDeadlineTimer>
#include <QFile>
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
    // The socket file appears at bind(), before listen(): a client that connects in between
    // is refused. Waiting for the file alone made a test's first request fail now and then
    // on a busy machine.
    const QDeadlineTimer deadline(10000);
    while (!isListening(m_socketPath)) {
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
            m_error = QStringLiteral("the socket %1 did not start listening").arg(m_socketPath);
            return false;
        }
        QThread::msleep(10);
    }
    return true;
}

bool HMHelperPeerProcess::isListening(const QString &socketPath)
{
    // Connecting to find out would hand the peer a connection of its own (and end the
    // backlog of a program that never accepts), so the kernel's table is read instead.
    QFile table(QStringLiteral("/proc/net/unix"));
    if (!table.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return false;
    }
    constexpr quint32 kAcceptingConnections = 0x10000; // __SO_ACCEPTCON: listen() was called
    const QByteArray path = QFile::encodeName(socketPath);
    table.readLine(); // the column titles
    while (!table.atEnd()) {
        // Num RefCount Protocol Flags Type St Inode Path
        const QList<QByteArray> fields = table.readLine().simplified().split(' ');
        if (fields.size() >= 8 && fields.at(7) == path &&
            (fields.at(3).toUInt(nullptr, 16) & kAcceptingConnections) != 0) {
            return true;
        }
    }
    return false;
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
