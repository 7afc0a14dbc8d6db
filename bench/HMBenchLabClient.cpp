#include "HMBenchLabClient.h"

#include "HMClock.h"
#include "HMDeploymentValues.h"
#include "HMNetlinkReachabilitySource.h"
#include "HMOpenVPNArgumentForms.h"
#include "HMSecretServiceKeychain.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSslConfiguration>
#include <cstdio>
#include <unistd.h>

namespace HMBench {

QString fact(const char *name)
{
    return qEnvironmentVariable(name);
}

bool spinUntil(const std::function<bool()> &done, int ms)
{
    const QDeadlineTimer deadline(ms);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return true;
}

void fail(const char *program, const QString &why)
{
    std::fprintf(stderr, "%s: %s\n", program, qPrintable(why));
    std::exit(1);
}

} // namespace HMBench

using HMBench::fact;
using HMBench::spinUntil;

HMBenchLabClient::HMBenchLabClient(const char *program)
{
    if (fact("LAB_HELPER_SOCKET").isEmpty() || fact("LAB_SERVICE_DEPLOYMENT").isEmpty()) {
        HMBench::fail(program,
                      QStringLiteral("run me inside the VPN lab: testing/lab/vpn-lab.sh run "
                                     "--service <hm-refservice> --helper <hmwispd> -- "
                                     "tests/support/with-secret-service.sh <this program>"));
    }
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    const QString deployment =
        home.filePath(QStringLiteral("config/") + HMDeploymentValues::kFileName);
    QDir().mkpath(QFileInfo(deployment).path());
    QFile::copy(fact("LAB_SERVICE_DEPLOYMENT"), deployment);
    // The lab's service authority stands in for one the system trusts.
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(fact("LAB_SERVICE_CA"));
    QSslConfiguration::setDefaultConfiguration(tls);

    store = std::make_unique<HMPreferenceStore>(home.filePath(QStringLiteral("prefs.json")));
    routing = std::make_unique<HMWisprouteManager>(*store);
    account = std::make_unique<HMAccountManager>(*store, HMSecretServiceKeychain::shared(),
                                                 routing.get(), center);
    reachability =
        std::make_unique<HMReachabilityManager>(std::make_unique<HMNetlinkReachabilitySource>());
    api = std::make_unique<HMAPIClient>(
        HMDeploymentValues::loadFromSearchPath(), [this] { return reachability->isReachable(); },
        HMClock::system(), center);
    account->setAPIClient(api.get());
    account->setClosestEnabledQuery([] { return false; });
    HMDaemonManager::Paths paths;
    paths.socketPath = fact("LAB_HELPER_SOCKET");
    paths.executableDirectory = fact("LAB_HELPER_APP_DIR");
    paths.resourceDirectory = fact("LAB_HELPER_RESOURCES");
    daemon = std::make_unique<HMDaemonManager>(*store, account.get(), routing.get(), paths);
    daemon->createCommandQueue();
    closest = std::make_unique<HMClosestServerManager>(account.get(), HMClock::system(),
                                                       fact("LAB_SERVICE_DOMAIN"));

    accountAdapter = std::make_unique<HMVPNAccountAdapter>(*account);
    reachabilityAdapter = std::make_unique<HMVPNReachabilityAdapter>(*reachability);
    helper = std::make_unique<HMVPNDaemonAdapter>(*daemon);
    routingAdapter = std::make_unique<HMVPNRoutingAdapter>(*routing);
    HMVPNManager::Collaborators c;
    c.account = accountAdapter.get();
    c.reachability = reachabilityAdapter.get();
    c.helper = helper.get();
    c.routing = routingAdapter.get();
    c.closest = closest.get();
    c.notifications = &center;
    c.managementSocket =
        HMOpenVPNArgumentForms::managementSocketPath(fact("LAB_HELPER_MANAGEMENT"), ::getuid());
    vpn = std::make_unique<HMVPNManager>(c);
    HMVPNManager *manager = vpn.get();
    daemon->setTunnelInfo([manager] { return manager->connectedIp(); },
                          [manager] { return manager->tapAdapter(); });

    if (!spinUntil([this] { return reachability->isReachable(); }, 5000)) {
        HMBench::fail(program, QStringLiteral("the lab's network is not reachable"));
    }
    bool signedIn = false;
    HMMaybeError signInError;
    account->loginWithUsername(fact("LAB_USER"), fact("LAB_PASSWORD"), false,
                               [&](const HMMaybeError &e) {
                                   signInError = e;
                                   signedIn = true;
                               });
    if (!spinUntil([&] { return signedIn; }, 20000) || signInError) {
        HMBench::fail(program, QStringLiteral("sign-in failed"));
    }
    routing->setSupported(false);
}

bool HMBenchLabClient::switchOn(int timeoutMs)
{
    vpn->connect();
    return spinUntil([this] { return vpn->state() == VPNState::Connected; }, timeoutMs);
}

bool HMBenchLabClient::switchOff(int timeoutMs)
{
    bool stopped = false;
    vpn->disconnectWithCompletion([&](const HMMaybeError &) { stopped = true; });
    return spinUntil([&] { return stopped; }, timeoutMs);
}
