// Preference accessors over the shared store of the application's domain.
//
// An absent key reads as an invalid QVariant, false as a boolean and 0 as a number;
// writing an invalid QVariant removes the key.
#pragma once

#include <QString>
#include <QVariant>

class HMPreferenceStore;

QVariant get_pref(const QString &key);
bool get_pref_bool(const QString &key);
void set_pref(const QString &key, const QVariant &value);
// Stores only when the key is absent; a stored false or 0 is left alone.
void set_pref_default(const QString &key, const QVariant &value);
void sync_prefs();

// The boolean and integer readings every accessor in the client uses.
bool pref_bool_value(const QVariant &value);
qint64 pref_int_value(const QVariant &value);

// Runs at every start, after logging and before the helper: moves the legacy "enabled"
// choice to "notificationsEnabled" on the first start of this generation, then records
// the running version in "lastVersionRun".
void migratePreferencesFromOlderVersions(HMPreferenceStore &store);
