// The error value every completion carries.
//
// Domain, integer code, an optional description and an optional failure reason, printed
// everywhere as "description [domain](code)". The application's own domain is "hmwisp";
// transport layers use their own ("sockets", the URL-loading domain). Completions take
// `const HMMaybeError &`: no value means success.
#pragma once

#include <QString>
#include <QVariantMap>
#include <optional>

class HMError
{
public:
    static const QString kAppDomain; // "hmwisp"
    static const QString kDescriptionKey;
    static const QString kFailureReasonKey;

    HMError(const QString &domain, long code, const QString &description = QString(),
            const QString &reason = QString());

    static HMError errorWithDescription(const QString &description);
    static HMError errorWithCode(long code, const QString &description,
                                 const QString &reason = QString());
    static HMError errorWithDomain(const QString &domain, long code, const QString &description,
                                   const QString &reason = QString());

    const QString &domain() const { return m_domain; }
    long code() const { return m_code; }
    // The description as shown to users; empty when none was given.
    QString localizedDescription() const { return m_description; }
    QString failureReason() const { return m_reason; }
    bool hasDescription() const { return !m_description.isNull(); }
    bool hasFailureReason() const { return !m_reason.isNull(); }
    // Holds the description and reason only where they were given, plus any extra entries.
    QVariantMap userInfo() const;
    // Extra entries for the code that reads the error, not for users (for example the
    // resolver's failure code of a host look-up).
    void setUserInfoValue(const QString &key, const QVariant &value);
    QVariant userInfoValue(const QString &key) const { return userInfo().value(key); }
    // "%@ [%@](%ld)": what every log line that prints an error shows.
    QString description() const;
    // What a screen or the command line shows: the description, else the failure reason,
    // else the printed form, so that a failure never reads as an empty message.
    QString displayText() const;

    bool operator==(const HMError &other) const;

private:
    QString m_domain;
    long m_code = 0;
    QString m_description;
    QString m_reason;
    QVariantMap m_extraInfo;
};

using HMMaybeError = std::optional<HMError>;
