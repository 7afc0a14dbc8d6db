#include "HMSecretServicePrompt.h"

#include "HMSecretServiceKeychain.h"
#include "HMSecretServiceSession.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QThread>
#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace {
const QString kSecrets = QStringLiteral("org.freedesktop.secrets");
const QString kPromptInterface = QStringLiteral("org.freedesktop.Secret.Prompt");

// The prompts run() is waiting on, by object path.
std::mutex s_openLock;
std::condition_variable s_closed;
QStringList s_open;

void dismiss(const QString &prompt)
{
    HMSecretServiceSession::bus().call(QDBusMessage::createMethodCall(
        kSecrets, prompt, kPromptInterface, QStringLiteral("Dismiss")));
}

HMMaybeError promptError(const QString &reason)
{
    return HMError::errorWithDomain(HMSecretServiceKeychain::kErrorDomain, 0,
                                    QStringLiteral("The keyring's prompt failed: ") + reason);
}
} // namespace

std::optional<QVariant> HMSecretServicePrompt::run(const QDBusObjectPath &prompt,
                                                   std::chrono::milliseconds patience,
                                                   HMMaybeError *error)
{
    QThread thread;
    thread.setObjectName(QStringLiteral("keyring prompt"));
    HMSecretServicePrompt receiver;
    std::future<std::optional<QVariant>> answer = receiver.m_answer.get_future();
    receiver.moveToThread(&thread);
    thread.start();
    QDBusConnection bus = HMSecretServiceSession::bus();
    // Connected before the prompt starts, so that an answer given at once is not missed.
    const bool listening =
        bus.connect(kSecrets, prompt.path(), kPromptInterface, QStringLiteral("Completed"),
                    &receiver, SLOT(completed(bool, QDBusVariant)));
    std::optional<QVariant> result;
    if (!listening) {
        if (error) {
            *error = promptError(bus.lastError().message());
        }
    } else {
        // Listed before it starts: a dismissal in between still reaches it.
        {
            std::lock_guard<std::mutex> hold(s_openLock);
            s_open << prompt.path();
        }
        QDBusMessage start = QDBusMessage::createMethodCall(
            kSecrets, prompt.path(), kPromptInterface, QStringLiteral("Prompt"));
        start << QString(); // no parent window to attach the dialog to
        const QDBusMessage started = bus.call(start);
        const bool answered = started.type() == QDBusMessage::ReplyMessage &&
                              answer.wait_for(patience) == std::future_status::ready;
        {
            std::lock_guard<std::mutex> hold(s_openLock);
            s_open.removeOne(prompt.path());
        }
        s_closed.notify_all();
        if (answered) {
            result = answer.get();
        } else if (started.type() != QDBusMessage::ReplyMessage) {
            if (error) {
                *error = promptError(started.errorMessage());
            }
        } else {
            dismiss(prompt.path());
            if (error) {
                *error = promptError(QStringLiteral("no answer"));
            }
        }
        bus.disconnect(kSecrets, prompt.path(), kPromptInterface, QStringLiteral("Completed"),
                       &receiver, SLOT(completed(bool, QDBusVariant)));
    }
    thread.quit();
    thread.wait();
    return result;
}

void HMSecretServicePrompt::completed(bool dismissed, const QDBusVariant &result)
{
    if (m_answered) {
        return;
    }
    m_answered = true;
    m_answer.set_value(dismissed ? std::nullopt : std::optional<QVariant>(result.variant()));
}

void HMSecretServicePrompt::dismissAll()
{
    QStringList open;
    {
        std::lock_guard<std::mutex> hold(s_openLock);
        open = s_open;
    }
    // The service answers each with Completed(dismissed), which ends its run().
    for (const QString &prompt : std::as_const(open)) {
        dismiss(prompt);
    }
    // Until those runs have let go, so the exit does not race their last bus calls; a
    // service that never answers cannot hold it for long.
    std::unique_lock<std::mutex> hold(s_openLock);
    s_closed.wait_for(hold, std::chrono::seconds(2), [&open] {
        return std::none_of(open.begin(), open.end(),
                            [](const QString &prompt) { return s_open.contains(prompt); });
    });
}
