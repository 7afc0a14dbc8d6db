// How hollowmerectl prints a property's value on one line.
#pragma once

#include <QString>
#include <QVariant>

// Lists joined with ", ", maps as compact JSON, everything else as its text.
QString hm_ctl_text(const QVariant &value);
