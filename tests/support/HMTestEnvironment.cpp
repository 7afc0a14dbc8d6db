#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <unistd.h>

namespace HMTestEnvironment {

std::unique_ptr<QTemporaryDir> isolateUserDirectories()
{
    auto home = std::make_unique<QTemporaryDir>();
    const QString root = home->path();
    qputenv("HOME", root.toUtf8());
    qputenv("XDG_CONFIG_HOME", (root + QStringLiteral("/config")).toUtf8());
    qputenv("XDG_DATA_HOME", (root + QStringLiteral("/data")).toUtf8());
    qputenv("XDG_STATE_HOME", (root + QStringLiteral("/state")).toUtf8());
    qputenv("XDG_CACHE_HOME", (root + QStringLiteral("/cache")).toUtf8());
    for (const char *sub : {"/config", "/data", "/state", "/cache"}) {
        QDir().mkpath(root + QLatin1String(sub));
    }
    return home;
}

bool isRoot()
{
    return geteuid() == 0;
}

bool canUseNetworkNamespaces()
{
    if (!isRoot() || findProgram(QStringLiteral("ip")).isEmpty()) {
        return false;
    }
    const QString name = QStringLiteral("hmprobe%1").arg(getpid());
    const int added = QProcess::execute(QStringLiteral("ip"),
                                        {QStringLiteral("netns"), QStringLiteral("add"), name});
    if (added != 0) {
        return false;
    }
    QProcess::execute(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("del"), name});
    return true;
}

QString findProgram(const QString &name)
{
    QString found = QStandardPaths::findExecutable(name);
    if (found.isEmpty()) {
        found = QStandardPaths::findExecutable(
            name, {QStringLiteral("/usr/sbin"), QStringLiteral("/sbin")});
    }
    return found;
}

QString sourceDir()
{
    return qEnvironmentVariable("HM_SOURCE_DIR", QStringLiteral(HM_DEFAULT_SOURCE_DIR));
}

QString buildDir()
{
    return qEnvironmentVariable("HM_BUILD_DIR", QStringLiteral(HM_DEFAULT_BUILD_DIR));
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QList<QJsonObject> readJsonLines(const QString &path)
{
    QList<QJsonObject> all;
    for (const QByteArray &line : readFile(path).split('\n')) {
        if (!line.trimmed().isEmpty()) {
            all.append(QJsonDocument::fromJson(line).object());
        }
    }
    return all;
}

} // namespace HMTestEnvironment
