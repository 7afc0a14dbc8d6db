// hm-refservice: a local stand-in for the Hollowmere service, for tests and the demo.
//
//   hm-refservice serve --config FILE
//       Starts every listener of the script and the control API, then prints one line of
//       JSON, {"ready": true, "control": PORT, "listeners": {NAME: PORT, ...}}, on standard
//       output. Runs until SIGTERM or SIGINT.
//   hm-refservice check-token --control HOST:PORT [FILE]
//       Asks a running service whether a user name and VPN token belong together: FILE holds
//       the user name and the token on its first two lines (OpenVPN's via-file); without
//       FILE they come from the environment variables "username" and "password" (via-env).
//       Exits 0 when they do, 1 when they do not, 2 on any other failure.
#include "RefControlRoutes.h"
#include "RefListener.h"
#include "RefServiceRoutes.h"
#include "RefState.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <pthread.h>

namespace {

int usage()
{
    std::cerr << "usage: hm-refservice serve --config FILE\n"
                 "       hm-refservice check-token --control HOST:PORT [FILE]\n";
    return 2;
}

int serve(const QString &configPath)
{
    QFile file(configPath);
    if (!file.open(QIODevice::ReadOnly)) {
        std::cerr << "hm-refservice: cannot read " << configPath.toStdString() << "\n";
        return 2;
    }
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!document.isObject()) {
        std::cerr << "hm-refservice: " << configPath.toStdString()
                  << " is not a JSON object: " << parseError.errorString().toStdString() << "\n";
        return 2;
    }
    const QJsonObject config = document.object();

    // Only the main thread takes the stop signals; every server thread inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    RefState state(config);
    std::vector<std::unique_ptr<RefListener>> listeners;
    QString error;
    for (const QJsonValue &value : config.value(QStringLiteral("listeners")).toArray()) {
        auto listener = RefListener::create(value.toObject(), &error);
        if (!listener || !listener->bind(&error)) {
            std::cerr << "hm-refservice: " << error.toStdString() << "\n";
            return 2;
        }
        ref_install_service_routes(listener->server(), state, listener->name());
        listeners.push_back(std::move(listener));
    }
    QJsonObject controlConfig = config.value(QStringLiteral("control")).toObject();
    controlConfig.insert(QStringLiteral("name"), QStringLiteral("control"));
    controlConfig.remove(QStringLiteral("cert"));
    auto control = RefListener::create(controlConfig, &error);
    if (!control || !control->bind(&error)) {
        std::cerr << "hm-refservice: " << error.toStdString() << "\n";
        return 2;
    }
    ref_install_control_routes(control->server(), state);

    QJsonObject ports;
    for (auto &listener : listeners) {
        listener->start();
        ports.insert(listener->name(), listener->port());
    }
    control->start();
    const QJsonObject ready{{QStringLiteral("ready"), true},
                            {QStringLiteral("control"), control->port()},
                            {QStringLiteral("listeners"), ports}};
    std::cout << QJsonDocument(ready).toJson(QJsonDocument::Compact).toStdString() << std::endl;

    int received = 0;
    sigwait(&signals, &received);
    state.stop();
    for (auto &listener : listeners) {
        listener->stop();
    }
    control->stop();
    return 0;
}

int checkToken(const QString &control, const QString &credentialsFile)
{
    QString username;
    QString token;
    if (credentialsFile.isEmpty()) {
        username = qEnvironmentVariable("username");
        token = qEnvironmentVariable("password");
    } else {
        QFile file(credentialsFile);
        if (!file.open(QIODevice::ReadOnly)) {
            std::cerr << "hm-refservice: cannot read " << credentialsFile.toStdString() << "\n";
            return 2;
        }
        const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
        username = lines.value(0).trimmed();
        token = lines.value(1).trimmed();
    }
    const QString host = control.section(QLatin1Char(':'), 0, 0);
    const int port = control.section(QLatin1Char(':'), 1).toInt();
    if (host.isEmpty() || port <= 0) {
        return usage();
    }
    httplib::Client client(host.toStdString(), port);
    const httplib::Params query{{"username", username.toStdString()},
                                {"token", token.toStdString()}};
    const auto result = client.Get("/test/checkToken", query, httplib::Headers());
    if (!result) {
        std::cerr << "hm-refservice: no answer from " << control.toStdString() << "\n";
        return 2;
    }
    return result->status == 200 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
    const QString mode = arguments.value(0);
    if (mode == QLatin1String("serve") && arguments.value(1) == QLatin1String("--config") &&
        arguments.size() == 3) {
        return serve(arguments.value(2));
    }
    if (mode == QLatin1String("check-token") && arguments.value(1) == QLatin1String("--control") &&
        (arguments.size() == 3 || arguments.size() == 4)) {
        return checkToken(arguments.value(2), arguments.value(3));
    }
    return usage();
}
