// HMKeychain over the desktop's Secret Service (GNOME Keyring, KWallet), through libsecret's
// synchronous password calls.
//
// Calls block the calling thread for one D-Bus round trip; a locked collection may make the
// Secret Service show its unlock prompt first. Errors keep libsecret's message and use the
// domain "secret-service" with the GLib error code; a password that exists in a locked
// collection is an error (kLockedCode), not a missing password.
#pragma once

#include "HMKeychain.h"
#include "HMSecretServiceWatcher.h"

#include <memory>

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

private:
    std::function<void()> m_changed;
    std::unique_ptr<HMSecretServiceWatcher> m_watcher;
};
