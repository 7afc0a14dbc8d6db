// Parameter encoding for every query string and form body the client builds.
//
// Keys and values are UTF-8 and percent-escaped with the URL standard's rule plus the
// reserved characters ";/?:@&=+$,", so that only letters, digits and "!'()*-._~" pass
// through. Pairs keep the order the caller gave them: the service never sees sorted keys.
#pragma once

#include <QList>
#include <QPair>
#include <QString>

using HMStringPairs = QList<QPair<QString, QString>>;

QString url_encode(const QString &string);
QString url_encode_dict(const HMStringPairs &dictionary);
