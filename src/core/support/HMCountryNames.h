// The names a person sees for the service's country codes, and the picture that goes with
// a "Connection secure" banner.
//
// Two tables: the country table (251 codes) and the display table, which is the same plus
// "Closest" -> "Closest Tunnel" for the automatic choice. Names are kept exactly as the
// service's geolocation convention spells them, misspellings included ("Saint Bartelemey"):
// users and support staff match them against the service's own pages, so never correct
// them here. Lookups are exact and case-sensitive; an unknown code has no name (null).
//
// Widget-free so that the screens, the banners and the D-Bus control interface share one
// set of rules.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariantList>

class HMCountryNames
{
public:
    // The country table (251 entries); null for "Closest" and for unknown codes.
    static QString getCountryForCode(const QString &code);
    // The display table (252 entries, "Closest" included), code -> name.
    static QHash<QString, QString> codeToCountryDict();
    // The display table reversed, name -> code.
    static QHash<QString, QString> countryToCodeDict();

    // The display name of a code (display table), null when unknown.
    static QString nameForCode(const QString &code);
    // The code of a display name, null when unknown.
    static QString codeForName(const QString &name);

    // One name per country record ({"id", "code"}), in the records' order, from the
    // country table. A code the table does not know shows as the code itself, so a
    // country the service added after this release stays choosable.
    static QStringList namesForCountryRecords(const QVariantList &records);
    // As above but from the display table, so the automatic choice reads "Closest Tunnel".
    static QStringList displayNamesForCountryRecords(const QVariantList &records);

    // The resource name of the picture for a code: "alert_usa" for "US", ... and
    // "alert_happy" for every other code.
    static QString imageNameForCountry(const QString &code);
};

QHash<QString, QString> code_to_country_dict();
QHash<QString, QString> country_to_code_dict();
