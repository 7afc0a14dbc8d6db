#include "RefListener.h"

#include <openssl/ssl.h>

std::unique_ptr<RefListener> RefListener::create(const QJsonObject &config, QString *error)
{
    std::unique_ptr<RefListener> listener(new RefListener);
    listener->m_name = config.value(QStringLiteral("name")).toString();
    listener->m_address =
        config.value(QStringLiteral("address")).toString(QStringLiteral("127.0.0.1"));
    listener->m_port = config.value(QStringLiteral("port")).toInt(0);
    const QString cert = config.value(QStringLiteral("cert")).toString();
    const QString key = config.value(QStringLiteral("key")).toString();
    if (cert.isEmpty()) {
        listener->m_server = std::make_unique<httplib::Server>();
        return listener;
    }
    const std::string certPath = cert.toStdString();
    const std::string keyPath = (key.isEmpty() ? cert : key).toStdString();
    auto server = std::make_unique<httplib::SSLServer>([&](SSL_CTX &context) {
        return SSL_CTX_use_certificate_chain_file(&context, certPath.c_str()) == 1 &&
               SSL_CTX_use_PrivateKey_file(&context, keyPath.c_str(), SSL_FILETYPE_PEM) == 1 &&
               SSL_CTX_check_private_key(&context) == 1;
    });
    if (!server->is_valid()) {
        *error = QStringLiteral("listener %1: cannot load certificate %2 / key %3")
                     .arg(listener->m_name, cert, key);
        return nullptr;
    }
    listener->m_server = std::move(server);
    return listener;
}

namespace {
constexpr size_t kWorkers = 64;
}

RefListener::~RefListener()
{
    stop();
}

bool RefListener::bind(QString *error)
{
    // A real service's front end answers without Nagle's delay; without this, a request on a
    // kept connection waits some 40 ms for the client's delayed acknowledgement.
    m_server->set_tcp_nodelay(true);
    // Every open block stream and every idle kept connection holds a worker until it ends
    // (kept ones for the keep-alive time, seconds). With the library's eight workers a test
    // that reopens streams and polls the state queues behind them and waits for seconds.
    m_server->new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
    const std::string address = m_address.toStdString();
    if (m_port == 0) {
        m_port = m_server->bind_to_any_port(address);
        if (m_port < 0) {
            *error = QStringLiteral("listener %1: cannot bind %2").arg(m_name, m_address);
            return false;
        }
        return true;
    }
    if (!m_server->bind_to_port(address, m_port)) {
        *error =
            QStringLiteral("listener %1: cannot bind %2:%3").arg(m_name, m_address).arg(m_port);
        return false;
    }
    return true;
}

void RefListener::start()
{
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
}

void RefListener::stop()
{
    if (m_thread.joinable()) {
        m_server->stop();
        m_thread.join();
    }
}
