// The service side of the API client tests: certificates made with openssl, and the
// reference service listening on the addresses the hosts file of the test's network
// namespace gives the service's names (see CMakeLists.txt):
//
//   127.0.0.1   hollowmere.test, stream.hollowmere.test  "api" (HTTPS 443), "api-http" (80)
//   127.0.0.2   a fallback address where nothing listens
//   127.0.0.3   a fallback address serving the API        "fallback"
//   127.0.0.4   static.hollowmere-files.test, wrong.hollowmere.test
//                                                         "static" (valid for another name)
//   127.0.0.11-20 one listener per certificate case (IgnoreCertTest)
//   127.0.0.14  api.hollowmere.test                       "trusted" (valid for that name)
//   127.0.0.17  forged.hollowmere.test, forged.hollowmere-files.test  "forged"
//   127.0.0.20  self-signed.hollowmere-files.test         "self-signed"
//
// Every authority of the bed except the forger's is added to the client's trust store.
#pragma once

#include "HMAPIClient.h"
#include "HMRefService.h"
#include "HMTestCertificates.h"

#include <QTemporaryDir>
#include <QTest>
#include <memory>

class HMClock;
class HMNotificationCenter;

// For initTestCase: skips the suite where the bed cannot run here, fails it where set-up fails.
#define HM_START_API_TEST_BED(bed)                                                                 \
    do {                                                                                           \
        const QString hmReason = HMAPITestBed::unavailableReason();                                \
        if (!hmReason.isEmpty()) {                                                                 \
            QSKIP(qPrintable(hmReason));                                                           \
        }                                                                                          \
        QString hmError;                                                                           \
        QVERIFY2((bed).setUp(&hmError), qPrintable(hmError));                                      \
    } while (false)

// What one request's completion received.
struct HMAPIResult
{
    bool done = false;
    QVariantMap reply;
    HMMaybeError error;

    HMAPICompletion completion()
    {
        return [this](const QVariantMap &r, const HMMaybeError &e) {
            done = true;
            reply = r;
            error = e;
        };
    }
    QString errorText() const { return error ? error->description() : QStringLiteral("no error"); }
};

class HMAPITestBed
{
public:
    static const QString kServiceDomain;
    static const QString kStaticHost;
    static const QString kTrustedHost;

    // Empty when the test can run here, else the reason to skip.
    static QString unavailableReason();

    // Gives the test private user folders, writes the deployment file that names the hosts
    // above into the config folder there and starts the service.
    bool setUp(QString *error);
    // A path in the private home folder.
    QString homeFile(const QString &name) const { return m_home->filePath(name); }
    // Read back from that file, as the application reads it.
    HMDeploymentValues deployment() const;
    // A client whose network is reachable while `reachable` is true.
    std::unique_ptr<HMAPIClient> makeClient(HMClock &clock, HMNotificationCenter &center);

    HMRefService service;
    bool reachable = true;

private:
    bool writeDeploymentFile(QString *error);

    std::unique_ptr<QTemporaryDir> m_home;
    QTemporaryDir m_directory;
    HMTestCertificates::Authority m_trustedRoot;
};
