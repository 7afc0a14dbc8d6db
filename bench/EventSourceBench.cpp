// Block events through the client: how many per second are read, parsed on the background
// thread, delivered on the main thread and counted by the privacy manager, and the resident
// memory after a million of them.
//
//     build/bench/hm-bench-event-stream [events]        (default 1000000)
//
// The stream comes from an in-process reply that hands the client one chunk (one event)
// at a time, as the service writes them, so the figures are the client's own cost without
// the network. The reference beside them is the parser alone on the main thread. Events
// cycle through 5000 item names in two categories, with a social block every tenth event:
// far more distinct names than the lists keep, so memory stays flat only if nothing
// accumulates.
#include "EventSource.h"
#include "HMAPIClient.h"
#include "HMAccountWorld.h"
#include "HMClock.h"
#include "HMPrivacyManager.h"
#include "HMProcFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTextStream>

#include <algorithm>
#include <cstring>

namespace {

QByteArray eventChunk(qint64 index)
{
    if (index % 10 == 9) {
        return QByteArrayLiteral("data: {\"category\":\"social\",\"text\":\"Twitter\"}\r\n\r\n");
    }
    return "data: {\"category\":\"" + QByteArray(index % 2 ? "ads" : "analytics") +
           "\",\"text\":\"tracker-" + QByteArray::number(index % 5000) + ".example\"}\r\n\r\n";
}

// A reply that never ends: the next chunk appears once the client has read the last one.
class ChunkReply : public QNetworkReply
{
public:
    explicit ChunkReply(QObject *parent) : QNetworkReply(parent)
    {
        setOpenMode(QIODevice::ReadOnly | QIODevice::Unbuffered);
        setAttribute(QNetworkRequest::HttpStatusCodeAttribute, 200);
        QMetaObject::invokeMethod(
            this,
            [this] {
                Q_EMIT metaDataChanged();
                feed();
            },
            Qt::QueuedConnection);
    }
    void abort() override { m_stopped = true; }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override
    {
        return m_buffer.size() + QNetworkReply::bytesAvailable();
    }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const qint64 n = std::min<qint64>(maxSize, m_buffer.size());
        std::memcpy(data, m_buffer.constData(), static_cast<size_t>(n));
        m_buffer.remove(0, n);
        if (m_buffer.isEmpty()) {
            QMetaObject::invokeMethod(this, &ChunkReply::feed, Qt::QueuedConnection);
        }
        return n;
    }

private:
    void feed()
    {
        if (!m_stopped && m_buffer.isEmpty()) {
            m_buffer = eventChunk(m_index++);
            Q_EMIT readyRead();
        }
    }
    QByteArray m_buffer;
    qint64 m_index = 0;
    bool m_stopped = false;
};

class ChunkNetwork : public QNetworkAccessManager
{
protected:
    QNetworkReply *createRequest(Operation, const QNetworkRequest &, QIODevice *) override
    {
        return new ChunkReply(this);
    }
};

qint64 residentKiB()
{
    return HMProcFile::fieldKiB(QStringLiteral("/proc/self/status"), "VmRSS:");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const qint64 total = argc > 1 ? std::max(1000LL, QByteArray(argv[1]).toLongLong()) : 1000000;
    QTextStream out(stdout);

    // Reference: the parser alone.
    QElapsedTimer timer;
    timer.start();
    qint64 parsed = 0;
    for (qint64 i = 0; i < total; ++i) {
        parsed += EventSource::parseChunk(eventChunk(i)).has_value() ? 1 : 0;
    }
    const double parserRate = parsed * 1000.0 / std::max<qint64>(1, timer.elapsed());

    HMAccountWorld world;
    HMAPIClient api(
        HMDeploymentValues::builtIn(), [] { return false; }, HMClock::system(), world.center);
    HMPrivacyManager::Collaborators c;
    c.store = world.store.get();
    c.api = &api;
    c.account = world.account.get();
    c.notifications = &world.center;
    HMPrivacyManager privacy(c);

    ChunkNetwork network;
    EventSource source(QUrl(QStringLiteral("http://bench.invalid/dashboard/blocks?")), network,
                       HMClock::system());
    qint64 delivered = 0;
    qint64 rssAt100k = 0;
    const qint64 rssBefore = residentKiB();
    source.onMessage([&](const Event &event) {
        if (delivered == total) {
            return; // deliveries already queued when the source was closed
        }
        privacy.handleBlockEvent(event);
        if (++delivered == std::min<qint64>(100000, total)) {
            rssAt100k = residentKiB();
        }
        if (delivered == total) {
            source.close();
            app.quit();
        }
    });
    source.onOpen([&](const Event &) { timer.restart(); });
    app.exec();
    const double pipelineRate = delivered * 1000.0 / std::max<qint64>(1, timer.elapsed());
    const qint64 rssAfter = residentKiB();

    out << "| measure | value |\n|---|---:|\n";
    out << "| events parsed and delivered per second (client path) | " << qRound64(pipelineRate)
        << " |\n";
    out << "| reference: parser alone, events per second | " << qRound64(parserRate) << " |\n";
    out << "| resident memory before the stream (KiB) | " << rssBefore << " |\n";
    out << "| after 100 000 events (KiB) | " << rssAt100k << " |\n";
    out << "| after " << delivered << " events (KiB) | " << rssAfter << " |\n";
    out << "| Twitter widgets counted | " << privacy.numTwitterBlocked() << " |\n";
    return privacy.numTwitterBlocked() == static_cast<uint>(total / 10) ? 0 : 1;
}
