// Launch at login, kept where the desktop keeps it: XDG autostart entries.
//
// `launchOnStartup` mirrors whether the user's autostart folder
// ($XDG_CONFIG_HOME/autostart) holds an entry, not hidden, whose program resolves to a path
// that BEGINS with this application's directory. The prefix match is deliberate: an entry
// for any program inside the application's directory counts as the application's own.
// Entries whose program does not resolve (uninstalled, on an unmounted disk) are skipped,
// never waited for. The folder is watched, and changes made elsewhere are funnelled through
// setLaunchOnStartup: an entry added by the user's settings tool turns the property on
// (and writes nothing more, since one entry already starts the application), an entry
// removed elsewhere turns it off. Turning on writes "<app id>.desktop" atomically; turning
// off removes the entry found. A file that cannot be read is logged once and skipped.
#pragma once

#include <QObject>
#include <QSet>
#include <QString>

class QFileSystemWatcher;

class HMLaunchAtStartupManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool launchOnStartup READ launchOnStartup WRITE setLaunchOnStartup NOTIFY
                   launchOnStartupChanged)
public:
    static const QString kEntryName; // "com.hollowmere.Hollowmere.desktop"

    static HMLaunchAtStartupManager &instance();

    // `applicationDirectory` is what entries are matched against; `program` what a new
    // entry starts.
    HMLaunchAtStartupManager(const QString &autostartDirectory, const QString &applicationDirectory,
                             const QString &program, QObject *parent = nullptr);

    bool launchOnStartup() const { return m_launchOnStartup; }
    void setLaunchOnStartup(bool value);

    // The entry that starts this application, or "".
    QString findLoginItem() const;
    QString entryPath() const;

Q_SIGNALS:
    void launchOnStartupChanged(bool value);

private:
    void startWatchingLoginItems();
    void loginItemsChanged();
    QString programOfEntry(const QString &path) const;

    QString m_directory;
    QString m_applicationDirectory;
    QString m_program;
    bool m_launchOnStartup = false;
    QFileSystemWatcher *m_watcher = nullptr;
    mutable QSet<QString> m_reportedUnreadable;
};
