#include "HMVPNTestDoubles.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QTimer>

namespace {
// Later in the event loop, like every completion of the real managers.
void later(std::function<void()> block)
{
    QTimer::singleShot(0, QCoreApplication::instance(), std::move(block));
}
} // namespace

void HMFakeAccount::loginGetToken(bool, Completion completion)
{
    ++tokenRequests;
    if (holdTokenRequests) {
        heldTokenRequests.append(std::move(completion));
        return;
    }
    QPointer<HMFakeAccount> self(this);
    later([self, completion] {
        if (!self) {
            return;
        }
        if (self->beforeTokenAnswer) {
            self->beforeTokenAnswer();
        }
        completion(self->tokenError);
    });
}

void HMFakeAccount::setAllowance(qint64 value)
{
    allowance = value;
    Q_EMIT bandwidthAvailableChanged(value);
}

void HMFakeAccount::setCountry(const QString &value)
{
    const QString old = country;
    country = value;
    Q_EMIT currentCountryChanged(old, value);
}

void HMFakeAccount::setLoggedIn(bool value)
{
    const bool old = loggedIn;
    loggedIn = value;
    Q_EMIT loggedInChanged(old, value);
}

void HMFakeReachability::report(bool value)
{
    reachable = value;
    Q_EMIT reachableChanged(value);
}

QStringList HMFakeHelper::actions() const
{
    QStringList names;
    for (const Request &r : requests) {
        names.append(r.action);
    }
    return names;
}

void HMFakeHelper::answer(const Request &request, Completion completion)
{
    requests.append(request);
    if (held.contains(request.action)) {
        heldAnswers.append({request.action, std::move(completion)});
        return;
    }
    HMMaybeError error;
    if (failing.contains(request.action)) {
        error = failing.value(request.action);
    } else if (!scripted.value(request.action).isEmpty()) {
        error = scripted[request.action].takeFirst();
    }
    later([completion, error] {
        QVariantMap reply{
            {QStringLiteral("status"), error ? QStringLiteral("error") : QStringLiteral("ok")}};
        completion(reply, error);
    });
}

void HMFakeHelper::release(const QString &action)
{
    for (qsizetype i = 0; i < heldAnswers.size();) {
        if (heldAnswers.at(i).first == action) {
            const Completion completion = heldAnswers.takeAt(i).second;
            later([completion] {
                completion({{QStringLiteral("status"), QStringLiteral("ok")}}, std::nullopt);
            });
        } else {
            ++i;
        }
    }
}

void HMFakeClosest::initClosestTest(const QVariantMap &serverGroups, Completion completion)
{
    tests.append(serverGroups);
    if (hold) {
        held.append(std::move(completion));
        return;
    }
    const QString c = country;
    const QVariantList s = servers;
    const HMMaybeError e = error;
    later([completion, c, s, e] { completion(e ? QString() : c, e ? QVariantList() : s, e); });
}

HMFakeManagementServer::HMFakeManagementServer()
{
    QObject::connect(&m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = m_server.nextPendingConnection()) {
            if (m_client) {
                m_client->deleteLater();
            }
            m_client = socket;
            m_pending.clear();
            QObject::connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                m_pending.append(socket->readAll());
                qsizetype end;
                while ((end = m_pending.indexOf('\n')) >= 0) {
                    m_commands.append(QString::fromUtf8(m_pending.left(end)));
                    m_pending.remove(0, end + 1);
                }
            });
        }
    });
    m_server.listen(m_dir.filePath(QStringLiteral("management")));
}

void HMFakeManagementServer::send(const QByteArray &data)
{
    if (m_client) {
        m_client->write(data);
        m_client->flush();
    }
}

void HMFakeManagementServer::sendLines(const QStringList &lines)
{
    QByteArray data;
    for (const QString &line : lines) {
        data.append(line.toUtf8()).append("\r\n");
    }
    send(data);
}

void HMFakeManagementServer::closeClient()
{
    if (m_client) {
        m_client->disconnectFromServer();
        m_client->deleteLater();
        m_client = nullptr;
    }
}
