#include "HMVPNLabClient.h"

#include "HMEventWait.h"

#include "HMClock.h"
#include "HMDeploymentValues.h"
#include "HMNetlinkReachabilitySource.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMSecretServiceKeychain.h"
#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkInterface>
#include <QSslConfiguration>
#include <QTest>
#include <cstdio>
#include <unistd.h>

namespace {

QString canonical(const QString &path)
{
    return QFileInfo(path).canonicalFilePath();
}

// The raw link text ("net:[4026532...]"): QFile::symLinkTarget would make it a path.
QByteArray linkText(const QString &path)
{
    char buffer[256];
    const ssize_t n = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof(buffer));
    return n > 0 ? QByteArray(buffer, n) : QByteArray();
}

} // namespace

QString HMVPNLabClient::lab(const char *fact)
{
    return qEnvironmentVariable(fact);
}

QString HMVPNLabClient::skipReason()
{
    if (qEnvironmentVariableIsSet("HM_LAB_UNAVAILABLE")) {
        return qEnvironmentVariable("HM_LAB_UNAVAILABLE");
    }
    if (lab("LAB_HELPER_SOCKET").isEmpty() || lab("LAB_SERVICE_CONTROL").isEmpty()) {
        return QStringLiteral("runs inside the VPN lab: testing/lab/vpn-lab.sh run --service ... "
                              "--helper ... -- <this test> (ctest does that)");
    }
    return QString();
}

QString HMVPNLabClient::failReason()
{
    if (qEnvironmentVariable("HM_SECRET_SERVICE") != QLatin1String("keyring")) {
        return QStringLiteral(
            "runs on a private Secret Service (tests/support/with-secret-service.sh)");
    }
    return QString();
}

bool HMVPNLabClient::setUp(QString *why)
{
    home = HMTestEnvironment::isolateUserDirectories();
    const QString deployment =
        qEnvironmentVariable("XDG_CONFIG_HOME") + QLatin1Char('/') + HMDeploymentValues::kFileName;
    QDir().mkpath(QFileInfo(deployment).path());
    if (!QFile::copy(lab("LAB_SERVICE_DEPLOYMENT"), deployment)) {
        *why = QStringLiteral("cannot copy the lab's deployment file to ") + deployment;
        return false;
    }
    const QString control = lab("LAB_SERVICE_CONTROL");
    service.attach(control.section(QLatin1Char(':'), 0, 0),
                   control.section(QLatin1Char(':'), 1).toInt());

    // The lab's service authority stands in for one the system trusts.
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(lab("LAB_SERVICE_CA"));
    QSslConfiguration::setDefaultConfiguration(tls);

    store = std::make_unique<HMPreferenceStore>(home->filePath(QStringLiteral("prefs.json")));
    routing = std::make_unique<HMWisprouteManager>(*store);
    account = std::make_unique<HMAccountManager>(*store, HMSecretServiceKeychain::shared(),
                                                 routing.get(), center);
    reachability =
        std::make_unique<HMReachabilityManager>(std::make_unique<HMNetlinkReachabilitySource>());
    HMReachabilityManager *reach = reachability.get();
    api = std::make_unique<HMAPIClient>(
        HMDeploymentValues::loadFromSearchPath(), [reach] { return reach->isReachable(); },
        HMClock::system(), center);
    account->setAPIClient(api.get());
    account->setClosestEnabledQuery([] { return false; });

    HMDaemonManager::Paths paths;
    paths.socketPath = lab("LAB_HELPER_SOCKET");
    paths.executableDirectory = lab("LAB_HELPER_APP_DIR");
    paths.resourceDirectory = lab("LAB_HELPER_RESOURCES");
    daemon = std::make_unique<HMDaemonManager>(*store, account.get(), routing.get(), paths);
    daemon->createCommandQueue();

    accountAdapter = std::make_unique<HMVPNAccountAdapter>(*account);
    reachabilityAdapter = std::make_unique<HMVPNReachabilityAdapter>(*reachability);
    helper = std::make_unique<HMVPNDaemonAdapter>(*daemon);
    routingAdapter = std::make_unique<HMVPNRoutingAdapter>(*routing);
    HMVPNManager::Collaborators c;
    c.account = accountAdapter.get();
    c.reachability = reachabilityAdapter.get();
    c.helper = helper.get();
    c.routing = routingAdapter.get();
    c.notifications = &center;
    c.managementSocket =
        HMOpenVPNArgumentForms::managementSocketPath(lab("LAB_HELPER_MANAGEMENT"), ::getuid());
    // The cases choose a country, so the closest-server test never runs; it is wired anyway.
    closest = std::make_unique<HMClosestServerManager>(account.get(), HMClock::system(),
                                                       lab("LAB_SERVICE_DOMAIN"));
    c.closest = closest.get();
    vpn = std::make_unique<HMVPNManager>(c);
    HMVPNManager *tunnel = vpn.get();
    daemon->setTunnelInfo([tunnel] { return tunnel->connectedIp(); },
                          [tunnel] { return tunnel->tapAdapter(); });
    return true;
}

bool HMVPNLabClient::start(QString *why)
{
    if (!setUp(why)) {
        return false;
    }
    if (!QTest::qWaitFor([this] { return reachability->isReachable(); }, 5000)) {
        *why = QStringLiteral("the network is not reachable in the lab");
        return false;
    }
    return signIn(why) && checkDNSPort(why);
}

void HMVPNLabClient::startOrExit(const char *program)
{
    QString why = skipReason();
    if (why.isEmpty()) {
        why = failReason();
    }
    if (!why.isEmpty() || !start(&why)) {
        std::fprintf(stderr, "%s: %s\n", program, qPrintable(why));
        std::exit(1);
    }
    routing->setSupported(false);
}

bool HMVPNLabClient::signIn(QString *why)
{
    HMEventWait answered;
    auto result = std::make_shared<HMMaybeError>();
    account->loginWithUsername(lab("LAB_USER"), lab("LAB_PASSWORD"), false,
                               [result, done = answered.done()](const HMMaybeError &error) {
                                   *result = error;
                                   done();
                               });
    if (!answered.wait(20000) || *result) {
        *why = QStringLiteral("sign-in failed: ") +
               (*result ? (*result)->description() : QStringLiteral("no answer"));
        return false;
    }
    return account->isLoggedIn();
}

bool HMVPNLabClient::checkDNSPort(QString *why)
{
    HMEventWait checked;
    daemon->stopDNSProxy([this, done = checked.done()](const QVariantMap &, const HMMaybeError &) {
        daemon->checkDNSPortOpen([this, done](const QVariantMap &, const HMMaybeError &error) {
            proxyInstalled = !error;
            routing->setSupported(proxyInstalled);
            done();
        });
    });
    if (!checked.wait(10000)) {
        *why = QStringLiteral("the helper did not answer the DNS-port check within 10 s");
        return false;
    }
    return true;
}

bool HMVPNLabClient::connectAndWait(int timeoutMs)
{
    HMEventWait connected;
    connected.until(vpn.get(), &HMVPNManager::stateChanged,
                    [this] { return vpn->state() == VPNState::Connected; });
    vpn->connect();
    return connected.wait(timeoutMs);
}

bool HMVPNLabClient::disconnectAndWait(int timeoutMs)
{
    if (vpn->state() != VPNState::Connected && vpn->state() != VPNState::Connecting &&
        !vpn->socket()) {
        return true;
    }
    HMEventWait answered;
    vpn->disconnectWithCompletion([done = answered.done()](const HMMaybeError &) { done(); });
    if (!answered.wait(timeoutMs)) {
        qWarning("the helper did not answer the disconnect within %d ms", timeoutMs);
        return false;
    }
    return true;
}

QList<int> HMVPNLabClient::openVPNProcesses()
{
    QList<int> found;
    const QString openvpn = canonical(HMTestEnvironment::findProgram(QStringLiteral("openvpn")));
    const QByteArray ownNamespace = linkText(QStringLiteral("/proc/self/ns/net"));
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        const int pid = entry.toInt();
        const QString base = QStringLiteral("/proc/") + entry;
        if (pid > 0 && canonical(base + QStringLiteral("/exe")) == openvpn &&
            linkText(base + QStringLiteral("/ns/net")) == ownNamespace) {
            found.append(pid);
        }
    }
    return found;
}

int HMVPNLabClient::trackedOpenVPN()
{
    QFile file(lab("LAB_HELPER_RUN") + QStringLiteral("/openvpn.pid"));
    if (!file.open(QIODevice::ReadOnly)) {
        return 0;
    }
    const int pid = file.readAll().trimmed().toInt();
    return openVPNProcesses().contains(pid) ? pid : 0;
}

QStringList HMVPNLabClient::tunDevices()
{
    QStringList names;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        if (interface.name().startsWith(QLatin1String("tun"))) {
            names.append(interface.name());
        }
    }
    return names;
}
