#include "HMError.h"

#include <QtTest>

class HMErrorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void describesAsDescriptionDomainCode_data();
    void describesAsDescriptionDomainCode();
    void userInfoHoldsOnlyWhatWasGiven();
    void shortcutsUseAppDomainAndCodeZero();
    void extraUserInfoEntriesKeptAndCompared();
};

void HMErrorTest::describesAsDescriptionDomainCode_data()
{
    QTest::addColumn<QString>("domain");
    QTest::addColumn<long>("code");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QString>("printed");
    QTest::newRow("app") << "hmwisp" << 0l << "No internet connection"
                         << "No internet connection [hmwisp](0)";
    QTest::newRow("negative code") << "NSURLErrorDomain" << -1011l << "Bad Server Response."
                                   << "Bad Server Response. [NSURLErrorDomain](-1011)";
    QTest::newRow("sockets") << "sockets" << 42l << "x"
                             << "x [sockets](42)";
}

void HMErrorTest::describesAsDescriptionDomainCode()
{
    QFETCH(QString, domain);
    QFETCH(long, code);
    QFETCH(QString, description);
    QFETCH(QString, printed);
    const HMError error = HMError::errorWithDomain(domain, code, description);
    QCOMPARE(error.description(), printed);
    QCOMPARE(error.localizedDescription(), description);
}

void HMErrorTest::userInfoHoldsOnlyWhatWasGiven()
{
    QVERIFY(HMError::errorWithCode(3, QString()).userInfo().isEmpty());
    const HMError withReason = HMError::errorWithCode(3, QStringLiteral("d"), QStringLiteral("r"));
    QCOMPARE(withReason.userInfo().value(HMError::kDescriptionKey).toString(), QStringLiteral("d"));
    QCOMPARE(withReason.userInfo().value(HMError::kFailureReasonKey).toString(),
             QStringLiteral("r"));
    const HMError noReason = HMError::errorWithCode(3, QStringLiteral("d"));
    QVERIFY(!noReason.userInfo().contains(HMError::kFailureReasonKey));
    QVERIFY(!noReason.hasFailureReason());
}

void HMErrorTest::shortcutsUseAppDomainAndCodeZero()
{
    const HMError error = HMError::errorWithDescription(QStringLiteral("Must be logged in"));
    QCOMPARE(error.domain(), QStringLiteral("hmwisp"));
    QCOMPARE(error.code(), 0l);
    QCOMPARE(HMError::errorWithCode(7, QStringLiteral("x")).domain(), QStringLiteral("hmwisp"));
    QVERIFY(error == HMError::errorWithCode(0, QStringLiteral("Must be logged in")));
}

void HMErrorTest::extraUserInfoEntriesKeptAndCompared()
{
    HMError error(QStringLiteral("CFNetwork"), 2, QStringLiteral("Host not found"));
    const HMError plain = error;
    error.setUserInfoValue(QStringLiteral("kCFGetAddrInfoFailureKey"), -2);
    QCOMPARE(error.userInfoValue(QStringLiteral("kCFGetAddrInfoFailureKey")).toInt(), -2);
    QCOMPARE(error.userInfo().value(HMError::kDescriptionKey).toString(),
             QStringLiteral("Host not found"));
    QCOMPARE(error.userInfo().size(), 2);
    QVERIFY(!(error == plain));
    QCOMPARE(error.description(), plain.description());
}

QTEST_GUILESS_MAIN(HMErrorTest)
#include "HMErrorTest.moc"
