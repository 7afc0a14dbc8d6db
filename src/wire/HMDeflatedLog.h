// One log as it crosses the helper socket and goes into the diagnostics archive: its bytes
// already compressed (raw deflate, level 9), with the CRC-32 and length of the original.
//
// Carrying logs compressed means neither the reply frame nor the application's collection
// ever holds a log whole: the helper deflates its tails as it reads them (HMLogDeflater),
// the application deflates its own members the same way, the zip writer stores these bytes
// unchanged as members' data, and the text file for the user inflates them in slices.
// Compressed bytes rather than descriptors of the files passed over the socket: the reply
// stays one frame of plain CBOR any client (and the fuzzer) can read, root never hands an
// open file to a user, and the tails are cut, checked and decoded where the files are.
//
// On the wire ("getLogs" reply) a log is the map {"deflated": bytes, "crc32": n, "size": n}.
// fromWire trusts none of it: besides the shape, the stream must inflate to exactly "size"
// bytes (at most kHMWireMaxLogSize) with that CRC-32 and nothing after its end, so a
// damaged reply never becomes an archive member that no tool can open.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QCborMap>
#include <QString>
#include <QVariant>
#include <functional>
#include <optional>

// The helper sends at most this many bytes of the end of each of its logs.
inline constexpr qint64 kHMWireLogTailBytes = 128 * 1024;
// A tail is decoded leniently, so each stray byte may become a three-byte replacement
// character: the most a log on the wire may announce.
inline constexpr qint64 kHMWireMaxLogSize = 3 * kHMWireLogTailBytes;

class HMDeflatedLog
{
public:
    // Takes each inflated slice in turn; false stops inflating.
    using Sink = std::function<bool(QByteArrayView slice)>;

    HMDeflatedLog() = default;
    HMDeflatedLog(QByteArray deflated, quint32 crc32, qint64 size)
        : m_deflated(std::move(deflated)), m_crc32(crc32), m_size(size)
    {}

    const QByteArray &deflated() const { return m_deflated; }
    quint32 crc32() const { return m_crc32; }
    qint64 size() const { return m_size; } // of the original bytes

    // Feeds the original bytes to `sink` in slices. False with `error` when the stream is
    // damaged or its length or CRC-32 differ from the announced ones (what was fed so far
    // is then not to be trusted), or when the sink refused a slice.
    bool inflate(const Sink &sink, QString *error = nullptr) const;
    // The original bytes at once (small members and checks); empty, with `error`, when
    // damaged.
    QByteArray inflated(QString *error = nullptr) const;

    QCborMap toWire() const;
    static std::optional<HMDeflatedLog> fromWire(const QVariant &value, QString *error);

    friend bool operator==(const HMDeflatedLog &a, const HMDeflatedLog &b)
    {
        return a.m_size == b.m_size && a.m_crc32 == b.m_crc32 && a.m_deflated == b.m_deflated;
    }

private:
    QByteArray m_deflated;
    quint32 m_crc32 = 0;
    qint64 m_size = 0;
};
