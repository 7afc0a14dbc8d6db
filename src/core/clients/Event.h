// One delivery of the event-stream client (EventSource): a plain value made fresh for every
// parsed chunk, for the "open" of a connection and for every failure or end of a stream.
//
// A field the stream did not carry is a null QString, which `description` prints as
// "(null)", the way the service's own tools print a missing field.
#pragma once

#include "HMError.h"

#include <QString>

class Event
{
public:
    enum ReadyState
    {
        Connecting = 0,
        Open = 1,
        Closed = 2,
    };

    QString id;
    QString event;
    QString data;
    int readyState = Connecting;
    HMMaybeError error;

    // "<Event: readyState: OPEN, id: 7; event: block; data: {...}>"; an unknown ready state
    // prints as nothing.
    QString description() const;
};
