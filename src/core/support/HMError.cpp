#include "HMError.h"

const QString HMError::kAppDomain = QStringLiteral("hmwisp");
const QString HMError::kDescriptionKey = QStringLiteral("NSLocalizedDescription");
const QString HMError::kFailureReasonKey = QStringLiteral("NSLocalizedFailureReason");

HMError::HMError(const QString &domain, long code, const QString &description,
                 const QString &reason)
    : m_domain(domain), m_code(code), m_description(description), m_reason(reason)
{}

HMError HMError::errorWithDescription(const QString &description)
{
    return errorWithCode(0, description);
}

HMError HMError::errorWithCode(long code, const QString &description, const QString &reason)
{
    return errorWithDomain(kAppDomain, code, description, reason);
}

HMError HMError::errorWithDomain(const QString &domain, long code, const QString &description,
                                 const QString &reason)
{
    return HMError(domain, code, description, reason);
}

QVariantMap HMError::userInfo() const
{
    QVariantMap info = m_extraInfo;
    if (hasDescription()) {
        info.insert(kDescriptionKey, m_description);
    }
    if (hasFailureReason()) {
        info.insert(kFailureReasonKey, m_reason);
    }
    return info;
}

QString HMError::description() const
{
    return QStringLiteral("%1 [%2](%3)").arg(m_description, m_domain, QString::number(m_code));
}

QString HMError::displayText() const
{
    if (!m_description.isEmpty()) {
        return m_description;
    }
    return m_reason.isEmpty() ? description().trimmed() : m_reason;
}

void HMError::setUserInfoValue(const QString &key, const QVariant &value)
{
    m_extraInfo.insert(key, value);
}

bool HMError::operator==(const HMError &other) const
{
    return m_domain == other.m_domain && m_code == other.m_code &&
           m_description == other.m_description && m_reason == other.m_reason &&
           m_extraInfo == other.m_extraInfo;
}
