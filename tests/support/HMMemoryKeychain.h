// An in-memory keychain for tests, with failures that can be switched on per operation.
#pragma once

#include "HMKeychain.h"

#include <QHash>
#include <QPair>

class HMMemoryKeychain : public HMKeychain
{
public:
    QString passwordForService(const QString &service, const QString &account,
                               HMMaybeError *error = nullptr) override;
    bool setPassword(const QString &password, const QString &service, const QString &account,
                     HMMaybeError *error = nullptr) override;
    bool deletePassword(const QString &service, const QString &account,
                        HMMaybeError *error = nullptr) override;

    // While set, every operation fails with this error and changes nothing.
    void setFailure(const HMMaybeError &failure) { m_failure = failure; }

    bool contains(const QString &service, const QString &account) const
    {
        return m_items.contains({service, account});
    }
    int readCount() const { return m_reads; }
    int writeCount() const { return m_writes; }

private:
    // Whether the switched-on failure applies, passing it on.
    bool failed(HMMaybeError *error) const;

    QHash<QPair<QString, QString>, QString> m_items;
    HMMaybeError m_failure;
    int m_reads = 0;
    int m_writes = 0;
};
