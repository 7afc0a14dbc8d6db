// The payload of a frame: one CBOR map with text keys, identical on both sides.
//
// Requests and replies are plain dictionaries ("action", "params", "status", "error", ...)
// whose values are strings, lists of strings, booleans, numbers and nested dictionaries.
// The decoder checks the structure before building any value: exactly one item, a map,
// text keys at every level, no tags, nesting no deeper than the limit, and nothing after
// the item. The helper relies on that to reject hostile input cheaply; the application gets
// a clear error instead of a half-read reply.
#pragma once

#include "HMWireError.h"

#include <QByteArray>
#include <QCborMap>
#include <QVariantMap>
#include <optional>

// The top-level map counts as depth 1; a list inside "params" is at depth 3.
inline constexpr int kHMWireMaxNesting = 8;

QByteArray encode_dictionary(const QCborMap &map);
QByteArray encode_dictionary(const QVariantMap &map);

std::optional<QCborMap> decode_dictionary(const QByteArray &payload, HMWireMaybeError *error,
                                          int maxNesting = kHMWireMaxNesting);
// The same, converted for callers that work with QVariant (lists of strings arrive as
// QVariantList, integers as qint64).
std::optional<QVariantMap> decode_variant_dictionary(const QByteArray &payload,
                                                     HMWireMaybeError *error,
                                                     int maxNesting = kHMWireMaxNesting);
