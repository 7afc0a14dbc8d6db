// Runs one of the Secret Service's prompts (an unlock, a new keyring's password) to its end.
//
// The service answers such calls with a prompt object; the user's answer arrives later as
// its Completed signal. The keychain's calls are synchronous and may come from a thread
// with no event loop, and nesting one in the main thread would run the application's
// other events in the middle of a keychain call. So the signal is taken on a short-lived
// thread of its own while the caller waits, as long as a person may take to type a
// password, and no longer.
//
// Used by HMSecretServiceKeychain.
#pragma once

#include "HMError.h"

#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QObject>
#include <chrono>
#include <future>
#include <optional>

class HMSecretServicePrompt : public QObject
{
    Q_OBJECT

public:
    // The prompt's result when the user went through with it; null when it was dismissed,
    // could not be shown or was not answered within `patience` (then it is dismissed).
    static std::optional<QVariant> run(const QDBusObjectPath &prompt,
                                       std::chrono::milliseconds patience, HMMaybeError *error);
    // Dismisses every prompt a run() is waiting on: at quit, a read waiting for the user
    // would otherwise hold the exit until the prompt is answered or its patience ends.
    static void dismissAll();

private Q_SLOTS:
    // By name: QDBusConnection::connect takes nothing else.
    void completed(bool dismissed, const QDBusVariant &result);

private:
    std::promise<std::optional<QVariant>> m_answer;
    bool m_answered = false;
};
