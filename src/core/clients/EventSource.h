// The client of the service's server-sent-event stream (the privacy filter's block
// notifications).
//
// One long-lived GET to a fixed URL; what arrives becomes Event values handed to listeners
// registered by event name. The parser is deliberately naive and is kept that way, because
// the service writes every event as one whole network chunk and its other clients read it
// the same way: a chunk counts only when it ends in "\r\n\r\n", nothing is buffered between
// chunks, every "\r\n\r\n" is removed before the text is split into lines (two events in one
// chunk run together), field names are tested as bare prefixes ("identity" is an id line),
// values are cut at the first ": " after the field's own, and a later field replaces an
// earlier one. No Last-Event-ID is ever sent.
//
// Lifecycle: the source opens itself 1 s after creation; a failed connection tells the
// "error" listeners and reopens 1 s later (even if closed meanwhile), while the end of the
// stream tells them and reopens at once unless close() came first. Nothing is ever given up.
//
// Threads: network callbacks on the main thread; chunks are parsed on a single
// background-priority worker, and every handler call is its own task posted back to the
// main thread, "message" handlers first, then those of the event's name. Bounded memory:
// at most kMaximumChunkBytes are read at a time, and reading pauses (letting TCP push back)
// while kMaximumPendingChunks chunks wait for the parser.
//
// Collaborators: the QNetworkAccessManager to send through (the API client's, with its
// certificate rule) and the clock that times the opens.
#pragma once

#include "Event.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <functional>
#include <optional>

class HMClock;
class QNetworkAccessManager;
class QNetworkReply;
class QThreadPool;

class EventSource : public QObject
{
    Q_OBJECT
public:
    using Handler = std::function<void(const Event &)>;

    static constexpr qint64 kOpenDelayMs = 1000;
    static constexpr qint64 kRetryDelayMs = 1000;
    static constexpr qint64 kMaximumChunkBytes = 1024 * 1024;
    static constexpr int kMaximumPendingChunks = 64;
    // The description of the error that the end of a stream reports.
    static const QString kEndOfStreamDescription;

    EventSource(const QUrl &url, QNetworkAccessManager &network, HMClock &clock,
                QObject *parent = nullptr);
    ~EventSource() override;

    QUrl eventURL() const { return m_url; }
    bool wasClosed() const { return m_wasClosed; }

    void addEventListener(const QString &name, Handler handler);
    void onMessage(Handler handler);
    void onError(Handler handler);
    void onOpen(Handler handler);

    void open();
    // Cancels the request; no listener is told.
    void close();

    // The parser, on one chunk as the network delivered it: the Event it makes, or none when
    // the chunk is not valid UTF-8 or does not end in "\r\n\r\n". Thread-safe.
    static std::optional<Event> parseChunk(const QByteArray &chunk);

    // The single background-priority thread that parses chunks for every source.
    static QThreadPool *parseQueue();

private:
    void didReceiveResponse();
    void didReceiveData();
    void didFinish();
    void endIfParsed();
    void readChunks(bool drain);
    void didParse(std::optional<Event> event);
    void deliver(const QString &name, const Event &event);
    void dropReply();

    QUrl m_url;
    QNetworkAccessManager &m_network;
    HMClock &m_clock;
    QHash<QString, QList<Handler>> m_listeners;
    QPointer<QNetworkReply> m_reply;
    bool m_wasClosed = false;
    bool m_sawResponse = false;
    int m_pendingChunks = 0;
    struct Ending
    {
        bool failed = false;
        HMMaybeError error;
    };
    std::optional<Ending> m_ending; // a finished request waiting for its chunks' parses
};
