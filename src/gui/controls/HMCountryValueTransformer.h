// The country-name rules as the views use them: code to name and back (for the picker
// and the account summary), and the picture of the "Connection secure" banner.
//
// The tables themselves live in the core (HMCountryNames) so the control interface
// shares them.
#pragma once

#include <QPixmap>
#include <QString>
#include <QVariant>

class HMCountryValueTransformer
{
public:
    // Code -> display name ("Closest" -> "Closest Tunnel"); an absent or unknown code
    // gives an absent value.
    static QVariant transformedValue(const QVariant &code);
    // Display name -> code; an unknown name gives an absent value.
    static QVariant reverseTransformedValue(const QVariant &name);
};

// The picture for a country code, loaded by name from the application's images (an
// empty pixmap when the artwork is not in this build).
QPixmap wisp_image_for_country(const QString &code);
