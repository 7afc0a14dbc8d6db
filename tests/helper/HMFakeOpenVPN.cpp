// hm-test-fake-openvpn: stands in for OpenVPN when the helper's own rules are under test.
//
// Copied into a test's directory and configured as the helper's trusted OpenVPN, it appends
// one JSON line {"arguments": [...], "environment": [...]} to invocations.jsonl beside
// itself, then does what the file "mode" beside itself says:
//   exit      exit with status 3 at once
//   serve     listen on 127.0.0.1:5678 (as OpenVPN's management interface) until SIGTERM
//   stubborn  listen likewise but ignore SIGTERM, so only SIGKILL ends it
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

extern char **environ;

int main(int argc, char **argv)
{
    char self[4096];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) {
        return 2;
    }
    const QString dir = QFileInfo(QString::fromLocal8Bit(self, static_cast<int>(length))).path();

    QJsonArray arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
    QJsonArray environment;
    for (char **entry = environ; *entry; ++entry) {
        environment.append(QString::fromLocal8Bit(*entry));
    }
    QFile record(dir + QStringLiteral("/invocations.jsonl"));
    if (!record.open(QIODevice::Append)) {
        return 2;
    }
    record.write(QJsonDocument(QJsonObject{{QStringLiteral("arguments"), arguments},
                                           {QStringLiteral("environment"), environment}})
                     .toJson(QJsonDocument::Compact) +
                 '\n');
    record.close();

    QFile modeFile(dir + QStringLiteral("/mode"));
    const QByteArray mode =
        modeFile.open(QIODevice::ReadOnly) ? modeFile.readAll().trimmed() : "exit";
    if (mode != "serve" && mode != "stubborn") {
        return 3;
    }
    if (mode == "stubborn") {
        ::signal(SIGTERM, SIG_IGN);
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(5678);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 1) != 0) {
        return 4;
    }
    for (;;) {
        ::pause();
    }
}
