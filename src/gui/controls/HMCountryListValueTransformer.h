// Country records ({"id", "code"}) to the names a list shows, in the records' order.
//
// Names come from the country table, so "Closest" has none there; a code the table does
// not know shows as the code itself rather than leaving a hole in the list.
#pragma once

#include "HMCountryNames.h"

#include <QStringList>
#include <QVariantList>

class HMCountryListValueTransformer
{
public:
    static bool allowsReverseTransformation() { return false; }
    static QStringList transformedValue(const QVariantList &records)
    {
        return HMCountryNames::namesForCountryRecords(records);
    }
};
