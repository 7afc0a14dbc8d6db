// The per-user key-value store behind every preference and the account's stored state.
//
// One JSON file per domain ("com.hollowmere.mac.Hollowmere.json" under the XDG config
// directory), read and written through QSettings with a registered JSON format, so that
// strings, numbers, booleans, lists and dictionaries keep their types across restarts.
// Changes are written out together: a burst of changes (a sign-in stores a dozen keys, the
// allowance ticks every two seconds) costs one atomic replacement of the file within
// kWriteDelayMs, instead of one fsync'd rewrite per key. sync() writes at once; the store
// also writes when it is destroyed. Changes made on a thread other than the store's own are
// written before setValue returns, since that thread may have no event loop. A file
// that cannot be parsed is copied aside as "<file>.damaged-<time>" and the store starts
// empty: nothing a user or a crash left behind is ever silently overwritten.
//
// Safe to use from any thread. The free functions of HMPreferences.h reach the shared
// instance; managers take a store so tests can hand them one of their own.
#pragma once

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QSettings>
#include <QString>
#include <QVariant>
#include <atomic>
#include <memory>

class HMPreferenceStore
{
public:
    // The store for the application's domain under the XDG config directory.
    static HMPreferenceStore &instance();
    static QString defaultFilePath();

    explicit HMPreferenceStore(const QString &filePath);
    ~HMPreferenceStore();
    HMPreferenceStore(const HMPreferenceStore &) = delete;
    HMPreferenceStore &operator=(const HMPreferenceStore &) = delete;

    // An invalid QVariant means the key is absent.
    QVariant value(const QString &key) const;
    // An invalid value removes the key.
    void setValue(const QString &key, const QVariant &value);
    void remove(const QString &key);
    bool contains(const QString &key) const;
    QStringList allKeys() const;
    QVariantMap allValues() const;
    void sync();

    // The whole domain as indented JSON with sorted keys, for diagnostics.
    QString dumpText() const;

    QString filePath() const { return m_filePath; }
    // Files the store moved aside because they were damaged (this process only).
    QStringList damagedCopies() const;

    static QSettings::Format jsonFormat();

    static constexpr int kWriteDelayMs = 1000;
    // True while changes wait for the delayed write.
    bool hasPendingWrite() const { return m_writePending.load(); }

private:
    void scheduleWriteLocked();

    QString m_filePath;
    mutable QMutex m_mutex;
    std::unique_ptr<QSettings> m_settings;
    // Lives in the store's thread; the delayed write runs there and dies with the store.
    std::unique_ptr<QObject> m_writeContext;
    std::atomic<bool> m_writePending{false};
};
