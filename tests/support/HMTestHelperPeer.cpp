// hm-test-helper-peer: a scripted stand-in for the helper, run under systemd-socket-activate.
//
//   hm-test-helper-peer hold
//       take the passed listener, print "listening <fd>" and never accept (backlog tests)
//   hm-test-helper-peer serve <script.json> <record.jsonl>
//       accept one connection at a time; record each request as a JSON line
//       {"frame": "<hex of the raw frame>", "request": {...}} and answer from the script,
//       which is read again for every connection so a test can change it between requests.
//
// The script maps an action to what to do: {"reply": {...}} answers with that dictionary;
// {"behaviour": "silent"} reads the request and never answers (the connection stays open);
// "close" closes without answering; "garbage" answers a frame that is not CBOR;
// {"rawHex": "..."} writes exactly those bytes. "*" is the fallback for other actions;
// without one the peer answers "status" "error". A "suicide" request ends the peer after
// its answer, as the real helper does.
#include "HMWireCodec.h"
#include "HMWireServer.h"
#include "HMWireSocket.h"

#include <QCborValue>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdint>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace {

QJsonObject loadScript(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}

void record(const QString &path, const QByteArray &frame, const QJsonObject &request)
{
    QFile file(path);
    if (!file.open(QIODevice::Append)) {
        return;
    }
    QJsonObject line{{QStringLiteral("frame"), QString::fromLatin1(frame.toHex())},
                     {QStringLiteral("request"), request}};
    file.write(QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n');
}

std::optional<QByteArray> readRawFrame(int fd)
{
    std::uint64_t length = 0;
    size_t received = 0;
    if (read_bytes(sizeof(length), fd, reinterpret_cast<char *>(&length), &received) != 0 ||
        received != sizeof(length) || length > 16 * 1024 * 1024) {
        return std::nullopt;
    }
    QByteArray frame(reinterpret_cast<const char *>(&length), sizeof(length));
    QByteArray payload(static_cast<qsizetype>(length), Qt::Uninitialized);
    if (read_bytes(length, fd, payload.data(), &received) != 0 || received != length) {
        return std::nullopt;
    }
    return frame + payload;
}

int hold()
{
    const int listener = get_listener_fd();
    std::printf("listening %d\n", listener);
    std::fflush(stdout);
    if (listener < 0) {
        return 1;
    }
    char byte;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}

int serve(const QString &scriptPath, const QString &recordPath)
{
    const int listener = get_listener_fd();
    if (listener < 0) {
        std::fprintf(stderr, "hm-test-helper-peer: no socket passed\n");
        return 1;
    }
    std::vector<int> silent; // connections deliberately left unanswered
    for (;;) {
        const int fd = get_connection_fd(listener);
        if (fd == -1) {
            continue;
        }
        if (fd < 0) {
            return 2;
        }
        const std::optional<QByteArray> frame = readRawFrame(fd);
        if (!frame) {
            ::close(fd);
            continue;
        }
        const std::optional<QCborMap> request = decode_dictionary(frame->mid(8), nullptr);
        const QJsonObject requestJson = request ? request->toJsonObject() : QJsonObject();
        record(recordPath, *frame, requestJson);

        const QString action = requestJson.value(QStringLiteral("action")).toString();
        const QJsonObject script = loadScript(scriptPath);
        QJsonObject step = script.value(action).toObject();
        if (step.isEmpty()) {
            step = script.value(QStringLiteral("*")).toObject();
        }
        const QString behaviour = step.value(QStringLiteral("behaviour")).toString();
        if (behaviour == QLatin1String("silent")) {
            silent.push_back(fd);
            continue;
        }
        if (behaviour == QLatin1String("garbage")) {
            write_data(fd, QByteArray::fromHex("ffff"));
        } else if (step.contains(QStringLiteral("rawHex"))) {
            const QByteArray raw =
                QByteArray::fromHex(step.value(QStringLiteral("rawHex")).toString().toLatin1());
            (void)!::write(fd, raw.constData(), static_cast<size_t>(raw.size()));
        } else if (behaviour != QLatin1String("close")) {
            QJsonObject reply = step.value(QStringLiteral("reply")).toObject();
            if (!step.contains(QStringLiteral("reply"))) {
                reply = QJsonObject{
                    {QStringLiteral("status"), QStringLiteral("error")},
                    {QStringLiteral("error"), QStringLiteral("no script for %1").arg(action)}};
            }
            write_data(fd, encode_dictionary(QCborMap::fromJsonObject(reply)));
        }
        ::close(fd);
        if (action == QLatin1String("suicide")) {
            return 0;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    const QString mode = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    if (mode == QLatin1String("hold")) {
        return hold();
    }
    if (mode == QLatin1String("serve") && argc > 3) {
        return serve(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]));
    }
    std::fprintf(stderr, "usage: hm-test-helper-peer hold | serve <script.json> <record.jsonl>\n");
    return 64;
}
