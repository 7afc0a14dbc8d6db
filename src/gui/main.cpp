// hollowmere: the tray application.
#include "HMAppDelegate.h"
#include "HMBundleInfo.h"
#include "HMInstanceGuard.h"
#include "HMSecretServicePrompt.h"

#include <QApplication>

int main(int argc, char **argv)
{
    HMAppDelegate::prepareProcess();
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Hollowmere"));
    QApplication::setOrganizationDomain(QStringLiteral("hollowmere.com"));
    QApplication::setApplicationVersion(app_version());
    QApplication::setDesktopFileName(QStringLiteral("com.hollowmere.Hollowmere"));
    // A tray application: closing a window must not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    // A second launch brings the running instance forward and ends.
    HMInstanceGuard instance;
    if (!instance.claim()) {
        return 0;
    }

    HMAppDelegate delegate(&HMAppDelegate::production);
    QObject::connect(&instance, &HMInstanceGuard::raiseRequested, &delegate, &HMAppDelegate::raise);
    if (!delegate.applicationDidFinishLaunching()) {
        return 1;
    }
    const int status = QApplication::exec();
    // Quit while the keyring's unlock prompt is up: the read waiting on it must not hold the
    // exit.
    HMSecretServicePrompt::dismissAll();
    return status;
}
