// The payload codec: faithful round trips and the structural checks the helper relies on.
#include "HMWireCodec.h"

#include <QCborArray>
#include <QtTest>

namespace {

QByteArray nestedArrays(int depth)
{
    // {"a": [[[ ... ]]]} with `depth` arrays: the map itself is one more level.
    QByteArray bytes = QByteArray::fromHex("a16161");
    bytes.append(QByteArray(depth, '\x81'));
    bytes.append('\x01');
    return bytes;
}

} // namespace

class HMWireCodecTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void requestRoundTripsWithItsTypes()
    {
        const QVariantMap params{
            {"daemonConfig", QVariantMap{{"openVPNPath", "/usr/libexec/hollowmere/openvpn"}}},
            {"vpnConfig", QStringList{"--cd", "/usr/share/hollowmere", "--management"}}};
        const QVariantMap request{{"action", "startVPN"},
                                  {"params", params},
                                  {"flag", true},
                                  {"count", 5678},
                                  {QStringLiteral("text with ünïcode"), QStringLiteral("→")}};
        HMWireMaybeError error;
        const std::optional<QVariantMap> decoded =
            decode_variant_dictionary(encode_dictionary(request), &error);
        QVERIFY2(!error, qPrintable(error ? error->description : QString()));
        QVERIFY(decoded.has_value());
        // Lists come back as lists of variants and numbers as 64-bit integers: compare as such.
        QCOMPARE(decoded->value("params").toMap().value("vpnConfig").toStringList(),
                 params.value("vpnConfig").toStringList());
        QCOMPARE(decoded->value("params").toMap().value("daemonConfig").toMap(),
                 params.value("daemonConfig").toMap());
        QCOMPARE(decoded->value("flag").typeId(), QMetaType::Bool);
        QCOMPARE(decoded->value("count").toLongLong(), 5678);
        QCOMPARE(decoded->value("action"), request.value("action"));
        QCOMPARE(decoded->value(QStringLiteral("text with ünïcode")),
                 QVariant(QStringLiteral("→")));
    }

    // Replies are read straight into variants; every CBOR form must come out as Qt's own
    // conversion gives it (chunked strings, integers beyond qint64, simple values, halves,
    // a repeated key).
    void variantsMatchQtsConversion()
    {
        const QByteArray payload =
            QByteArray::fromHex("bf"                     // {_
                                "61615f4201024103ff"     // a: (_ h'0102' h'03')
                                "61621bffffffffffffffff" // b: 2^64-1
                                "61633b7fffffffffffffff" // c: -2^63
                                "61643bffffffffffffffff" // d: -2^64
                                "6165f6"                 // e: null
                                "6166f7"                 // f: undefined
                                "6167f820"               // g: simple(32)
                                "6168f93e00"             // h: 1.5 (half)
                                "6169fa3f000000"         // i: 0.5 (float)
                                "616a7f61786179ff"       // j: (_ "x" "y")
                                "616b83012082f5f4"       // k: [1, -1, [true, false]]
                                "616c60616d40"           // l: "", m: h''
                                "616101ff");             // a again: 1 }
        const std::optional<QVariantMap> decoded = decode_variant_dictionary(payload, nullptr);
        QVERIFY(decoded.has_value());
        const QVariantMap expected = QCborValue::fromCbor(payload).toMap().toVariantMap();
        QCOMPARE(decoded->keys(), expected.keys());
        for (const QString &key : expected.keys()) {
            QCOMPARE((*decoded)[key].typeId(), expected[key].typeId());
            QCOMPARE((*decoded)[key], expected[key]);
        }
    }

    void acceptsPayloadsWithinTheLimits_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<int>("maxNesting");
        QTest::newRow("indefinite-length map") // {_ "action": "stopVPN"}
            << QByteArray::fromHex("bf66616374696f6e6773746f7056504eff") << kHMWireMaxNesting;
        QTest::newRow("deepest allowed")
            << nestedArrays(kHMWireMaxNesting - 1) << kHMWireMaxNesting;
        QTest::newRow("caller's own limit, reached") // {"a": {"b": [{}]}}
            << QByteArray::fromHex("a16161a1616281a0") << 4;
    }
    void acceptsPayloadsWithinTheLimits()
    {
        QFETCH(QByteArray, payload);
        QFETCH(int, maxNesting);
        HMWireMaybeError error;
        const std::optional<QCborMap> map = decode_dictionary(payload, &error, maxNesting);
        QVERIFY2(!error, qPrintable(error ? error->description : QString()));
        QCOMPARE(map.value_or(QCborMap()), QCborValue::fromCbor(payload).toMap());
        QVERIFY(decode_variant_dictionary(payload, &error, maxNesting).has_value());
    }

    void rejectsBadPayloads_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<int>("maxNesting");
        QTest::addColumn<long>("code");
        const auto row = [](const char *name, const QByteArray &payload, long code,
                            int maxNesting = kHMWireMaxNesting) {
            QTest::newRow(name) << payload << maxNesting << code;
        };
        const auto hex = [](const char *text) { return QByteArray::fromHex(text); };
        row("empty", QByteArray(), HMWire::PayloadMalformed);
        row("array", hex("8101"), HMWire::PayloadNotMap);
        row("integer key", hex("a10101"), HMWire::PayloadNotMap);
        row("nested integer key", hex("a16170a10101"), HMWire::PayloadNotMap);
        row("tagged value", hex("a16161c11a5f5e1000"), HMWire::PayloadNotMap);
        row("map cut short", hex("a2616101"), HMWire::PayloadMalformed);
        row("text cut short", hex("a1616166616263"), HMWire::PayloadMalformed);
        row("bytes after the map", hex("a1616101ff"), HMWire::PayloadMalformed);
        row("invalid UTF-8 value", hex("a1616162c328"), HMWire::PayloadMalformed);
        row("one level too deep", nestedArrays(kHMWireMaxNesting), HMWire::PayloadTooDeep);
        row("deeper than the caller's limit", hex("a16161a1616281a0"), HMWire::PayloadTooDeep, 3);
        // Far beyond any stack: must be refused by counting, not by crashing.
        row("a megabyte of nesting", nestedArrays(1024 * 1024), HMWire::PayloadTooDeep);
    }
    void rejectsBadPayloads()
    {
        QFETCH(QByteArray, payload);
        QFETCH(int, maxNesting);
        QFETCH(long, code);
        HMWireMaybeError error;
        QVERIFY(!decode_dictionary(payload, &error, maxNesting).has_value());
        QVERIFY(error.has_value());
        QCOMPARE(error->domain, QStringLiteral("wire"));
        QCOMPARE(error->code, code);
        QVERIFY(!error->description.isEmpty());
        // The application's reader of replies refuses the same.
        HMWireMaybeError variantError;
        QVERIFY(!decode_variant_dictionary(payload, &variantError, maxNesting).has_value());
        QCOMPARE(variantError.value_or(HMWireError()).code, code);
    }
};

QTEST_GUILESS_MAIN(HMWireCodecTest)
#include "HMWireCodecTest.moc"
