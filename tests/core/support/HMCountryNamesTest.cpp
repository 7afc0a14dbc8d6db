#include "HMCountryNames.h"

#include <QtTest>

class HMCountryNamesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tablesHoldEveryCodeWithItsSpelling()
    {
        const QHash<QString, QString> display = code_to_country_dict();
        QCOMPARE(display.size(), 252);
        QCOMPARE(country_to_code_dict().size(), 252);
        int inCountryTable = 0;
        for (auto it = display.begin(); it != display.end(); ++it) {
            inCountryTable += HMCountryNames::getCountryForCode(it.key()) == it.value();
            QCOMPARE(country_to_code_dict().value(it.value()), it.key());
        }
        QCOMPARE(inCountryTable, 251);
    }

    void lookupsAreExact_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("countryName"); // getCountryForCode
        QTest::addColumn<QString>("displayName"); // code_to_country_dict
        const auto row = [](const char *name, const char *code, const char *countryName,
                            const char *displayName) {
            QTest::newRow(name) << QString(code) << QString(countryName) << QString(displayName);
        };
        row("misspelling kept", "BL", "Saint Bartelemey", "Saint Bartelemey");
        row("inverted form", "KR", "Korea, Republic of", "Korea, Republic of");
        row("apostrophe", "CI", "Cote d'Ivoire", "Cote d'Ivoire");
        row("regional", "AP", "Asia/Pacific Region", "Asia/Pacific Region");
        row("closest", "Closest", nullptr, "Closest Tunnel");
        row("lower case", "us", nullptr, nullptr);
        row("unknown", "XX", nullptr, nullptr);
    }
    void lookupsAreExact()
    {
        QFETCH(QString, code);
        QFETCH(QString, countryName);
        QFETCH(QString, displayName);
        QCOMPARE(HMCountryNames::getCountryForCode(code), countryName);
        QCOMPARE(HMCountryNames::getCountryForCode(code).isNull(), countryName.isNull());
        QCOMPARE(HMCountryNames::nameForCode(code), displayName);
        if (!displayName.isNull()) {
            QCOMPARE(HMCountryNames::codeForName(displayName), code);
        }
    }

    void listShowsCodeForUnknownAndKeepsOrder()
    {
        const auto record = [](const QString &code) {
            return QVariant(QVariantMap{{"id", "1"}, {"code", code}});
        };
        const QVariantList records{record("GB"), record("ZZ"), record("US"), record("Closest"),
                                   QVariant(QStringLiteral("not a record"))};
        QCOMPARE(HMCountryNames::namesForCountryRecords(records),
                 QStringList({"United Kingdom", "ZZ", "United States", "Closest", ""}));
        QCOMPARE(HMCountryNames::displayNamesForCountryRecords(records).at(3),
                 QStringLiteral("Closest Tunnel"));
        QVERIFY(HMCountryNames::namesForCountryRecords({}).isEmpty());
    }

    void imageChosenByCode_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("image");
        for (const auto &[code, image] : {std::pair{"US", "alert_usa"},
                                          {"NL", "alert_happy"},
                                          {"us", "alert_happy"},
                                          {"Closest", "alert_happy"}}) {
            QTest::newRow(code) << QString(code) << QString(image);
        }
    }
    void imageChosenByCode()
    {
        QFETCH(QString, code);
        QFETCH(QString, image);
        QCOMPARE(HMCountryNames::imageNameForCountry(code), image);
    }
};

QTEST_GUILESS_MAIN(HMCountryNamesTest)
#include "HMCountryNamesTest.moc"
