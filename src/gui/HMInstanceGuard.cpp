#include "HMInstanceGuard.h"

#include "HMLog.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <unistd.h>

namespace {
constexpr int kConnectMs = 1000;
} // namespace

HMInstanceGuard::HMInstanceGuard(const QString &socketPath, QObject *parent)
    : QObject(parent), m_path(socketPath)
{}

QString HMInstanceGuard::defaultSocketPath()
{
    QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty()) {
        runtime = QDir::tempPath() + QStringLiteral("/hollowmere-%1").arg(::getuid());
        QDir().mkpath(runtime);
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    return runtime + QStringLiteral("/hollowmere.instance");
}

bool HMInstanceGuard::claim()
{
    QLocalSocket probe;
    probe.connectToServer(m_path);
    if (probe.waitForConnected(kConnectMs)) {
        probe.write("raise\n");
        probe.waitForBytesWritten(kConnectMs);
        probe.disconnectFromServer();
        return false;
    }
    QLocalServer::removeServer(m_path); // a socket nobody answers on
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(m_path)) {
        // Not fatal: the application runs, only a second launch will not find it.
        HMLogError(QStringLiteral("Cannot listen on %1: %2").arg(m_path, m_server->errorString()));
        return true;
    }
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *client = m_server->nextPendingConnection()) {
            connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            Q_EMIT raiseRequested();
        }
    });
    return true;
}
