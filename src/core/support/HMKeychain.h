// The secret store that keeps the account's password.
//
// Items are generic passwords addressed by (service, account), the way the account manager
// has always named them. The real store is the Secret Service (HMSecretServiceKeychain);
// tests hand the managers an in-memory one. Nothing here throws: every failure comes back
// as an error value, and "no such item" is not a failure.
#pragma once

#include "HMError.h"

#include <QString>
#include <functional>

class HMKeychain
{
public:
    virtual ~HMKeychain() = default;

    // The stored password, or a null string when there is none or the store failed; in the
    // latter case `error` (when given) receives the reason.
    virtual QString passwordForService(const QString &service, const QString &account,
                                       HMMaybeError *error = nullptr) = 0;
    // Creates the item or replaces its secret.
    virtual bool setPassword(const QString &password, const QString &service,
                             const QString &account, HMMaybeError *error = nullptr) = 0;
    // Removing an item that does not exist succeeds.
    virtual bool deletePassword(const QString &service, const QString &account,
                                HMMaybeError *error = nullptr) = 0;
    // `changed` runs on the main thread whenever the store may have become readable (a
    // locked collection unlocked); one observer, replaced by the next call. Stores that are
    // never locked need not call it.
    virtual void setChangeObserver(std::function<void()> changed) { Q_UNUSED(changed) }
};
