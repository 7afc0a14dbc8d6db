#include "HMRefService.h"

#include "HMTestEnvironment.h"

#include <QFile>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QUrlQuery>

HMRefService::HMRefService() = default;

HMRefService::~HMRefService()
{
    stop();
}

QString HMRefService::executable()
{
    return HMTestEnvironment::buildDir() + QStringLiteral("/testing/refservice/hm-refservice");
}

bool HMRefService::start(QJsonObject config, QString *error)
{
    if (!config.contains(QStringLiteral("control"))) {
        config.insert(QStringLiteral("control"),
                      QJsonObject{{QStringLiteral("address"), QStringLiteral("127.0.0.1")},
                                  {QStringLiteral("port"), 0}});
    }
    if (!config.contains(QStringLiteral("uploadsDir"))) {
        config.insert(QStringLiteral("uploadsDir"),
                      QString(m_directory.path() + QStringLiteral("/uploads")));
    }
    const QString configPath = m_directory.path() + QStringLiteral("/refservice.json");
    QFile file(configPath);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(config).toJson()) < 0) {
        *error = file.errorString();
        return false;
    }
    file.close();

    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(executable(),
                    {QStringLiteral("serve"), QStringLiteral("--config"), configPath});
    if (!m_process.waitForStarted(10000)) {
        *error = QStringLiteral("cannot start %1: %2").arg(executable(), m_process.errorString());
        return false;
    }
    QByteArray line;
    while (!line.contains('\n')) {
        if (!m_process.waitForReadyRead(10000)) {
            *error = QStringLiteral("the reference service did not report ready");
            stop();
            return false;
        }
        line += m_process.readAllStandardOutput();
    }
    const QJsonObject ready = QJsonDocument::fromJson(line.left(line.indexOf('\n'))).object();
    if (!ready.value(QStringLiteral("ready")).toBool()) {
        *error = QStringLiteral("unexpected first line from the reference service: ") +
                 QString::fromUtf8(line);
        stop();
        return false;
    }
    m_controlPort = ready.value(QStringLiteral("control")).toInt();
    m_ports = ready.value(QStringLiteral("listeners")).toObject();
    return true;
}

void HMRefService::stop()
{
    if (m_process.state() == QProcess::NotRunning) {
        return;
    }
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

void HMRefService::attach(const QString &controlHost, int controlPort)
{
    m_controlHost = controlHost;
    m_controlPort = controlPort;
}

int HMRefService::port(const QString &listener) const
{
    return m_ports.value(listener).toInt();
}

QByteArray HMRefService::exchange(const QByteArray &method, const QString &path,
                                  const QByteArray &payload, int *status)
{
    if (status) {
        *status = 0;
    }
    QTcpSocket socket;
    socket.connectToHost(m_controlHost, static_cast<quint16>(m_controlPort));
    if (!socket.waitForConnected(5000)) {
        return QByteArray();
    }
    QByteArray request =
        method + ' ' + path.toUtf8() + " HTTP/1.0\r\nHost: " + m_controlHost.toUtf8() + "\r\n";
    request +=
        "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(payload.size()) +
        "\r\n\r\n" + payload;
    socket.write(request);
    QByteArray response;
    while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(10000)) {
        response += socket.readAll();
    }
    response += socket.readAll();
    if (status) {
        *status = response.mid(9, 3).toInt();
    }
    const qsizetype split = response.indexOf("\r\n\r\n");
    return split < 0 ? QByteArray() : response.mid(split + 4);
}

QJsonObject HMRefService::call(const QByteArray &method, const QString &path,
                               const QJsonObject &body, int *status)
{
    const QByteArray payload = body.isEmpty() && method != "POST"
                                   ? QByteArray()
                                   : QJsonDocument(body).toJson(QJsonDocument::Compact);
    return QJsonDocument::fromJson(exchange(method, path, payload, status)).object();
}

QJsonObject HMRefService::putAccount(const QJsonObject &account)
{
    return call("POST", QStringLiteral("/test/accounts"), account)
        .value(QStringLiteral("accounts"))
        .toArray()
        .first()
        .toObject();
}

QJsonObject HMRefService::updateAccount(const QJsonObject &fields)
{
    return call("POST", QStringLiteral("/test/accounts/update"), fields);
}

bool HMRefService::removeAccount(const QString &username)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("username"), username);
    int status = 0;
    call("DELETE", QStringLiteral("/test/accounts?") + query.toString(QUrl::FullyEncoded), {},
         &status);
    return status == 200;
}

void HMRefService::addFault(const QJsonObject &fault)
{
    call("POST", QStringLiteral("/test/faults"), fault);
}

void HMRefService::clearFaults()
{
    call("DELETE", QStringLiteral("/test/faults"));
}

void HMRefService::setFallroot(const QJsonObject &fallroot)
{
    call("POST", QStringLiteral("/test/fallroot"), fallroot);
}

QJsonArray HMRefService::requests()
{
    return call("GET", QStringLiteral("/test/requests"))
        .value(QStringLiteral("requests"))
        .toArray();
}

QJsonArray HMRefService::requestsTo(const QString &path)
{
    QJsonArray matching;
    for (const QJsonValue &entry : requests()) {
        if (entry.toObject().value(QStringLiteral("path")).toString() == path) {
            matching.append(entry);
        }
    }
    return matching;
}

void HMRefService::clearRequests()
{
    call("DELETE", QStringLiteral("/test/requests"));
}

QJsonArray HMRefService::uploads()
{
    return call("GET", QStringLiteral("/test/uploads")).value(QStringLiteral("uploads")).toArray();
}

QByteArray HMRefService::uploadData(int index)
{
    return exchange("GET", QStringLiteral("/test/uploads/%1/data").arg(index), QByteArray());
}

QJsonObject HMRefService::account(const QString &username)
{
    for (const QJsonValue &entry :
         call("GET", QStringLiteral("/test/state")).value(QStringLiteral("accounts")).toArray()) {
        if (entry.toObject().value(QStringLiteral("username")).toString() == username) {
            return entry.toObject();
        }
    }
    return QJsonObject();
}
