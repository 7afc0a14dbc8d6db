// The secret store that keeps the account's password.
//
// Items are generic passwords addressed by (service, account), the way the account manager
// has always named them. The real store is the Secret Service (HMSecretServiceKeychain);
// tests hand the managers an in-memory one. Nothing here throws: every failure comes back
// as an error value, and "no such item" is not a failure.
#pragma once

#include "HMError.h"

#include <QString>

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
};
