#include "HMMemoryKeychain.h"

bool HMMemoryKeychain::failed(HMMaybeError *error) const
{
    if (m_failure && error) {
        *error = m_failure;
    }
    return m_failure.has_value();
}

QString HMMemoryKeychain::passwordForService(const QString &service, const QString &account,
                                             HMMaybeError *error)
{
    ++m_reads;
    return failed(error) ? QString() : m_items.value({service, account});
}

bool HMMemoryKeychain::setPassword(const QString &password, const QString &service,
                                   const QString &account, HMMaybeError *error)
{
    ++m_writes;
    if (failed(error)) {
        return false;
    }
    m_items.insert({service, account}, password);
    return true;
}

bool HMMemoryKeychain::deletePassword(const QString &service, const QString &account,
                                      HMMaybeError *error)
{
    if (failed(error)) {
        return false;
    }
    m_items.remove({service, account});
    return true;
}
