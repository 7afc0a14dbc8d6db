#include "HMMemoryKeychain.h"

QString HMMemoryKeychain::passwordForService(const QString &service, const QString &account,
                                             HMMaybeError *error)
{
    ++m_reads;
    if (m_failure) {
        if (error) {
            *error = m_failure;
        }
        return QString();
    }
    return m_items.value({service, account});
}

bool HMMemoryKeychain::setPassword(const QString &password, const QString &service,
                                   const QString &account, HMMaybeError *error)
{
    ++m_writes;
    if (m_failure) {
        if (error) {
            *error = m_failure;
        }
        return false;
    }
    m_items.insert({service, account}, password);
    return true;
}

bool HMMemoryKeychain::deletePassword(const QString &service, const QString &account,
                                      HMMaybeError *error)
{
    ++m_deletes;
    if (m_failure) {
        if (error) {
            *error = m_failure;
        }
        return false;
    }
    m_items.remove({service, account});
    return true;
}
