#include "HMPreferences.h"

#include "HMBundleInfo.h"
#include "HMPreferenceStore.h"

QVariant get_pref(const QString &key)
{
    return HMPreferenceStore::instance().value(key);
}

bool get_pref_bool(const QString &key)
{
    return pref_bool_value(get_pref(key));
}

void set_pref(const QString &key, const QVariant &value)
{
    HMPreferenceStore::instance().setValue(key, value);
}

void set_pref_default(const QString &key, const QVariant &value)
{
    HMPreferenceStore &store = HMPreferenceStore::instance();
    if (!store.value(key).isValid()) {
        store.setValue(key, value);
    }
}

void sync_prefs()
{
    HMPreferenceStore::instance().sync();
}

bool pref_bool_value(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return value.toDouble() != 0.0;
    case QMetaType::QString: {
        // A hand-edited "true"/"YES"/"1" counts, as the defaults tool's strings did.
        const QString text = value.toString().trimmed();
        if (text.isEmpty()) {
            return false;
        }
        const QChar first = text.at(0).toLower();
        return first == QLatin1Char('y') || first == QLatin1Char('t') ||
               (first.isDigit() && text.toDouble() != 0.0);
    }
    default:
        return false;
    }
}

qint64 pref_int_value(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? 1 : 0;
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return value.toLongLong();
    case QMetaType::Double:
        return static_cast<qint64>(value.toDouble());
    case QMetaType::QString: {
        bool ok = false;
        const qint64 number = value.toString().trimmed().toLongLong(&ok);
        return ok ? number : 0;
    }
    default:
        return 0;
    }
}

void migratePreferencesFromOlderVersions(HMPreferenceStore &store)
{
    if (!store.value(QStringLiteral("lastVersionRun")).isValid()) {
        // An absent legacy value removes "notificationsEnabled"; the default below then turns
        // a stray false into true. That override is intended: only "enabled" carries a
        // choice from the older generation.
        store.setValue(QStringLiteral("notificationsEnabled"),
                       store.value(QStringLiteral("enabled")));
        store.remove(QStringLiteral("enabled"));
        if (!store.value(QStringLiteral("notificationsEnabled")).isValid()) {
            store.setValue(QStringLiteral("notificationsEnabled"), true);
        }
    }
    store.setValue(QStringLiteral("lastVersionRun"), app_version());
    store.sync();
}
