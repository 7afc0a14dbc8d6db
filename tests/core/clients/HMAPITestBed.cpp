#include "HMAPITestBed.h"

#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSslConfiguration>
#include <QStandardPaths>

const QString HMAPITestBed::kServiceDomain = QStringLiteral("hollowmere.test");
const QString HMAPITestBed::kStaticHost = QStringLiteral("static.hollowmere-files.test");
const QString HMAPITestBed::kTrustedHost = QStringLiteral("api.hollowmere.test");

QString HMAPITestBed::unavailableReason()
{
    const QString reason = qEnvironmentVariable("HM_NETNS_UNAVAILABLE");
    if (!reason.isEmpty()) {
        return QStringLiteral("runs the reference service in a network namespace: ") + reason;
    }
    if (qEnvironmentVariable("HM_NETNS").isEmpty()) {
        return QStringLiteral("must be started through testing/netns/hm-netns-run (ctest does)");
    }
    if (HMTestEnvironment::findProgram(QStringLiteral("openssl")).isEmpty()) {
        return QStringLiteral("needs the openssl command");
    }
    return QString();
}

namespace {

QJsonObject listener(const QString &name, const QString &address, int port,
                     const HMTestCertificates::Leaf *leaf)
{
    QJsonObject object{{QStringLiteral("name"), name},
                       {QStringLiteral("address"), address},
                       {QStringLiteral("port"), port}};
    if (leaf) {
        object.insert(QStringLiteral("cert"), leaf->chain);
        object.insert(QStringLiteral("key"), leaf->key);
    }
    return object;
}

} // namespace

bool HMAPITestBed::setUp(QString *error)
{
    m_home = HMTestEnvironment::isolateUserDirectories();
    HMTestCertificates certificates(m_directory.path());
    const auto rapid =
        certificates.makeAuthority(QStringLiteral("rapid"), QStringLiteral("RapidSSL CA"));
    const auto other =
        certificates.makeAuthority(QStringLiteral("other"), QStringLiteral("Other CA"));
    const auto lowerIssuer =
        certificates.makeAuthority(QStringLiteral("lower"), QStringLiteral("rapidssl ca"));
    m_trustedRoot =
        certificates.makeAuthority(QStringLiteral("root"), QStringLiteral("Hollowmere Test Root"));
    const QString wildcard = QStringLiteral("*.") + kServiceDomain;
    const auto serviceLeaf = certificates.makeLeaf(QStringLiteral("service"), wildcard, &rapid);
    const auto wrongIssuer =
        certificates.makeLeaf(QStringLiteral("wrong-issuer"), wildcard, &other);
    const auto oneCertificate =
        certificates.makeLeaf(QStringLiteral("one-cert"), wildcard, &rapid, {}, false);
    const auto specificHost =
        certificates.makeLeaf(QStringLiteral("specific"), kTrustedHost, &rapid);
    const auto trusted = certificates.makeLeaf(QStringLiteral("trusted"), kTrustedHost,
                                               &m_trustedRoot, {kTrustedHost});
    const auto upperCase =
        certificates.makeLeaf(QStringLiteral("upper"), QStringLiteral("*.HOLLOWMERE.test"), &rapid);
    const auto lowerCaseIssuer =
        certificates.makeLeaf(QStringLiteral("lower-issuer"), wildcard, &lowerIssuer);
    // Issued by a trusted authority for a name none of the service's.
    const auto otherHost =
        certificates.makeLeaf(QStringLiteral("other-host"), QStringLiteral("unrelated.example"),
                              &rapid, {QStringLiteral("unrelated.example")});
    const auto selfSigned = certificates.makeLeaf(QStringLiteral("self-signed"),
                                                  QStringLiteral("unrelated.example"), nullptr);
    // The right strings under an issuer of the right name that no one trusts.
    const auto forger =
        certificates.makeAuthority(QStringLiteral("forger"), QStringLiteral("RapidSSL CA"));
    const auto forged = certificates.makeLeaf(QStringLiteral("forged"), wildcard, &forger);
    const auto expired = certificates.makeLeaf(QStringLiteral("expired"), wildcard, &rapid, {},
                                               true, HMTestCertificates::Dates::Expired);
    if (!certificates.error().isEmpty()) {
        *error = certificates.error();
        return false;
    }
    if (!writeDeploymentFile(error)) {
        return false;
    }
    // The trust store the client uses: every authority of the bed but the forger's.
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    for (const QString &authority : {rapid.certificate, other.certificate, lowerIssuer.certificate,
                                     m_trustedRoot.certificate}) {
        configuration.addCaCertificates(authority);
    }
    QSslConfiguration::setDefaultConfiguration(configuration);

    const QJsonObject config{
        {QStringLiteral("listeners"),
         QJsonArray{
             listener(QStringLiteral("api"), QStringLiteral("127.0.0.1"), 443, &serviceLeaf),
             listener(QStringLiteral("api-http"), QStringLiteral("127.0.0.1"), 80, nullptr),
             listener(QStringLiteral("fallback"), QStringLiteral("127.0.0.3"), 443, &serviceLeaf),
             listener(QStringLiteral("static"), QStringLiteral("127.0.0.4"), 443, &otherHost),
             listener(QStringLiteral("wrong-issuer"), QStringLiteral("127.0.0.11"), 443,
                      &wrongIssuer),
             listener(QStringLiteral("one-cert"), QStringLiteral("127.0.0.12"), 443,
                      &oneCertificate),
             listener(QStringLiteral("specific"), QStringLiteral("127.0.0.13"), 443, &specificHost),
             listener(QStringLiteral("trusted"), QStringLiteral("127.0.0.14"), 443, &trusted),
             listener(QStringLiteral("upper"), QStringLiteral("127.0.0.15"), 443, &upperCase),
             listener(QStringLiteral("lower-issuer"), QStringLiteral("127.0.0.16"), 443,
                      &lowerCaseIssuer),
             listener(QStringLiteral("forged"), QStringLiteral("127.0.0.17"), 443, &forged),
             listener(QStringLiteral("expired"), QStringLiteral("127.0.0.18"), 443, &expired),
             listener(QStringLiteral("self-signed"), QStringLiteral("127.0.0.20"), 443,
                      &selfSigned)}},
        {QStringLiteral("fallroot"), QJsonObject{{QStringLiteral("ips"), QJsonArray{}}}},
    };
    return service.start(config, error);
}

HMDeploymentValues HMAPITestBed::deployment() const
{
    return HMDeploymentValues::loadFromSearchPath();
}

bool HMAPITestBed::writeDeploymentFile(QString *error)
{
    // The way the demo points the client at the reference service: a deployment file in
    // the (test's own) user config folder.
    const QString path = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                         QLatin1Char('/') + HMDeploymentValues::kFileName;
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    const QJsonObject values{
        {QStringLiteral("serviceDomain"), kServiceDomain},
        {QStringLiteral("streamingHost"), QString(QStringLiteral("stream.") + kServiceDomain)},
        {QStringLiteral("staticHost"), kStaticHost},
        {QStringLiteral("webSiteRoot"), QString(QStringLiteral("https://www.") + kServiceDomain)},
        {QStringLiteral("helpHost"), QString(QStringLiteral("help.") + kServiceDomain)},
    };
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(values).toJson()) < 0) {
        *error = path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    return true;
}

std::unique_ptr<HMAPIClient> HMAPITestBed::makeClient(HMClock &clock, HMNotificationCenter &center)
{
    return std::make_unique<HMAPIClient>(
        deployment(), [this] { return reachable; }, clock, center);
}
