// hollowmere: the tray application.
#include "HMAppDelegate.h"
#include "HMBundleInfo.h"
#include "HMPreferenceStore.h"

#include <QApplication>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Hollowmere"));
    QApplication::setOrganizationDomain(QStringLiteral("hollowmere.com"));
    QApplication::setApplicationVersion(app_version());
    // A tray application: closing a window must not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    HMAppDelegate delegate(HMPreferenceStore::instance());
    delegate.applicationDidFinishLaunching();
    return QApplication::exec();
}
