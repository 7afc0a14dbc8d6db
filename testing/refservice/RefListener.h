// One address the reference service listens on: plain HTTP, or HTTPS with a certificate
// chain of the test's making (the chain file is sent as it stands, so a test can present a
// one-certificate chain, a wrong issuer or a wildcard leaf).
#pragma once

#include <QJsonObject>
#include <QString>
#include <httplib.h>
#include <memory>
#include <thread>

class RefListener
{
public:
    // {"name", "address", "port" (0 = any), "cert" (PEM chain, leaf first), "key"}; without
    // "cert" the listener speaks plain HTTP.
    static std::unique_ptr<RefListener> create(const QJsonObject &config, QString *error);
    ~RefListener();

    QString name() const { return m_name; }
    httplib::Server &server() { return *m_server; }
    bool bind(QString *error);
    int port() const { return m_port; }
    void start();
    void stop();

private:
    RefListener() = default;

    QString m_name;
    QString m_address;
    int m_port = 0;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
};
