// hm-test-helper-probe: one request to the helper from whatever user runs it (tests start
// it through setpriv as another user). Prints the reply as JSON, or "transport: <error>".
//
//   hm-test-helper-probe <socket> <action | whole request as a JSON object>
#include "HMWireCodec.h"
#include "HMWireServer.h"
#include "HMWireSocket.h"

#include <QCborMap>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: hm-test-helper-probe <socket> <action>\n");
        return 2;
    }
    HMWireMaybeError error;
    const int fd = unix_socket(QString::fromLocal8Bit(argv[1]), &error);
    if (fd < 0) {
        std::printf("transport: %s\n", qPrintable(error->description));
        return 1;
    }
    QCborMap request;
    const QByteArray action(argv[2]);
    if (action.startsWith('{')) {
        request = QCborMap::fromJsonObject(QJsonDocument::fromJson(action).object());
    } else {
        request.insert(QStringLiteral("action"), QString::fromLocal8Bit(action));
    }
    // A refused peer may be answered before its request is read; its write can then fail
    // while the reply is still there to read.
    write_data(fd, encode_dictionary(request));
    const std::optional<QByteArray> reply = read_frame(fd, 1 << 24, 10000, &error);
    ::close(fd);
    std::optional<QVariantMap> map;
    if (reply) {
        map = decode_variant_dictionary(*reply, &error);
    }
    if (!map) {
        std::printf("transport: %s\n", error ? qPrintable(error->description) : "no reply");
        return 1;
    }
    std::printf("%s\n",
                QJsonDocument::fromVariant(*map).toJson(QJsonDocument::Compact).constData());
    return 0;
}
