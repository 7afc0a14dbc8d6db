#include "HMWisprouteManager.h"

#include "HMDispatch.h"
#include "HMDomainListFile.h"
#include "HMLog.h"
#include "HMPreferenceStore.h"
#include "HMPreferences.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

const QString HMWisprouteManager::kModeKey = QStringLiteral("wisprouteMode");
const QString HMWisprouteManager::kInclusionFileName = QStringLiteral("domains.txt");
const QString HMWisprouteManager::kExclusionFileName = QStringLiteral("domains_ex.txt");
const QString HMWisprouteManager::kFolderName = QStringLiteral("Hollowmere");

namespace {

// Looked up without creating anything; empty when the platform cannot say.
QString applicationSupportDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

QString fileNameFor(bool exclusion)
{
    return exclusion ? HMWisprouteManager::kExclusionFileName
                     : HMWisprouteManager::kInclusionFileName;
}

QString cachedPath(QString (&cache)[2], bool exclusion, const std::function<QString()> &compute)
{
    QString &slot = cache[exclusion ? 1 : 0];
    if (slot.isNull()) {
        slot = compute();
        if (slot.isNull()) {
            slot = QLatin1String(""); // cache the failed look-up too
        }
    }
    return slot;
}

} // namespace

HMWisprouteManager &HMWisprouteManager::instance()
{
    static HMWisprouteManager *manager = new HMWisprouteManager(HMPreferenceStore::instance());
    return *manager;
}

HMWisprouteManager::HMWisprouteManager(HMPreferenceStore &store, QObject *parent)
    : QObject(parent), m_store(store)
{}

int HMWisprouteManager::wisprouteMode() const
{
    return static_cast<int>(pref_int_value(m_store.value(kModeKey)));
}

void HMWisprouteManager::setWisprouteMode(int mode)
{
    Q_EMIT willChangeValueForKey(kModeKey);
    m_store.setValue(kModeKey, mode);
    Q_EMIT didChangeValueForKey(kModeKey);
    Q_EMIT wisprouteModeChanged(mode);
}

bool HMWisprouteManager::isEnabled() const
{
    return wisprouteMode() != ModeOff;
}

QString HMWisprouteManager::getDomainsFilePathWithExlusion(bool exclusion)
{
    static QString cache[2];
    return cachedPath(cache, exclusion, [exclusion]() -> QString {
        const QString base = applicationSupportDirectory();
        if (base.isEmpty()) {
            return QString();
        }
        return base + QLatin1Char('/') + kFolderName + QLatin1Char('/') + fileNameFor(exclusion);
    });
}

QString HMWisprouteManager::getDomainsFilePathForShellWithExlusion(bool exclusion)
{
    static QString cache[2];
    return cachedPath(cache, exclusion, [exclusion]() -> QString {
        const QString base = applicationSupportDirectory();
        if (base.isEmpty()) {
            return QString();
        }
        return HMDomainListFile::shellPath(base, {kFolderName, fileNameFor(exclusion)});
    });
}

bool HMWisprouteManager::readDomainsFromFileWithExclusion(bool exclusion)
{
    const QString path = getDomainsFilePathWithExlusion(exclusion);
    QStringList loaded;
    QString why;
    switch (HMDomainListFile::read(path, &loaded, &why)) {
    case HMDomainListFile::ReadResult::Loaded:
        listFor(exclusion) = loaded;
        return true;
    case HMDomainListFile::ReadResult::Unreadable: {
        listFor(exclusion).clear();
        if (QFileInfo(path).isFile()) {
            // Keep the bytes: the next save would otherwise replace them for good.
            const QString aside =
                path + QStringLiteral(".damaged-") +
                QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
            if (QFile::rename(path, aside)) {
                HMLogError(QStringLiteral("Domain list %1 is unusable (%2); moved it to %3 and "
                                          "started an empty list")
                               .arg(path, why, aside));
                QFile empty(path);
                if (!empty.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
                    HMLogError(
                        QStringLiteral("Could not create %1: %2").arg(path, empty.errorString()));
                }
                return true;
            }
        }
        HMLogError(
            QStringLiteral("Domain list %1 is unusable (%2); using an empty list").arg(path, why));
        return true;
    }
    case HMDomainListFile::ReadResult::Missing:
        break;
    }

    const QString base = applicationSupportDirectory();
    if (base.isEmpty() || path.isEmpty()) {
        HMLogError(QStringLiteral("No data folder for the domain lists"));
        return false;
    }
    QDir().mkpath(base);
    QDir(base).mkdir(kFolderName); // "already exists" is fine
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        HMLogError(QStringLiteral("Could not create %1: %2").arg(path, file.errorString()));
        return false;
    }
    listFor(exclusion) = QStringList();
    return true;
}

bool HMWisprouteManager::saveDomainsInFileWithExclusion(bool exclusion)
{
    const QStringList &list = listFor(exclusion);
    if (list.isEmpty()) {
        return true;
    }
    const QString path = getDomainsFilePathWithExlusion(exclusion);
    QString why;
    if (!path.isEmpty()) {
        // Saving before the first load must not lose the user's edit.
        QDir().mkpath(QFileInfo(path).absolutePath());
    }
    if (path.isEmpty() || !HMDomainListFile::write(path, list, &why)) {
        HMLogError(QStringLiteral("Could not write domain list %1: %2").arg(path, why));
        return false;
    }
    return true;
}

void HMWisprouteManager::deletePrefFiles()
{
    for (bool exclusion : {false, true}) {
        const QString path = getDomainsFilePathWithExlusion(exclusion);
        // Only regular files: a directory someone put there is not ours to remove.
        if (!path.isEmpty() && QFileInfo(path).isFile() && !QFile::remove(path)) {
            HMLogError(QStringLiteral("Could not delete %1").arg(path));
        }
    }
}

void HMWisprouteManager::resetWisprouteConfig()
{
    setWisprouteMode(ModeOff);
    m_arrayDomains.clear();
    m_arrayDomainsExclusion.clear();
    deletePrefFiles();
}

void HMWisprouteManager::restartDnsDaemonWithCompletion(Completion completion)
{
    if (m_restarter) {
        m_restarter(wisprouteMode(), std::move(completion));
        return;
    }
    const HMError error = HMError::errorWithDescription(
        QStringLiteral("Cannot restart the DNS proxy: the helper is not available"));
    HMLogError(error.description());
    if (completion) {
        dispatch_to_main([completion = std::move(completion), error] { completion(error); });
    }
}

QVariant HMWisprouteManager::getPref(const QString &key) const
{
    return m_store.value(key);
}

void HMWisprouteManager::setValueForPref(const QVariant &value, const QString &key)
{
    m_store.setValue(key, value);
}
