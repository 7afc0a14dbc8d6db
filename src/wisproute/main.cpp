// wisproute: the DNS proxy that makes selective routing real. Run as root by the helper,
// which hands it a checked copy of the user's domain list; see HMProxyOptions for the
// command line and HMDNSQueryHandler for what it does with each query.
#include "HMDNSProxy.h"
#include "HMDNSQueryHandler.h"
#include "HMDomainMatcher.h"
#include "HMHostRoutes.h"
#include "HMNetlinkRoutes.h"
#include "HMProxyClock.h"
#include "HMProxyLog.h"
#include "HMProxyOptions.h"
#include "HMProxyRouting.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

constexpr std::streamsize kMaxFileSize = 8 * 1024 * 1024;

bool readFile(const std::string &path, std::string *text, std::string *error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    text->assign(std::istreambuf_iterator<char>(in), {});
    if (static_cast<std::streamsize>(text->size()) > kMaxFileSize) {
        *error = path + " is larger than " + std::to_string(kMaxFileSize) + " bytes";
        return false;
    }
    return true;
}

// Keeps CAP_NET_ADMIN (host routes) and CAP_NET_BIND_SERVICE, and only where they are held
// now, so that a proxy run without them (a benchmark on a high port) still starts.
bool dropCapabilities(std::string *error)
{
    const cap_value_t keep[] = {CAP_NET_ADMIN, CAP_NET_BIND_SERVICE};
    cap_t current = cap_get_proc();
    cap_t reduced = cap_init();
    if (!current || !reduced) {
        *error = "cannot read the capabilities";
        return false;
    }
    for (cap_value_t capability : keep) {
        cap_flag_value_t held = CAP_CLEAR;
        cap_get_flag(current, capability, CAP_PERMITTED, &held);
        if (held == CAP_SET) {
            cap_set_flag(reduced, CAP_PERMITTED, 1, &capability, CAP_SET);
            cap_set_flag(reduced, CAP_EFFECTIVE, 1, &capability, CAP_SET);
        }
    }
    // The bounding set needs CAP_SETPCAP, which goes with the next step; without it (the
    // helper's unit already bounds its children) the drop is refused and needs no doing.
    for (cap_value_t capability = 0; capability < 64; ++capability) {
        if (capability != CAP_NET_ADMIN && capability != CAP_NET_BIND_SERVICE) {
            ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
        }
    }
    ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    const bool ok = cap_set_proc(reduced) == 0;
    cap_free(current);
    cap_free(reduced);
    if (!ok) {
        *error = "cannot drop capabilities";
        return false;
    }
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    return true;
}

int fail(HMProxyLog &log, HMNetlinkRoutes *routes, const std::string &why)
{
    log.write("cannot start: " + why);
    if (routes) {
        std::string ignored;
        routes->removeOwnRoutes(&ignored);
    }
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    std::string error;
    const std::optional<HMProxyOptions> options = HMProxyOptions::parse(arguments, &error);
    if (!options) {
        std::fprintf(stderr,
                     "wisproute: %s\nusage: wisproute -f FILE|nothing -s RESDIR -log LOG "
                     "-server IP -tap DEVICE [-wisproute wisproute|wisprouteEx] [-debug N] "
                     "[-originals FILE] [-tunnel-dns IP,IP] [-listen IP:PORT]\n",
                     error.c_str());
        return 2;
    }
    HMProxyLog log;
    if (!log.open(options->logPath, options->debug, &error)) {
        std::fprintf(stderr, "wisproute: %s\n", error.c_str());
        return 1;
    }
    static const char *const modeNames[] = {"off", "inclusion", "exclusion"};
    log.write(std::string("starting in the ") + modeNames[int(options->mode)] + " mode on " +
              options->tunnel + ", server " + HMProxyOptions::formatAddress(options->server));

    // SIGTERM and SIGINT end the loop; blocked now so that none arrives half-way through
    // the set-up and leaves routes behind.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&stopSignals, signal);
    }
    ::sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const int stopFd = ::signalfd(-1, &stopSignals, SFD_CLOEXEC);

    HMDomainMatcher matcher;
    if (!options->domainFile.empty()) {
        std::string text;
        if (!readFile(options->domainFile, &text, &error)) {
            return fail(log, nullptr, error);
        }
        matcher = HMDomainMatcher::fromText(text);
        log.write(std::to_string(matcher.size()) + " domain(s) listed");
    }
    std::vector<uint32_t> originals;
    if (!options->originalsFile.empty()) {
        std::string text;
        if (readFile(options->originalsFile, &text, &error)) {
            originals = HMProxyOptions::resolversFromText(text);
        }
    }
    if (originals.empty() && options->mode != HMDNSQueryHandler::Mode::Off) {
        log.write("no original resolver is known; names meant for them will fail");
    }

    HMNetlinkRoutes routes;
    if (!routes.open(&error)) {
        return fail(log, nullptr, error);
    }
    // Whatever an earlier proxy left (a crash, a kill, another mode) goes first.
    const int stale = routes.removeOwnRoutes(&error);
    if (stale > 0) {
        log.write("removed " + std::to_string(stale) + " route(s) left by an earlier run");
    }
    if (!HMProxyRouting::setUp(*options, originals, routes, &error)) {
        return fail(log, &routes, error);
    }
    HMProxySystemClock clock;
    HMHostRoutes hostRoutes(routes, clock);
    HMDNSQueryHandler handler(options->mode, matcher,
                              options->mode == HMDNSQueryHandler::Mode::Off ? nullptr
                                                                            : &hostRoutes);
    HMDNSProxy proxy(handler, log, clock, &hostRoutes);
    proxy.setResolvers(HMDNSQueryHandler::Path::Tunnel, options->tunnelResolvers);
    proxy.setResolvers(HMDNSQueryHandler::Path::Original, originals);
    if (!proxy.listen(options->listenAddress, options->listenPort, &error)) {
        return fail(log, &routes, error);
    }
    if (!dropCapabilities(&error)) {
        return fail(log, &routes, error);
    }
    log.write("listening on " + HMProxyOptions::formatAddress(options->listenAddress) + ":" +
              std::to_string(options->listenPort));

    proxy.run(stopFd);

    hostRoutes.removeAll();
    const int removed = routes.removeOwnRoutes(&error);
    log.write("stopped; removed " + std::to_string(removed < 0 ? 0 : removed) + " route(s)");
    return 0;
}
