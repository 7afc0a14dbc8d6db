#include "HMBundleInfo.h"
#include "HMFormatting.h"
#include "HMProcess.h"
#include "HMStringExtensions.h"
#include "HMTestEnvironment.h"
#include "HMURLEncoding.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

class HMUtilitiesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void encodesLikeTheService_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("unreserved kept") << "-._~!'()*" << QStringLiteral("-._~!'()*");
        QTest::newRow("space and percent") << "a b%c" << QStringLiteral("a%20b%25c");
        QTest::newRow("illegal characters")
            << "<>\"#{}|\\^`[]" << QStringLiteral("%3C%3E%22%23%7B%7D%7C%5C%5E%60%5B%5D");
        QTest::newRow("utf8") << "Zürich €" << QStringLiteral("Z%C3%BCrich%20%E2%82%AC");
        QTest::newRow("empty") << "" << QStringLiteral("");
    }
    void encodesLikeTheService()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(url_encode(input), expected);
    }

    // Outputs are trimmed; whitespace only is empty, not absent; invalid UTF-8 is absent.
    void runCollectsTrimmedOutputs_data()
    {
        QTest::addColumn<QStringList>("command");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("err");
        const auto row = [](const char *name, const char *script, int status, const QString &out,
                            const char *err) {
            QTest::newRow(name) << QStringList{"/bin/sh", "-c", script} << status << out
                                << QString(err);
        };
        row("stdout only", "printf '  hello\\n\\n'", 0, "hello", "");
        row("stderr and status", "echo oops >&2; exit 3", 3, "", "oops");
        row("whitespace only", "printf ' \\t\\n '", 0, "", "");
        row("both streams", "echo out; echo err >&2", 0, "out", "err");
        row("invalid UTF-8", "printf 'a\\377b'; echo fine >&2", 0, "<absent>", "fine");
        // Read while it runs: a pipe filled up must not hang the call.
        row("large output", "head -c 300000 /dev/zero | tr '\\0' x", 0, QString(300000, 'x'), "");
        QTest::newRow("cannot start")
            << QStringList{"/nonexistent/tool"} << -1 << "<absent>" << QStringLiteral("<absent>");
        QTest::newRow("no arguments") << QStringList{"/bin/true"} << 0 << "" << QStringLiteral("");
    }
    void runCollectsTrimmedOutputs()
    {
        QFETCH(QStringList, command);
        QFETCH(int, status);
        QFETCH(QString, out);
        QFETCH(QString, err);
        std::optional<QString> output = QStringLiteral("stale");
        std::optional<QString> errorOutput;
        QCOMPARE(run(command.first(), command.mid(1), &output, &errorOutput), status);
        QCOMPARE(output.value_or("<absent>"), out);
        QCOMPARE(errorOutput.value_or("<absent>"), err);
    }

    void makesFrameNames_data()
    {
        QTest::addColumn<unsigned long>("count");
        QTest::addColumn<bool>("reversed");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("none") << 0ul << false << QStringList();
        QTest::newRow("nine unpadded")
            << 9ul << false << QStringList{"x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9"};
        QTest::newRow("ten padded")
            << 10ul << false
            << QStringList{"x01", "x02", "x03", "x04", "x05", "x06", "x07", "x08", "x09", "x10"};
        QTest::newRow("reversed") << 10ul << true << QStringList{"x10", "x09", "x08", "x07", "x06",
                                                                 "x05", "x04", "x03", "x02", "x01"};
        QTest::newRow("three reversed") << 3ul << true << QStringList{"x3", "x2", "x1"};
    }
    void makesFrameNames()
    {
        QFETCH(unsigned long, count);
        QFETCH(bool, reversed);
        QFETCH(QStringList, expected);
        QCOMPARE(make_frames(QStringLiteral("x"), count, reversed), expected);
    }
    void prettyMegabytes_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<QString>("expected");
        QTest::newRow("below one MiB") << qint64(1048575) << "0 ";
        QTest::newRow("five MiB") << qint64(5242880) << "5 ";
        QTest::newRow("zero") << qint64(0) << "0 ";
        QTest::newRow("truncates") << qint64(41943039) << "39 ";
        QTest::newRow("negative prints unsigned") << qint64(-1048577) << "18446744073709551615 ";
        QTest::newRow("small negative truncates to zero") << qint64(-5) << "0 ";
    }
    void prettyMegabytes()
    {
        QFETCH(qint64, bytes);
        QFETCH(QString, expected);
        QCOMPARE(pretty_mb(bytes), expected);
    }

    void regexMatchesWholeString_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<bool>("matches");
        QTest::newRow("partial is not enough") << "xabcx"
                                               << "abc" << false;
        QTest::newRow("whole match") << "xabcx"
                                     << ".*abc.*" << true;
        QTest::newRow("exact") << "abc"
                               << "abc" << true;
        QTest::newRow("prefix only") << "abcd"
                                     << "abc" << false;
        QTest::newRow("alternation anchored as a whole") << "ab"
                                                         << "a|ab" << true;
        QTest::newRow("invalid pattern") << "abc"
                                         << "(" << false;
    }
    void regexMatchesWholeString()
    {
        QFETCH(QString, text);
        QFETCH(QString, pattern);
        QFETCH(bool, matches);
        QCOMPARE(containsRegex(text, pattern), matches);
    }
    void appendsTextAndBytesButMakesNoDirectory()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("out.txt"));
        QVERIFY(appendToFile(QString::fromUtf8("grüß\n"), path));
        QVERIFY(appendToFile(QByteArray("\x00\x01", 2), path));
        QCOMPARE(HMTestEnvironment::readFile(path), QByteArray("gr\xc3\xbc\xc3\x9f\n\x00\x01", 9));

        const QString missing = dir.filePath(QStringLiteral("no/such"));
        QVERIFY(!appendToFile(QStringLiteral("x"), missing + QStringLiteral("/file.txt")));
        QVERIFY(!QFile::exists(missing));
    }

    void uuidIsUpperCaseCanonical()
    {
        const QString first = generate_UUID();
        const QRegularExpression form(
            QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"));
        QVERIFY2(form.match(first).hasMatch(), qPrintable(first));
        QVERIFY(first != generate_UUID());
    }
};

QTEST_GUILESS_MAIN(HMUtilitiesTest)
#include "HMUtilitiesTest.moc"
