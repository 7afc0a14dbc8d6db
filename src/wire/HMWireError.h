// The error value of the wire layer.
//
// The wire library is linked into the root helper, which must not pull in the core library,
// so it cannot use HMError. This carries the same three parts (domain, code, description);
// the core turns it into an HMError at its boundary (hm_error_from_wire). Socket failures
// use the domain "sockets" with the system error number as code; frame and payload
// problems that have no system error number use the domain "wire" and the codes below.
#pragma once

#include <QString>
#include <optional>

struct HMWireError
{
    QString domain;
    long code = 0;
    QString description;

    bool operator==(const HMWireError &other) const
    {
        return domain == other.domain && code == other.code && description == other.description;
    }
};

using HMWireMaybeError = std::optional<HMWireError>;

namespace HMWire {

inline const QString kSocketsDomain = QStringLiteral("sockets");
inline const QString kWireDomain = QStringLiteral("wire");

// Code of a payload write that came up short; the number is part of the protocol's history.
inline constexpr long kShortWriteCode = 42;

// Codes in kWireDomain.
enum WireCode : long
{
    FrameEmpty = 1,       // announced length 0
    FrameTooLarge = 2,    // announced length above the reader's cap
    FrameTruncated = 3,   // the peer closed before the announced bytes arrived
    FrameDeadline = 4,    // the peer stopped sending before the deadline
    PayloadMalformed = 5, // not well-formed CBOR, or bytes after the one item
    PayloadTooDeep = 6,   // nesting beyond the decoder's limit
    PayloadNotMap = 7,    // well-formed, but not a dictionary with text keys
};

} // namespace HMWire
