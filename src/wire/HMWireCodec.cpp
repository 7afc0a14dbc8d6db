#include "HMWireCodec.h"

#include <QCborStreamReader>
#include <QCborValue>
#include <QVariantList>
#include <limits>

namespace {

HMWireError payloadError(long code, const QString &description)
{
    return HMWireError{HMWire::kWireDomain, code, description};
}

// Walks one item without building it. Returns false with `error` set at the first problem.
class StructureCheck
{
public:
    StructureCheck(QCborStreamReader &reader, int maxNesting)
        : m_reader(reader), m_maxNesting(maxNesting)
    {}

    bool item(int depth)
    {
        if (!wellFormed()) {
            return false;
        }
        switch (m_reader.type()) {
        case QCborStreamReader::Map:
        case QCborStreamReader::Array:
            return container(depth + 1);
        case QCborStreamReader::String:
        case QCborStreamReader::ByteArray:
            return skipString();
        case QCborStreamReader::Tag:
            m_error =
                payloadError(HMWire::PayloadNotMap, QStringLiteral("payload holds a tagged value"));
            return false;
        case QCborStreamReader::Invalid:
            m_error = malformed();
            return false;
        default:
            m_reader.next();
            return wellFormed();
        }
    }

    HMWireError error() const { return m_error; }

private:
    bool container(int depth)
    {
        if (depth > m_maxNesting) {
            m_error = payloadError(
                HMWire::PayloadTooDeep,
                QStringLiteral("payload nests deeper than %1 levels").arg(m_maxNesting));
            return false;
        }
        const bool isMap = m_reader.isMap();
        if (!m_reader.enterContainer()) {
            m_error = malformed();
            return false;
        }
        while (m_reader.lastError() == QCborError::NoError && m_reader.hasNext()) {
            if (isMap) {
                if (!m_reader.isString()) {
                    m_error = payloadError(
                        HMWire::PayloadNotMap,
                        QStringLiteral("payload has a dictionary key that is not text"));
                    return false;
                }
                if (!skipString()) {
                    return false;
                }
                if (!m_reader.hasNext()) {
                    m_error = malformed();
                    return false;
                }
            }
            if (!item(depth)) {
                return false;
            }
        }
        if (!wellFormed() || !m_reader.leaveContainer()) {
            m_error = malformed();
            return false;
        }
        return true;
    }

    bool skipString()
    {
        QCborStreamReader::StringResultCode status;
        do {
            status = m_reader.isString() ? m_reader.readString().status
                                         : m_reader.readByteArray().status;
        } while (status == QCborStreamReader::Ok);
        if (status == QCborStreamReader::Error) {
            m_error = malformed();
            return false;
        }
        return true;
    }

    bool wellFormed()
    {
        if (m_reader.lastError() != QCborError::NoError) {
            m_error = malformed();
            return false;
        }
        return true;
    }

    HMWireError malformed() const
    {
        const QCborError cborError = m_reader.lastError();
        const QString why = cborError == QCborError::NoError ? QStringLiteral("unexpected item")
                                                             : cborError.toString();
        return payloadError(HMWire::PayloadMalformed,
                            QStringLiteral("payload is not valid CBOR: %1").arg(why));
    }

    QCborStreamReader &m_reader;
    int m_maxNesting;
    HMWireError m_error;
};

template <typename Chunk>
auto readWhole(QCborStreamReader &reader, Chunk (QCborStreamReader::*read)())
{
    auto chunk = (reader.*read)();
    decltype(chunk.data) whole;
    for (; chunk.status == QCborStreamReader::Ok; chunk = (reader.*read)()) {
        whole += chunk.data;
    }
    return whole;
}

// Builds one checked item straight from the payload, as QCborValue::toVariant would, but
// without a second copy of its strings: a reply's large byte strings (the helper's logs)
// then exist once beside the frame, not twice.
QVariant readVariant(QCborStreamReader &reader)
{
    constexpr auto kMaxInteger = static_cast<quint64>(std::numeric_limits<qint64>::max());
    QVariant value;
    switch (reader.type()) {
    case QCborStreamReader::UnsignedInteger: {
        const quint64 number = reader.toUnsignedInteger();
        value = number <= kMaxInteger ? QVariant(static_cast<qint64>(number))
                                      : QVariant(static_cast<double>(number));
        break;
    }
    case QCborStreamReader::NegativeInteger: {
        // The absolute value; as in QCborValue, what qint64 cannot hold becomes a double.
        const auto magnitude = static_cast<quint64>(reader.toNegativeInteger());
        value = magnitude <= kMaxInteger + 1 ? QVariant(static_cast<qint64>(0 - magnitude))
                                             : QVariant(-static_cast<double>(magnitude));
        break;
    }
    case QCborStreamReader::ByteArray:
        return readWhole(reader, &QCborStreamReader::readByteArray);
    case QCborStreamReader::String:
        return readWhole(reader, &QCborStreamReader::readString);
    case QCborStreamReader::Array: {
        QVariantList list;
        reader.enterContainer();
        while (reader.lastError() == QCborError::NoError && reader.hasNext()) {
            list.append(readVariant(reader));
        }
        reader.leaveContainer();
        return list;
    }
    case QCborStreamReader::Map: {
        QVariantMap map;
        reader.enterContainer();
        while (reader.lastError() == QCborError::NoError && reader.hasNext()) {
            const QString key = readWhole(reader, &QCborStreamReader::readString);
            map.insert(key, readVariant(reader));
        }
        reader.leaveContainer();
        return map;
    }
    case QCborStreamReader::SimpleType:
        if (reader.isFalse() || reader.isTrue()) {
            value = reader.isTrue();
        } else if (reader.isNull()) {
            value = QVariant::fromValue(nullptr);
        } else if (!reader.isUndefined()) {
            value = QVariant::fromValue(reader.toSimpleType());
        }
        break;
    case QCborStreamReader::Float16:
        value = static_cast<double>(reader.toFloat16());
        break;
    case QCborStreamReader::Float:
        value = static_cast<double>(reader.toFloat());
        break;
    case QCborStreamReader::Double:
        value = reader.toDouble();
        break;
    default:
        break; // tags and invalid items never pass the structure check
    }
    reader.next();
    return value;
}

void setError(HMWireMaybeError *out, HMWireError error)
{
    if (out) {
        *out = std::move(error);
    }
}

} // namespace

QByteArray encode_dictionary(const QCborMap &map)
{
    return QCborValue(map).toCbor();
}

QByteArray encode_dictionary(const QVariantMap &map)
{
    return encode_dictionary(QCborMap::fromVariantMap(map));
}

namespace {

bool checkStructure(const QByteArray &payload, HMWireMaybeError *error, int maxNesting)
{
    QCborStreamReader reader(payload);
    if (payload.isEmpty()) {
        setError(error, payloadError(HMWire::PayloadMalformed, QStringLiteral("payload is empty")));
        return false;
    }
    if (reader.lastError() == QCborError::NoError && !reader.isMap()) {
        setError(error, payloadError(HMWire::PayloadNotMap,
                                     QStringLiteral("payload is not a dictionary")));
        return false;
    }
    StructureCheck check(reader, maxNesting);
    if (!check.item(0)) {
        setError(error, check.error());
        return false;
    }
    if (reader.currentOffset() != payload.size()) {
        setError(error, payloadError(HMWire::PayloadMalformed,
                                     QStringLiteral("payload has %1 bytes after the dictionary")
                                         .arg(payload.size() - reader.currentOffset())));
        return false;
    }
    return true;
}

} // namespace

std::optional<QCborMap> decode_dictionary(const QByteArray &payload, HMWireMaybeError *error,
                                          int maxNesting)
{
    if (!checkStructure(payload, error, maxNesting)) {
        return std::nullopt;
    }

    QCborParserError parseError;
    const QCborValue value = QCborValue::fromCbor(payload, &parseError);
    if (parseError.error != QCborError::NoError || !value.isMap()) {
        setError(
            error,
            payloadError(
                HMWire::PayloadMalformed,
                QStringLiteral("payload is not valid CBOR: %1").arg(parseError.errorString())));
        return std::nullopt;
    }
    return value.toMap();
}

std::optional<QVariantMap> decode_variant_dictionary(const QByteArray &payload,
                                                     HMWireMaybeError *error, int maxNesting)
{
    if (!checkStructure(payload, error, maxNesting)) {
        return std::nullopt;
    }
    QCborStreamReader reader(payload);
    return readVariant(reader).toMap();
}
