// libFuzzer target: the event-stream parser on one network chunk, as the service (or anyone
// between it and the client) may send it. Whatever the bytes, the parser returns, and an
// event it makes holds only text that was in the chunk.
#include "EventSource.h"

#include <QByteArray>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray chunk(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const std::optional<Event> event = EventSource::parseChunk(chunk);
    if (event) {
        if (!chunk.endsWith("\r\n\r\n")) {
            abort();
        }
        // Fields come from the text with every blank-line end removed (events run together).
        const QString text = QString::fromUtf8(chunk).remove(QStringLiteral("\r\n\r\n"));
        for (const QString *field : {&event->id, &event->event, &event->data}) {
            if (!field->isNull() && !text.contains(*field)) {
                abort();
            }
        }
        (void)event->description();
    }
    return 0;
}
