#include "IgnoreCert.h"
#include "HMAPITestBed.h"
#include "HMManualClock.h"
#include "HMNotificationCenter.h"

#include <QtTest>

// The certificate rule against real TLS servers: each listener of the test bed presents
// one kind of chain, and the client asks each for the status probe.
class IgnoreCertTest : public QObject
{
    Q_OBJECT

private:
    HMAPITestBed m_bed;
    HMManualClock m_clock;
    HMNotificationCenter m_center;

private Q_SLOTS:
    void initTestCase() { HM_START_API_TEST_BED(m_bed); }

    void serverTrust_data()
    {
        QTest::addColumn<QString>("root");
        QTest::addColumn<bool>("accepted");
        // The deployment's static-file host, when the row needs another one than the bed's.
        QTest::addColumn<QString>("staticHost");
        const auto row = [](const char *name, const char *root, bool accepted,
                            const char *staticHost = nullptr) {
            QTest::newRow(name) << QString(root) << accepted << QString(staticHost);
        };
        row("wildcard leaf and RapidSSL CA, by address", "https://127.0.0.3", true);
        row("wildcard leaf and RapidSSL CA, by service domain", "https://hollowmere.test", true);
        row("wildcard leaf from another issuer", "https://127.0.0.11", false);
        row("wildcard leaf sent without its issuer", "https://127.0.0.12", false);
        row("leaf naming one host of the service", "https://127.0.0.13", false);
        row("leaf name in other letter case", "https://127.0.0.15", false);
        row("issuer name in other letter case", "https://127.0.0.16", false);
        row("static host by name, valid certificate for another name",
            "https://static.hollowmere-files.test", true);
        row("static host's certificate by address", "https://127.0.0.4", false);
        row("certificate valid for the host", "https://api.hollowmere.test", true);
        row("valid certificate, reached by address", "https://127.0.0.14", false);
        // Forgeries: the names are right, the trust is not.
        row("right strings under a self-made RapidSSL CA, by address", "https://127.0.0.17", false);
        row("right strings under a self-made RapidSSL CA, by service name",
            "https://forged.hollowmere.test", false);
        row("right strings under a self-made RapidSSL CA, on the static host",
            "https://forged.hollowmere-files.test", false, "forged.hollowmere-files.test");
        row("static host with a self-signed certificate",
            "https://self-signed.hollowmere-files.test", false,
            "self-signed.hollowmere-files.test");
        row("right strings from the trusted issuer, expired", "https://127.0.0.18", false);
        row("valid chain for another host, reached by a service name",
            "https://wrong.hollowmere.test", false);
    }

    void serverTrust()
    {
        QFETCH(QString, root);
        QFETCH(bool, accepted);
        QFETCH(QString, staticHost);
        HMDeploymentValues deployment = m_bed.deployment();
        if (!staticHost.isEmpty()) {
            deployment.setStaticHost(staticHost);
        }
        HMAPIClient client(
            deployment, [] { return true; }, m_clock, m_center);
        client.setStatus(HMAPIStatusHealthy);
        client.setAPIRoot(0, root);
        HMAPIResult result;
        client.getStatusWithCompletion(result.completion());
        QTRY_VERIFY_WITH_TIMEOUT(result.done, 10000);
        if (accepted) {
            QVERIFY2(!result.error, qPrintable(result.errorText()));
            QCOMPARE(result.reply.value("response").toString(), QStringLiteral("ok"));
        } else {
            QVERIFY(result.error);
            QCOMPARE(result.error->domain(), HMAPIClient::kURLLoadingDomain);
            QCOMPARE(result.error->code(), -1200L);
        }
    }

    void ruleOnPresentedChains_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<QStringList>("subjects");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("accepted host, no chain") << "files.test" << QStringList() << true;
        QTest::newRow("wildcard entry is no host") << "*.svc.test" << QStringList() << true;
        QTest::newRow("three certificates, first two decide")
            << "10.0.0.1" << QStringList{"*.svc.test", "RapidSSL CA", "Root"} << true;
        QTest::newRow("issuer first")
            << "10.0.0.1" << QStringList{"RapidSSL CA", "*.svc.test"} << false;
        QTest::newRow("static host as leaf name")
            << "10.0.0.1" << QStringList{"files.test", "RapidSSL CA"} << true;
    }

    // The decision alone, for chains no TLS server in the bed presents.
    void ruleOnPresentedChains()
    {
        QFETCH(QString, host);
        QFETCH(QStringList, subjects);
        QFETCH(bool, accepted);
        QList<QSslCertificate> chain;
        QTemporaryDir directory;
        HMTestCertificates certificates(directory.path());
        for (int i = 0; i < subjects.size(); ++i) {
            const auto leaf = certificates.makeLeaf(QString::number(i), subjects.at(i), nullptr);
            QVERIFY2(certificates.error().isEmpty(), qPrintable(certificates.error()));
            chain += QSslCertificate::fromPath(leaf.certificate);
        }
        const QStringList names = IgnoreCert::acceptedNamesFor("svc.test", "files.test");
        QCOMPARE(IgnoreCert::acceptsServerTrust(host, chain, names), accepted);
    }
};

QTEST_GUILESS_MAIN(IgnoreCertTest)
#include "IgnoreCertTest.moc"
