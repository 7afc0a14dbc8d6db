#include "EventSource.h"

#include "HMAPIClient.h"
#include "HMClock.h"
#include "HMDispatch.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringDecoder>
#include <QThread>
#include <QThreadPool>

const QString EventSource::kEndOfStreamDescription =
    QStringLiteral("Connection with the event source was closed.");

namespace {

const QString kMessage = QStringLiteral("message");
const QString kError = QStringLiteral("error");
const QString kOpen = QStringLiteral("open");
const QString kEventEnd = QStringLiteral("\r\n\r\n");
const QString kSeparator = QStringLiteral(": ");

} // namespace

EventSource::EventSource(const QUrl &url, QNetworkAccessManager &network, HMClock &clock,
                         QObject *parent)
    : QObject(parent), m_url(url), m_network(network), m_clock(clock)
{
    m_clock.singleShot(kOpenDelayMs, this, [this] { open(); });
}

EventSource::~EventSource()
{
    dropReply();
}

void EventSource::addEventListener(const QString &name, Handler handler)
{
    m_listeners[name].append(std::move(handler));
}

void EventSource::onMessage(Handler handler)
{
    addEventListener(kMessage, std::move(handler));
}

void EventSource::onError(Handler handler)
{
    addEventListener(kError, std::move(handler));
}

void EventSource::onOpen(Handler handler)
{
    addEventListener(kOpen, std::move(handler));
}

void EventSource::open()
{
    m_wasClosed = false;
    dropReply();
    m_ending.reset();
    m_sawResponse = false;
    QNetworkRequest request(m_url);
    QNetworkReply *reply = m_network.get(request);
    // Bounds what Qt holds for us; beyond it the socket stops being read.
    reply->setReadBufferSize(kMaximumChunkBytes);
    m_reply = reply;
    QObject::connect(reply, &QNetworkReply::metaDataChanged, this,
                     &EventSource::didReceiveResponse);
    QObject::connect(reply, &QNetworkReply::readyRead, this, &EventSource::didReceiveData);
    QObject::connect(reply, &QNetworkReply::finished, this, &EventSource::didFinish);
}

void EventSource::close()
{
    m_wasClosed = true;
    dropReply();
}

void EventSource::dropReply()
{
    if (QNetworkReply *reply = m_reply.data()) {
        m_reply = nullptr;
        QObject::disconnect(reply, nullptr, this, nullptr);
        reply->abort();
        reply->deleteLater();
    }
}

void EventSource::didReceiveResponse()
{
    if (m_sawResponse || !m_reply) {
        return;
    }
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid()) {
        return;
    }
    m_sawResponse = true;
    // Any other status is not an error here: the body that follows is parsed all the same.
    if (status.toInt() == 200) {
        Event event;
        event.readyState = Event::Open;
        deliver(kOpen, event);
    }
}

void EventSource::didReceiveData()
{
    readChunks(false);
}

void EventSource::readChunks(bool drain)
{
    QNetworkReply *reply = m_reply.data();
    while (reply && reply->bytesAvailable() > 0 &&
           (drain || m_pendingChunks < kMaximumPendingChunks)) {
        const QByteArray chunk = reply->read(kMaximumChunkBytes);
        ++m_pendingChunks;
        QPointer<EventSource> self(this);
        parseQueue()->start([self, chunk] {
            std::optional<Event> event = parseChunk(chunk);
            dispatch_to_main([self, event = std::move(event)]() mutable {
                if (self) {
                    self->didParse(std::move(event));
                }
            });
        });
    }
}

void EventSource::didParse(std::optional<Event> event)
{
    --m_pendingChunks;
    if (event) {
        deliver(kMessage, *event);
        if (!event->event.isNull()) {
            deliver(event->event, *event);
        }
    }
    endIfParsed();
    readChunks(false);
}

void EventSource::didFinish()
{
    QNetworkReply *reply = m_reply.data();
    if (!reply) {
        return;
    }
    didReceiveResponse();
    readChunks(true);
    const bool answered = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
    const QNetworkReply::NetworkError code = reply->error();
    const bool failed =
        code != QNetworkReply::NoError && !(answered && HMAPIClient::isHTTPStatusError(code));
    Ending ending;
    ending.failed = failed;
    if (failed) {
        ending.error = HMAPIClient::transportError(reply);
    }
    m_reply = nullptr;
    reply->deleteLater();
    m_ending = ending;
    endIfParsed();
}

// The end of a stream is told after the events parsed before it, never overtaking them.
void EventSource::endIfParsed()
{
    if (!m_ending || m_pendingChunks > 0) {
        return;
    }
    const Ending ending = *m_ending;
    m_ending.reset();
    if (ending.failed) {
        Event event;
        event.readyState = Event::Closed;
        event.error = ending.error;
        deliver(kError, event);
        // Scheduled before any handler runs, so a handler's close() does not stop this retry.
        m_clock.singleShot(kRetryDelayMs, this, [this] { open(); });
        return;
    }
    if (m_wasClosed) {
        return;
    }
    Event event;
    event.readyState = Event::Closed;
    event.error =
        HMError::errorWithDomain(QLatin1String(""), Event::Closed, kEndOfStreamDescription);
    deliver(kError, event);
    // At once, unlike after a failure; the handlers run after this open and may close it again.
    open();
}

void EventSource::deliver(const QString &name, const Event &event)
{
    const QList<Handler> handlers = m_listeners.value(name);
    for (const Handler &handler : handlers) {
        QMetaObject::invokeMethod(
            this, [handler, event] { handler(event); }, Qt::QueuedConnection);
    }
}

std::optional<Event> EventSource::parseChunk(const QByteArray &chunk)
{
    // Stateless: a sequence cut off at the end of the chunk is an error too, not pending.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(chunk);
    if (decoder.hasError() || !text.endsWith(kEventEnd)) {
        return std::nullopt;
    }
    text.remove(kEventEnd);
    Event event;
    event.readyState = Event::Open;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        QString *field = nullptr;
        if (line.startsWith(QLatin1String("id"))) {
            field = &event.id;
        } else if (line.startsWith(QLatin1String("event"))) {
            field = &event.event;
        } else if (line.startsWith(QLatin1String("data"))) {
            field = &event.data;
        }
        if (!field) {
            continue;
        }
        const int start = line.indexOf(kSeparator);
        if (start < 0) {
            continue; // a field without ": " has no value to take
        }
        const int valueStart = start + kSeparator.size();
        const int end = line.indexOf(kSeparator, valueStart);
        *field = line.mid(valueStart, end < 0 ? -1 : end - valueStart);
    }
    return event;
}

QThreadPool *EventSource::parseQueue()
{
    // One thread keeps the chunks of a stream in order.
    static QThreadPool *pool = [] {
        auto *queue = new QThreadPool;
        queue->setMaxThreadCount(1);
        queue->setThreadPriority(QThread::LowPriority);
        return queue;
    }();
    return pool;
}
