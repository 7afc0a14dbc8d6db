// hm-test-fake-openvpn: stands in for OpenVPN when the helper's own rules are under test.
//
// Copied into a test's directory and configured as the helper's trusted OpenVPN, it appends
// one JSON line {"arguments": [...], "environment": [...]} to invocations.jsonl beside
// itself, then does what the file "mode" beside itself says:
//   exit      exit with status 3 at once
//   serve     listen on the "--management <path> unix" socket until SIGTERM
//   stubborn  listen likewise but ignore SIGTERM, so only SIGKILL ends it
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
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
    QByteArray path;
    for (int i = 1; i + 2 < argc; ++i) {
        if (qstrcmp(argv[i], "--management") == 0 && qstrcmp(argv[i + 2], "unix") == 0) {
            path = argv[i + 1];
        }
    }
    sockaddr_un address{};
    if (path.isEmpty() || static_cast<size_t>(path.size()) >= sizeof(address.sun_path)) {
        return 4;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    address.sun_family = AF_UNIX;
    ::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 1) != 0) {
        return 4;
    }
    for (;;) {
        ::pause();
    }
}
