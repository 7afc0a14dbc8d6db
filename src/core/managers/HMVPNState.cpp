#include "HMVPNState.h"

#include <array>

QString vpn_state_to_string(VPNState state)
{
    static const std::array<QString, 7> names = {
        QStringLiteral("Disconnected"),  QStringLiteral("Disconnecting\u2026"),
        QStringLiteral("Connected"),     QStringLiteral("Connecting\u2026"),
        QStringLiteral("Error"),         QStringLiteral("Out of Data"),
        QStringLiteral("No Connection"),
    };
    const auto index = static_cast<unsigned>(state);
    return index < names.size() ? names[index] : QString();
}
