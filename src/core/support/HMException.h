// The exception raised by programming-error checks ("Must be logged in", "Invalid method").
//
// Failures a caller can expect go through completions as HMError values; an HMException
// means the caller broke a precondition, so it is thrown and not caught by the client.
// `name` is the exception's name, `reason` its text; an assertion has the reason only.
#pragma once

#include <QString>
#include <stdexcept>

class HMException : public std::logic_error
{
public:
    HMException(const QString &name, const QString &reason);

    // A failed precondition check: name "HMAssertion", the check's text as the reason.
    static HMException assertion(const QString &reason);

    QString name() const { return m_name; }
    QString reason() const { return m_reason; }

private:
    QString m_name;
    QString m_reason;
};

// Throws HMException::assertion(reason) when `condition` is false.
void hm_assert(bool condition, const QString &reason);
