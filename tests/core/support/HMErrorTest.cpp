#include "HMError.h"

#include <QtTest>

class HMErrorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void describesAsDescriptionDomainCode_data()
    {
        QTest::addColumn<QString>("domain");
        QTest::addColumn<long>("code");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("printed");
        QTest::newRow("app") << "hmwisp" << 0l << "No internet connection"
                             << "No internet connection [hmwisp](0)";
        QTest::newRow("negative code") << "NSURLErrorDomain" << -1011l << "Bad Server Response."
                                       << "Bad Server Response. [NSURLErrorDomain](-1011)";
    }
    void describesAsDescriptionDomainCode()
    {
        QFETCH(QString, domain);
        QFETCH(long, code);
        QFETCH(QString, description);
        QFETCH(QString, printed);
        const HMError error = HMError::errorWithDomain(domain, code, description);
        QCOMPARE(error.description(), printed);
        QCOMPARE(error.localizedDescription(), description);
    }

    void displayTextIsNeverEmpty_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("reason");
        QTest::addColumn<QString>("shown");
        QTest::newRow("description first") << "Refused"
                                           << "Why"
                                           << "Refused";
        QTest::newRow("reason without a description") << ""
                                                      << "Why"
                                                      << "Why";
        QTest::newRow("neither") << ""
                                 << ""
                                 << "[hmwisp](4)";
    }
    void displayTextIsNeverEmpty()
    {
        QFETCH(QString, description);
        QFETCH(QString, reason);
        QFETCH(QString, shown);
        QCOMPARE(HMError::errorWithCode(4, description, reason).displayText(), shown);
    }

    void shortcutsUseAppDomainAndCodeZero()
    {
        const HMError error = HMError::errorWithDescription("Must be logged in");
        QCOMPARE(error.domain(), QStringLiteral("hmwisp"));
        QCOMPARE(error.code(), 0l);
        QCOMPARE(HMError::errorWithCode(7, "x").domain(), QStringLiteral("hmwisp"));
        QVERIFY(error == HMError::errorWithCode(0, "Must be logged in"));
    }

    // Only what was given, so a reader can tell "no reason" from an empty one; extra
    // entries count for equality but never show in the printed form.
    void userInfoHoldsOnlyWhatWasGiven()
    {
        QVERIFY(HMError::errorWithCode(3, QString()).userInfo().isEmpty());
        QCOMPARE(HMError::errorWithCode(3, "d", "r").userInfo(),
                 (QVariantMap{{HMError::kDescriptionKey, "d"}, {HMError::kFailureReasonKey, "r"}}));
        const HMError plain("CFNetwork", 2, "Host not found");
        QVERIFY(!plain.hasFailureReason());
        QCOMPARE(plain.userInfo().keys(), QStringList{HMError::kDescriptionKey});
        HMError error = plain;
        error.setUserInfoValue("kCFGetAddrInfoFailureKey", -2);
        QCOMPARE(error.userInfoValue("kCFGetAddrInfoFailureKey").toInt(), -2);
        QCOMPARE(error.userInfo().size(), 2);
        QVERIFY(!(error == plain));
        QCOMPARE(error.description(), plain.description());
    }
};

QTEST_GUILESS_MAIN(HMErrorTest)
#include "HMErrorTest.moc"
