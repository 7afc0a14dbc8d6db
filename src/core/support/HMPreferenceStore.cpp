#include "HMPreferenceStore.h"

#include "HMBundleInfo.h"
#include "HMLog.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>

namespace {

// JSON has no bytes or dates: they travel as one-key objects with a tag no preference
// key ever uses.
const QString kBytesTag = QStringLiteral("$bytes");
const QString kDateTag = QStringLiteral("$date");

QJsonValue toJson(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QByteArray:
        return QJsonObject{{kBytesTag, QString::fromLatin1(value.toByteArray().toBase64())}};
    case QMetaType::QDateTime:
        return QJsonObject{{kDateTag, value.toDateTime().toString(Qt::ISODateWithMs)}};
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        QJsonArray array;
        for (const QVariant &item : value.toList()) {
            array.append(toJson(item));
        }
        return array;
    }
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            object.insert(it.key(), toJson(it.value()));
        }
        return object;
    }
    default:
        return QJsonValue::fromVariant(value);
    }
}

QVariant fromJson(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Array: {
        QVariantList list;
        for (const QJsonValue &item : value.toArray()) {
            list.append(fromJson(item));
        }
        return list;
    }
    case QJsonValue::Object: {
        const QJsonObject object = value.toObject();
        if (object.size() == 1 && object.value(kBytesTag).isString()) {
            return QByteArray::fromBase64(object.value(kBytesTag).toString().toLatin1());
        }
        if (object.size() == 1 && object.value(kDateTag).isString()) {
            const QDateTime date =
                QDateTime::fromString(object.value(kDateTag).toString(), Qt::ISODateWithMs);
            if (date.isValid()) {
                return date;
            }
        }
        QVariantMap map;
        for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
            map.insert(it.key(), fromJson(it.value()));
        }
        return map;
    }
    case QJsonValue::Double: {
        const double number = value.toDouble();
        const qint64 integral = value.toInteger();
        if (static_cast<double>(integral) == number) {
            return integral;
        }
        return number;
    }
    default:
        return value.toVariant();
    }
}

QMutex g_damagedMutex;
QStringList g_damagedCopies;

void keepDamagedCopy(QIODevice &device, const QString &why)
{
    auto *file = qobject_cast<QFile *>(&device);
    const QString path = file ? file->fileName() : QString();
    if (path.isEmpty()) {
        HMLogError(QStringLiteral("Preference store unreadable (%1); starting empty").arg(why));
        return;
    }
    const QString stamp =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    const QString copy = path + QStringLiteral(".damaged-") + stamp;
    // A copy, not a rename: QSettings still holds the original open and rewrites it later.
    if (QFile::copy(path, copy)) {
        HMLogError(QStringLiteral("Preference store %1 is damaged (%2); kept as %3, starting empty")
                       .arg(path, why, copy));
        QMutexLocker locker(&g_damagedMutex);
        g_damagedCopies.append(copy);
    } else {
        HMLogError(
            QStringLiteral("Preference store %1 is damaged (%2) and could not be copied aside")
                .arg(path, why));
    }
}

bool readJsonSettings(QIODevice &device, QSettings::SettingsMap &map)
{
    const QByteArray bytes = device.readAll();
    if (bytes.trimmed().isEmpty()) {
        return true; // a new, empty file
    }
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError) {
        keepDamagedCopy(device, error.errorString());
        return true;
    }
    if (!document.isObject()) {
        keepDamagedCopy(device, QStringLiteral("top level is not an object"));
        return true;
    }
    const QJsonObject object = document.object();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        map.insert(it.key(), fromJson(it.value()));
    }
    return true;
}

bool writeJsonSettings(QIODevice &device, const QSettings::SettingsMap &map)
{
    QJsonObject object;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        object.insert(it.key(), toJson(it.value()));
    }
    const QByteArray bytes = QJsonDocument(object).toJson(QJsonDocument::Indented);
    return device.write(bytes) == bytes.size();
}

} // namespace

QSettings::Format HMPreferenceStore::jsonFormat()
{
    static const QSettings::Format format = QSettings::registerFormat(
        QStringLiteral("json"), readJsonSettings, writeJsonSettings, Qt::CaseSensitive);
    return format;
}

QString HMPreferenceStore::defaultFilePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QLatin1Char('/') + app_bundle_identifier() + QStringLiteral(".json");
}

HMPreferenceStore &HMPreferenceStore::instance()
{
    static HMPreferenceStore store(defaultFilePath());
    return store;
}

HMPreferenceStore::HMPreferenceStore(const QString &filePath) : m_filePath(filePath)
{
    QDir().mkpath(QFileInfo(filePath).absolutePath());
    m_settings = std::make_unique<QSettings>(filePath, jsonFormat());
    // Keep the whole domain in one flat object: no "General" group, no key escaping games.
    m_settings->setFallbacksEnabled(false);
    m_settings->setAtomicSyncRequired(true);
    // QSettings would otherwise flush itself from its own event handler, outside m_mutex and
    // racing writers on other threads. With no thread affinity its update requests are
    // dropped, and every write goes through sync() under the lock.
    m_settings->moveToThread(nullptr);
    m_writeContext = std::make_unique<QObject>();
}

HMPreferenceStore::~HMPreferenceStore()
{
    m_writeContext.reset();
    QMutexLocker locker(&m_mutex);
    m_settings->sync();
}

void HMPreferenceStore::scheduleWriteLocked()
{
    if (!QCoreApplication::instance() || QThread::currentThread() != m_writeContext->thread()) {
        m_settings->sync();
        return;
    }
    if (m_writePending.exchange(true)) {
        return;
    }
    QTimer::singleShot(kWriteDelayMs, m_writeContext.get(), [this] { sync(); });
}

QVariant HMPreferenceStore::value(const QString &key) const
{
    QMutexLocker locker(&m_mutex);
    return m_settings->value(key);
}

void HMPreferenceStore::setValue(const QString &key, const QVariant &value)
{
    QMutexLocker locker(&m_mutex);
    if (value.isValid()) {
        m_settings->setValue(key, value);
    } else {
        m_settings->remove(key);
    }
    scheduleWriteLocked();
}

void HMPreferenceStore::remove(const QString &key)
{
    setValue(key, QVariant());
}

bool HMPreferenceStore::contains(const QString &key) const
{
    QMutexLocker locker(&m_mutex);
    return m_settings->contains(key);
}

QStringList HMPreferenceStore::allKeys() const
{
    QMutexLocker locker(&m_mutex);
    return m_settings->allKeys();
}

QVariantMap HMPreferenceStore::allValues() const
{
    QMutexLocker locker(&m_mutex);
    QVariantMap values;
    const QStringList keys = m_settings->allKeys();
    for (const QString &key : keys) {
        values.insert(key, m_settings->value(key));
    }
    return values;
}

void HMPreferenceStore::sync()
{
    QMutexLocker locker(&m_mutex);
    m_writePending = false;
    m_settings->sync();
    if (m_settings->status() != QSettings::NoError) {
        HMLogError(QStringLiteral("Could not write preferences to %1").arg(m_filePath));
    }
}

QString HMPreferenceStore::dumpText() const
{
    const QVariantMap values = allValues();
    QJsonObject object;
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        object.insert(it.key(), toJson(it.value()));
    }
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Indented));
}

QStringList HMPreferenceStore::damagedCopies() const
{
    QMutexLocker locker(&g_damagedMutex);
    QStringList mine;
    for (const QString &copy : g_damagedCopies) {
        if (copy.startsWith(m_filePath + QStringLiteral(".damaged-"))) {
            mine.append(copy);
        }
    }
    return mine;
}
