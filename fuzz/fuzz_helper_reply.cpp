// The application's reading of a helper reply: one frame's payload through the CBOR
// decoder, then "getLogs"'s compressed logs through their checks (shape, announced size,
// the deflate stream, CRC-32). A hostile or broken helper may be refused; it may never
// crash the application, hang it or make it inflate past the announced size.
#include "HMDeflatedLog.h"
#include "HMWireCodec.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray payload =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const std::optional<QVariantMap> reply = decode_variant_dictionary(payload, nullptr);
    if (!reply) {
        return 0;
    }
    for (const char *key : {"vpnLog", "daemonLog", "dnsLog"}) {
        QString error;
        if (const auto log = HMDeflatedLog::fromWire(reply->value(QLatin1String(key)), &error)) {
            if (log->inflated().size() != log->size()) {
                __builtin_trap(); // a log that passed its checks inflates to its size
            }
        }
    }
    return 0;
}
