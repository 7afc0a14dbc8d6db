#include "HMSecretServicePrompt.h"

#include "HMSecretServiceSession.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QThread>

namespace {
const QString kSecrets = QStringLiteral("org.freedesktop.secrets");
const QString kPromptInterface = QStringLiteral("org.freedesktop.Secret.Prompt");

HMMaybeError promptError(const QString &reason)
{
    return HMError::errorWithDomain(QStringLiteral("secret-service"), 0,
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
        QDBusMessage start = QDBusMessage::createMethodCall(
            kSecrets, prompt.path(), kPromptInterface, QStringLiteral("Prompt"));
        start << QString(); // no parent window to attach the dialog to
        const QDBusMessage started = bus.call(start);
        if (started.type() != QDBusMessage::ReplyMessage) {
            if (error) {
                *error = promptError(started.errorMessage());
            }
        } else if (answer.wait_for(patience) == std::future_status::ready) {
            result = answer.get();
        } else {
            bus.call(QDBusMessage::createMethodCall(kSecrets, prompt.path(), kPromptInterface,
                                                    QStringLiteral("Dismiss")));
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
