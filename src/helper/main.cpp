// hmwispd: the root helper of the Hollowmere client. Started by the service manager when
// the application first connects to its socket; serves until asked to exit.
//
//   hmwispd [--config FILE]
//
// FILE (default: the build's configuration path, when it exists) must be owned by root and
// writable by nobody else; see HMHelperConfig for its keys.
#include "HMHelperConfig.h"
#include "HMHelperLog.h"
#include "HMHelperServer.h"
#include "HMHelperService.h"
#include "HMPathTrust.h"
#include "HMWireServer.h"

#include <QDir>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: hmwispd [--config FILE]\n");
    return 2;
}

// Creates a private root directory, or checks that an existing one is safe to use.
QString prepareDirectory(const QString &path)
{
    if (!QDir().mkpath(path)) {
        return QStringLiteral("cannot create %1").arg(path);
    }
    return HMPathTrust::check(path, HMPathTrust::Kind::Directory);
}

} // namespace

// The application reads the build version from the installed program's bytes (it never
// runs it) to tell whether the helper it ships is the one installed.
__attribute__((used)) static const char kVersionRecord[] =
    "\nCFBundleVersion=" HM_HELPER_BUNDLE_VERSION "\n";

int main(int argc, char **argv)
{
    // Descriptors 0-2 must be taken, or a later socket or pipe could land on them and
    // receive stray output.
    for (int fd = 0; fd < 3; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) < 0) {
            return 1;
        }
    }
    ::umask(077);
    if (::chdir("/") != 0) {
        return 1;
    }
    ::signal(SIGPIPE, SIG_IGN);
    // Orphaned grandchildren (up/down scripts of an OpenVPN that died) come back to the
    // helper to be reaped, instead of lingering as zombies.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);

    QString configPath;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--config") == 0 && i + 1 < argc && configPath.isEmpty()) {
            configPath = QString::fromLocal8Bit(argv[++i]);
        } else {
            return usage();
        }
    }

    if (::geteuid() != 0) {
        std::fprintf(stderr, "hmwispd: must run as root\n");
        return 1;
    }
    QString why;
    const std::optional<HMHelperConfig> config = configPath.isEmpty()
                                                     ? HMHelperConfig::loadDefault(&why)
                                                     : HMHelperConfig::load(configPath, &why);
    if (!config) {
        std::fprintf(stderr, "hmwispd: %s\n", why.toLocal8Bit().constData());
        return 1;
    }
    for (const QString &dir : {config->logDir, config->runDir}) {
        why = prepareDirectory(dir);
        if (!why.isEmpty()) {
            std::fprintf(stderr, "hmwispd: %s\n", why.toLocal8Bit().constData());
            return 1;
        }
    }

    HMHelperLog log(config->daemonLogPath());
    const int listener = get_listener_fd();
    if (listener < 0) {
        log.write(QStringLiteral("no listening socket was passed by the service manager; exiting"));
        return 1;
    }
    log.write(QStringLiteral("serving (OpenVPN %1, resources %2, group %3)")
                  .arg(config->openVPNPath, config->resourceDir, config->allowedGroup));
    HMHelperService service(*config, log);
    HMHelperServer server(*config, log, service);
    return server.run(listener);
}
