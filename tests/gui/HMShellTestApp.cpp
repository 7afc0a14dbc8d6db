// hm-shell-testapp: the tray application as `hollowmere` runs it, except that it talks to
// the helper (or its stand-in) on the socket named by its one argument and takes the
// helper as installed. Tests and the benchmark start it where no helper is installed.
#include "HMAppDelegate.h"
#include "HMBundleInfo.h"
#include "HMDaemonManager.h"
#include "HMInstanceGuard.h"
#include "HMPreferenceStore.h"

#include <QApplication>

int main(int argc, char **argv)
{
    HMAppDelegate::prepareProcess();
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Hollowmere"));
    QApplication::setApplicationVersion(app_version());
    QApplication::setQuitOnLastWindowClosed(false);

    HMInstanceGuard instance;
    if (!instance.claim()) {
        return 0;
    }
    HMDaemonManager::Paths paths = HMDaemonManager::Paths::production();
    paths.socketPath = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    HMDaemonManager daemon(HMPreferenceStore::instance(), nullptr, nullptr, paths);

    HMAppDelegate delegate([&daemon] {
        HMAppDelegate::Collaborators c = HMAppDelegate::production();
        c.daemon = &daemon;
        c.initializeDaemons = [&daemon]() -> HMMaybeError {
            daemon.createCommandQueue();
            HMDaemonManager::instance().createCommandQueue();
            return std::nullopt;
        };
        return c;
    });
    QObject::connect(&instance, &HMInstanceGuard::raiseRequested, &delegate, &HMAppDelegate::raise);
    if (!delegate.applicationDidFinishLaunching()) {
        return 1;
    }
    return QApplication::exec();
}
