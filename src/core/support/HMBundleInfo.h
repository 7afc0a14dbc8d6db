// Build-time metadata and machine queries.
//
// Linux has no Info.plist: the same keys ("CFBundleShortVersionString", "CFBundleVersion",
// "CFBundleIdentifier", "CFBundleName", "CFBundleExecutable") are baked in by the build,
// so callers keep asking for them by the names the rest of the client already uses.
#pragma once

#include <QString>
#include <QVariant>

// The metadata value for a key, or an invalid QVariant when the build defines none.
QVariant info_plist_var(const QString &key);

// Marketing version, e.g. "1.0.0"; sent to the service and stored as "lastVersionRun".
QString app_version();

// The kernel's machine hardware name (uname -m), e.g. "x86_64".
QString platform_id();

// A fresh random UUID, upper-case canonical 8-4-4-4-12 form.
QString generate_UUID();

// The bundle identifier; also the preference domain and the keychain service name.
QString app_bundle_identifier();
