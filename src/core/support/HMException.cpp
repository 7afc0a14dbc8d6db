#include "HMException.h"

HMException::HMException(const QString &name, const QString &reason)
    : std::logic_error(QString(name + QStringLiteral(": ") + reason).toStdString()), m_name(name),
      m_reason(reason)
{}

HMException HMException::assertion(const QString &reason)
{
    return HMException(QStringLiteral("HMAssertion"), reason);
}

void hm_assert(bool condition, const QString &reason)
{
    if (!condition) {
        throw HMException::assertion(reason);
    }
}
