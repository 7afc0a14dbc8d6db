// The tunnel's state as every part of the client sees it, and its display strings.
//
// The numeric values are shared with the status display, the tray icon and the command-line
// control, so they never change; nothing above NoConnection is ever stored.
#pragma once

#include <QMetaType>
#include <QString>

enum class VPNState : unsigned
{
    Disconnected = 0,
    Disconnecting = 1,
    Connected = 2,
    Connecting = 3,
    Error = 4,
    OutOfData = 5,
    NoConnection = 6,
};

// "Disconnecting…" and "Connecting…" end in U+2026, not three full stops. A value outside
// the table yields an empty string rather than reading past it.
QString vpn_state_to_string(VPNState state);

Q_DECLARE_METATYPE(VPNState)
