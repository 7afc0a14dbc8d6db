// hollowmerectl: the command-line client of the running application's control interface.
#include "HMBundleInfo.h"
#include "HMCtlCommands.h"

#include <QCoreApplication>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("hollowmerectl"));
    QCoreApplication::setApplicationVersion(app_version());
    QTextStream out(stdout);
    QTextStream err(stderr);
    HMCtlCommands commands(out, err);
    return commands.run(QCoreApplication::arguments().mid(1));
}
