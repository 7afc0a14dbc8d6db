// The service side of the API client tests: certificates made with openssl, and the
// reference service listening on the addresses the hosts file of the test's network
// namespace gives the service's names (see CMakeLists.txt):
//
//   127.0.0.1   hollowmere.test, stream.hollowmere.test  "api" (HTTPS 443), "api-http" (80)
//   127.0.0.2   a fallback address where nothing listens
//   127.0.0.3   a fallback address serving the API        "fallback"
//   127.0.0.4   static.hollowmere-files.test              "static" (any certificate)
//   127.0.0.11-16 one listener per certificate case (IgnoreCertTest)
//   127.0.0.14  api.hollowmere.test                       "trusted" (valid for that name)
#pragma once

#include "HMAPIClient.h"
#include "HMRefService.h"
#include "HMTestCertificates.h"

#include <QTemporaryDir>
#include <memory>

class HMClock;
class HMNotificationCenter;

class HMAPITestBed
{
public:
    static const QString kServiceDomain;
    static const QString kStaticHost;
    static const QString kTrustedHost;

    // Empty when the test can run here, else the reason to skip.
    static QString unavailableReason();

    // Call after HMTestEnvironment::isolateUserDirectories(): writes the deployment file
    // that names the hosts above into the private config folder.
    bool setUp(QString *error);
    // Read back from that file, as the application reads it.
    HMDeploymentValues deployment() const;
    // A client whose network is reachable while `reachable` is true.
    std::unique_ptr<HMAPIClient> makeClient(HMClock &clock, HMNotificationCenter &center);
    // The authority the "trusted" listener's certificate comes from; tests that want the
    // platform to accept that certificate add it to the default TLS configuration.
    QString trustedRootPath() const { return m_trustedRoot.certificate; }

    HMRefService service;
    bool reachable = true;

private:
    bool writeDeploymentFile(QString *error);

    QTemporaryDir m_directory;
    HMTestCertificates::Authority m_trustedRoot;
};
