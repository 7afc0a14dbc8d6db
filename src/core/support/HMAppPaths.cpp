#include "HMAppPaths.h"

#include <QCoreApplication>

QString app_executable_directory()
{
    if (QCoreApplication::instance()) {
        return QCoreApplication::applicationDirPath();
    }
    return QStringLiteral(HM_INSTALLED_PROGRAM_DIR);
}

QString app_resource_directory()
{
    return QStringLiteral(HM_INSTALLED_RESOURCE_DIR);
}
