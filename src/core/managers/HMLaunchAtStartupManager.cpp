#include "HMLaunchAtStartupManager.h"

#include "HMAppPaths.h"
#include "HMDirectoryEntries.h"
#include "HMLog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTextStream>

const QString HMLaunchAtStartupManager::kEntryName =
    QStringLiteral("com.hollowmere.Hollowmere.desktop");

namespace {

// Exec= may quote the program and carry field codes; only the program matters here.
QString firstWordOfExec(QString exec)
{
    exec = exec.trimmed();
    if (exec.startsWith(QLatin1Char('"'))) {
        const qsizetype end = exec.indexOf(QLatin1Char('"'), 1);
        return end > 0 ? exec.mid(1, end - 1) : QString();
    }
    return exec.section(QLatin1Char(' '), 0, 0, QString::SectionSkipEmpty);
}

} // namespace

HMLaunchAtStartupManager &HMLaunchAtStartupManager::instance()
{
    static HMLaunchAtStartupManager shared(
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
            QStringLiteral("/autostart"),
        app_executable_directory(), QCoreApplication::applicationFilePath());
    return shared;
}

HMLaunchAtStartupManager::HMLaunchAtStartupManager(const QString &autostartDirectory,
                                                   const QString &applicationDirectory,
                                                   const QString &program, QObject *parent)
    : QObject(parent), m_directory(autostartDirectory),
      m_applicationDirectory(QFileInfo(applicationDirectory).canonicalFilePath()),
      m_program(program)
{
    startWatchingLoginItems();
}

QString HMLaunchAtStartupManager::entryPath() const
{
    return QDir(m_directory).filePath(kEntryName);
}

void HMLaunchAtStartupManager::startWatchingLoginItems()
{
    m_watcher = new QFileSystemWatcher(this);
    // The folder may not exist yet: watch its parent until it does.
    const QString parent = QFileInfo(m_directory).absolutePath();
    QDir().mkpath(parent);
    m_watcher->addPath(parent);
    if (QFileInfo::exists(m_directory)) {
        m_watcher->addPath(m_directory);
    }
    connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, [this] {
        if (QFileInfo::exists(m_directory) && !m_watcher->directories().contains(m_directory)) {
            m_watcher->addPath(m_directory);
        }
        loginItemsChanged();
    });
    connect(m_watcher, &QFileSystemWatcher::fileChanged, this,
            &HMLaunchAtStartupManager::loginItemsChanged);
    const bool found = !findLoginItem().isEmpty();
    if (found != m_launchOnStartup) {
        m_launchOnStartup = found;
        Q_EMIT launchOnStartupChanged(found);
    }
}

void HMLaunchAtStartupManager::loginItemsChanged()
{
    // Entries are rewritten in place by some tools: keep watching the ones present.
    const QStringList entries =
        directory_files_with_affixes(m_directory, QString(), QStringLiteral(".desktop"));
    for (const QString &name : entries) {
        const QString path = QDir(m_directory).filePath(name);
        if (!m_watcher->files().contains(path)) {
            m_watcher->addPath(path);
        }
    }
    setLaunchOnStartup(!findLoginItem().isEmpty());
}

QString HMLaunchAtStartupManager::programOfEntry(const QString &path) const
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        if (!m_reportedUnreadable.contains(path)) {
            m_reportedUnreadable.insert(path);
            HMLogError(QStringLiteral("Cannot read the autostart entry %1: %2")
                           .arg(path, file.errorString()));
        }
        return QString();
    }
    QTextStream lines(&file);
    bool inEntry = false;
    QString exec;
    while (!lines.atEnd()) {
        const QString line = lines.readLine().trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            inEntry = line == QLatin1String("[Desktop Entry]");
        } else if (inEntry && line.startsWith(QLatin1String("Hidden=")) &&
                   line.mid(7).trimmed() == QLatin1String("true")) {
            return QString(); // an entry switched off by the desktop's settings
        } else if (inEntry && line.startsWith(QLatin1String("Exec="))) {
            exec = firstWordOfExec(line.mid(5));
        }
    }
    return exec;
}

QString HMLaunchAtStartupManager::findLoginItem() const
{
    if (m_applicationDirectory.isEmpty()) {
        return QString();
    }
    const QDir directory(m_directory);
    const QStringList entries =
        directory_files_with_affixes(m_directory, QString(), QStringLiteral(".desktop"));
    for (const QString &name : entries) {
        const QString program = programOfEntry(directory.filePath(name));
        if (program.isEmpty()) {
            continue;
        }
        QString resolved = QFileInfo(program).canonicalFilePath();
        if (resolved.isEmpty() && !program.contains(QLatin1Char('/'))) {
            resolved = QFileInfo(QStandardPaths::findExecutable(program)).canonicalFilePath();
        }
        if (!resolved.isEmpty() && resolved.startsWith(m_applicationDirectory)) {
            return directory.filePath(name);
        }
    }
    return QString();
}

void HMLaunchAtStartupManager::setLaunchOnStartup(bool value)
{
    if (value == m_launchOnStartup) {
        return;
    }
    if (!QDir().mkpath(m_directory)) {
        HMLogError(QStringLiteral("Cannot create the autostart folder %1").arg(m_directory));
        return;
    }
    const QString existing = findLoginItem();
    if (value && existing.isEmpty()) {
        QSaveFile entry(entryPath());
        const QByteArray content =
            "[Desktop Entry]\nType=Application\nName=Hollowmere\nComment=Hollowmere VPN "
            "in the tray\nExec=" +
            QFile::encodeName(m_program) +
            "\nIcon=hollowmere\nTerminal=false\nX-GNOME-Autostart-enabled=true\n";
        if (!entry.open(QIODevice::WriteOnly) || entry.write(content) != content.size() ||
            !entry.commit()) {
            HMLogError(QStringLiteral("Cannot write the autostart entry %1: %2")
                           .arg(entryPath(), entry.errorString()));
            return;
        }
    } else if (!value && !existing.isEmpty() && !QFile::remove(existing)) {
        HMLogError(QStringLiteral("Cannot remove the autostart entry %1").arg(existing));
        return;
    }
    m_launchOnStartup = value;
    Q_EMIT launchOnStartupChanged(value);
}
