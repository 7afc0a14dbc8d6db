#include "HMDeflatedLog.h"

#include <QVariantMap>
#include <zlib.h>

namespace {

const QString kDeflated = QStringLiteral("deflated");
const QString kCrc32 = QStringLiteral("crc32");
const QString kSize = QStringLiteral("size");

bool fail(QString *error, const QString &why)
{
    if (error) {
        *error = why;
    }
    return false;
}

} // namespace

bool HMDeflatedLog::inflate(const Sink &sink, QString *error) const
{
    z_stream stream{};
    if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) {
        return fail(error, QStringLiteral("no memory to inflate the log"));
    }
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(m_deflated.constData()));
    stream.avail_in = static_cast<uInt>(m_deflated.size());
    char slice[16 * 1024];
    uLong crc = ::crc32(0, nullptr, 0);
    int status = Z_OK;
    QString why;
    while (status == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef *>(slice);
        stream.avail_out = sizeof slice;
        status = ::inflate(&stream, Z_NO_FLUSH);
        const auto produced = static_cast<qsizetype>(sizeof slice - stream.avail_out);
        if (status != Z_OK && status != Z_STREAM_END) {
            why = QStringLiteral("the compressed log is damaged");
        } else if (static_cast<qint64>(stream.total_out) > m_size) {
            // Stops a stream that would inflate far beyond what it announced.
            why = QStringLiteral("the log is longer than its announced %1 bytes").arg(m_size);
        } else if (produced > 0 && !sink(QByteArrayView(slice, produced))) {
            why = QStringLiteral("the log's bytes could not be written");
        } else {
            crc = ::crc32(crc, reinterpret_cast<const Bytef *>(slice), static_cast<uInt>(produced));
            continue;
        }
        break;
    }
    if (why.isEmpty() && stream.avail_in != 0) {
        why = QStringLiteral("the compressed log has bytes after its end");
    } else if (why.isEmpty() && static_cast<qint64>(stream.total_out) != m_size) {
        why = QStringLiteral("the log has %1 bytes, not the announced %2")
                  .arg(stream.total_out)
                  .arg(m_size);
    } else if (why.isEmpty() && crc != m_crc32) {
        why = QStringLiteral("the log's CRC-32 does not match");
    }
    inflateEnd(&stream);
    return why.isEmpty() || fail(error, why);
}

QByteArray HMDeflatedLog::inflated(QString *error) const
{
    QByteArray bytes;
    bytes.reserve(m_size);
    const bool whole = inflate(
        [&bytes](QByteArrayView slice) {
            bytes.append(slice);
            return true;
        },
        error);
    return whole ? bytes : QByteArray();
}

QCborMap HMDeflatedLog::toWire() const
{
    return QCborMap{
        {kDeflated, m_deflated}, {kCrc32, static_cast<qint64>(m_crc32)}, {kSize, m_size}};
}

std::optional<HMDeflatedLog> HMDeflatedLog::fromWire(const QVariant &value, QString *error)
{
    const QVariantMap map = value.toMap();
    const auto isInteger = [&map](const QString &key, qint64 max) {
        const QVariant item = map.value(key);
        return item.typeId() == QMetaType::LongLong && item.toLongLong() >= 0 &&
               item.toLongLong() <= max;
    };
    if (value.typeId() != QMetaType::QVariantMap || map.size() != 3 ||
        map.value(kDeflated).typeId() != QMetaType::QByteArray) {
        fail(error, QStringLiteral("a log must be {deflated, crc32, size}"));
        return std::nullopt;
    }
    if (!isInteger(kCrc32, 0xffffffffLL) || !isInteger(kSize, kHMWireMaxLogSize)) {
        fail(error, QStringLiteral("a log's crc32 or size is out of range (size at most %1)")
                        .arg(kHMWireMaxLogSize));
        return std::nullopt;
    }
    HMDeflatedLog log(map.value(kDeflated).toByteArray(),
                      static_cast<quint32>(map.value(kCrc32).toLongLong()),
                      map.value(kSize).toLongLong());
    if (!log.inflate([](QByteArrayView) { return true; }, error)) {
        return std::nullopt;
    }
    return log;
}
