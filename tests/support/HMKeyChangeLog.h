// Records an object's will/did change announcements as "will:key" / "did:key", in order.
#pragma once

#include <QObject>
#include <QStringList>

template <class Observed> class HMKeyChangeLog
{
public:
    explicit HMKeyChangeLog(Observed &observed)
    {
        QObject::connect(&observed, &Observed::willChangeValueForKey, &m_context,
                         [this](const QString &key) { entries << QStringLiteral("will:") + key; });
        QObject::connect(&observed, &Observed::didChangeValueForKey, &m_context,
                         [this](const QString &key) { entries << QStringLiteral("did:") + key; });
    }

    QStringList entries;

private:
    QObject m_context; // disconnects both when the log goes
};
