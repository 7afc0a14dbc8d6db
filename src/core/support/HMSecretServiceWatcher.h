// Tells the secret store's owner when the Secret Service's collections change, which is
// how an unlock shows: the service announces CollectionChanged, and the collection's
// "Locked" property change arrives as PropertiesChanged. The signals are only a cue to
// read again; nothing is taken from their content.
//
// Used by HMSecretServiceKeychain; lives on the main thread.
#pragma once

#include <QObject>
#include <functional>

class HMSecretServiceWatcher : public QObject
{
    Q_OBJECT

public:
    explicit HMSecretServiceWatcher(std::function<void()> changed, QObject *parent = nullptr);

private Q_SLOTS:
    // Slots by name: QDBusConnection::connect takes nothing else.
    void collectionChanged();

private:
    std::function<void()> m_changed;
};
