// HMKeychain over the desktop's Secret Service (GNOME Keyring, KWallet), spoken directly on
// the session bus: items in the default collection, found by their attributes, secrets
// carried in an encrypted session (HMSecretServiceSession).
//
// Calls block the calling thread for a few D-Bus round trips (prefetchPassword() moves a
// read's round trips onto a thread of its own, so start-up does not wait for them); a locked
// collection makes the Secret Service show its unlock prompt first (HMSecretServicePrompt).
// Errors use the domain "secret-service" and carry the service's message; a password that
// exists in a collection that stays locked is an error (kLockedCode), not a missing password.
#pragma once

#include "HMKeychain.h"
#include "HMSecretServiceWatcher.h"

#include <QFuture>
#include <future>
#include <memory>

class QObject;

class HMSecretServiceKeychain : public HMKeychain
{
public:
    static const QString kErrorDomain; // "secret-service"
    // The item exists but its collection is locked and was not unlocked.
    static constexpr long kLockedCode = -1;

    // The process-wide keychain the application uses.
    static HMSecretServiceKeychain &shared();

    QString passwordForService(const QString &service, const QString &account,
                               HMMaybeError *error = nullptr) override;
    bool setPassword(const QString &password, const QString &service, const QString &account,
                     HMMaybeError *error = nullptr) override;
    bool deletePassword(const QString &service, const QString &account,
                        HMMaybeError *error = nullptr) override;
    // Watches the Secret Service on the session bus from the first call on.
    void setChangeObserver(std::function<void()> changed) override;

    // Starts reading this item on a thread of its own and returns at once. The next
    // passwordForService() for the same item takes that answer (waiting for it if it is not
    // in yet), with the same error it would have had; a store or delete, or a read of
    // another item, drops it. One read ahead at a time; a second call replaces the first.
    void prefetchPassword(const QString &service, const QString &account);
    // Calls done once the read ahead is in, on context's thread, and at once when none is
    // under way: start-up waits there on the event loop rather than blocked in
    // passwordForService() while the keyring's unlock prompt is up. Not called if context
    // is gone by then.
    void whenPrefetched(QObject *context, std::function<void()> done);

private:
    struct Lookup
    {
        QString password;
        HMMaybeError error;
    };
    struct Prefetch
    {
        QString service;
        QString account;
        QFuture<Lookup> answer;
        std::future<void> worker; // dropping the read ahead waits for it to end
    };
    static Lookup lookup(const QString &service, const QString &account);

    std::optional<Prefetch> m_prefetch;
    std::function<void()> m_changed;
    std::unique_ptr<HMSecretServiceWatcher> m_watcher;
};
