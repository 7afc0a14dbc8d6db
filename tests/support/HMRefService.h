// Runs the reference service (testing/refservice) for one test and scripts it through its
// control API. Control calls are plain blocking HTTP/1.0 exchanges that never spin the
// event loop, so a client request in flight cannot complete in the middle of one.
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

class HMRefService
{
public:
    HMRefService();
    ~HMRefService();
    HMRefService(const HMRefService &) = delete;
    HMRefService &operator=(const HMRefService &) = delete;

    static QString executable();

    // `config` is the service's script (listeners, accounts, faults, fallroot, ...); a
    // control listener on 127.0.0.1 and an uploads folder are added when it has none.
    bool start(QJsonObject config, QString *error);
    void stop();
    // Scripts a service that runs elsewhere (the VPN lab's) through its control API.
    void attach(const QString &controlHost, int controlPort);
    int controlPort() const { return m_controlPort; }
    int port(const QString &listener) const;

    // One control call; the reply's JSON object (empty when it had none).
    QJsonObject call(const QByteArray &method, const QString &path,
                     const QJsonObject &body = QJsonObject(), int *status = nullptr);

    QJsonObject putAccount(const QJsonObject &account);
    QJsonObject updateAccount(const QJsonObject &fields);
    bool removeAccount(const QString &username);
    void addFault(const QJsonObject &fault);
    void clearFaults();
    void setFallroot(const QJsonObject &fallroot);
    QJsonArray requests();
    // The requests whose path is `path`, in the order they arrived.
    QJsonArray requestsTo(const QString &path);
    void clearRequests();
    QJsonArray uploads();
    QByteArray uploadData(int index);
    QJsonObject account(const QString &username);

private:
    // One HTTP/1.0 exchange with the control listener; the reply's body.
    QByteArray exchange(const QByteArray &method, const QString &path, const QByteArray &payload,
                        int *status = nullptr);

    QProcess m_process;
    QTemporaryDir m_directory;
    QJsonObject m_ports;
    int m_controlPort = 0;
    QString m_controlHost = QStringLiteral("127.0.0.1");
};
