#include "Event.h"

namespace {

QString orNull(const QString &value)
{
    return value.isNull() ? QStringLiteral("(null)") : value;
}

QString stateName(int readyState)
{
    switch (readyState) {
    case Event::Connecting:
        return QStringLiteral("CONNECTING");
    case Event::Open:
        return QStringLiteral("OPEN");
    case Event::Closed:
        return QStringLiteral("CLOSED");
    default:
        return QString();
    }
}

} // namespace

QString Event::description() const
{
    return QStringLiteral("<Event: readyState: %1, id: %2; event: %3; data: %4>")
        .arg(stateName(readyState), orNull(id), orNull(event), orNull(data));
}
