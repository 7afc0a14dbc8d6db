#include "HMSecretServiceKeychain.h"

#include "HMSecretServicePrompt.h"
#include "HMSecretServiceSession.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QFutureWatcher>
#include <QPromise>
#include <system_error>

const QString HMSecretServiceKeychain::kErrorDomain = QStringLiteral("secret-service");

namespace {

using Attributes = QMap<QString, QString>;
using Paths = QList<QDBusObjectPath>;

const QString kSecrets = QStringLiteral("org.freedesktop.secrets");
const QString kServicePath = QStringLiteral("/org/freedesktop/secrets");
const QString kServiceInterface = QStringLiteral("org.freedesktop.Secret.Service");
const QString kItemInterface = QStringLiteral("org.freedesktop.Secret.Item");
const QDBusObjectPath kNoObject(QStringLiteral("/"));
// Long enough to find and type a keyring password; a prompt nobody answers is dismissed.
constexpr std::chrono::minutes kPromptPatience(5);

// Items carry the schema name and the two attributes the old keychain used as the item's
// address, so a password stored by one build is found by the next.
Attributes itemAttributes(const QString &service, const QString &account)
{
    return {{QStringLiteral("xdg:schema"),
             QStringLiteral("com.hollowmere.mac.Hollowmere.GenericPassword")},
            {QStringLiteral("service"), service},
            {QStringLiteral("account"), account}};
}

// Errors made below say only what went wrong; the public calls put their action in front.
HMMaybeError failure(const QString &reason, long code = 0)
{
    return HMError::errorWithDomain(HMSecretServiceKeychain::kErrorDomain, code, reason);
}

HMMaybeError lockedFailure()
{
    return failure(QStringLiteral("the keyring is locked"), HMSecretServiceKeychain::kLockedCode);
}

// One call on the service's bus; an error reply, a missing bus or a reply of the wrong
// shape all come back as `error`.
std::optional<QList<QVariant>> call(const QString &path, const QString &interface,
                                    const QString &method, const QVariantList &arguments,
                                    int replyArguments, HMMaybeError &error)
{
    static std::once_flag registered;
    std::call_once(registered, [] {
        qDBusRegisterMetaType<Attributes>();
        qDBusRegisterMetaType<Paths>();
    });
    QDBusConnection bus = HMSecretServiceSession::bus();
    if (!bus.isConnected()) {
        error = failure(bus.lastError().message());
        return std::nullopt;
    }
    QDBusMessage message = QDBusMessage::createMethodCall(kSecrets, path, interface, method);
    message.setArguments(arguments);
    const QDBusMessage reply = bus.call(message);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        error = failure(reply.errorMessage());
        return std::nullopt;
    }
    if (reply.arguments().size() != replyArguments) {
        error = failure(QStringLiteral("the Secret Service answered %1 with %2 values")
                            .arg(method)
                            .arg(reply.arguments().size()));
        return std::nullopt;
    }
    return reply.arguments();
}

// Calls that may need the user answer with a prompt; the prompt's result replaces the
// call's own. Null when the prompt was dismissed or failed.
std::optional<QVariant> settle(const QVariant &immediate, const QDBusObjectPath &prompt,
                               HMMaybeError &error)
{
    if (prompt == kNoObject || prompt.path().isEmpty()) {
        return immediate;
    }
    return HMSecretServicePrompt::run(prompt, kPromptPatience, &error);
}

struct Found
{
    Paths unlocked;
    Paths locked;
};

// The matching items; those in locked collections are unlocked first, with the service's
// prompt, and stay in `locked` when the user does not unlock them.
std::optional<Found> search(const Attributes &attributes, HMMaybeError &error)
{
    const auto reply = call(kServicePath, kServiceInterface, QStringLiteral("SearchItems"),
                            {QVariant::fromValue(attributes)}, 2, error);
    if (!reply) {
        return std::nullopt;
    }
    Found found{qdbus_cast<Paths>(reply->at(0)), qdbus_cast<Paths>(reply->at(1))};
    if (found.locked.isEmpty()) {
        return found;
    }
    const auto unlock = call(kServicePath, kServiceInterface, QStringLiteral("Unlock"),
                             {QVariant::fromValue(found.locked)}, 2, error);
    if (!unlock) {
        return std::nullopt;
    }
    HMMaybeError promptError;
    const auto unlocked =
        settle(unlock->at(0), unlock->at(1).value<QDBusObjectPath>(), promptError);
    for (const QDBusObjectPath &item : unlocked ? qdbus_cast<Paths>(*unlocked) : Paths()) {
        if (found.locked.removeAll(item) > 0) {
            found.unlocked.append(item);
        }
    }
    return found;
}

// The default collection, made (with the service's prompt for its password) when the
// desktop has none yet, and unlocked.
std::optional<QDBusObjectPath> defaultCollection(HMMaybeError &error)
{
    const auto alias = call(kServicePath, kServiceInterface, QStringLiteral("ReadAlias"),
                            {QStringLiteral("default")}, 1, error);
    if (!alias) {
        return std::nullopt;
    }
    QDBusObjectPath collection = alias->at(0).value<QDBusObjectPath>();
    if (collection == kNoObject) {
        const QVariantMap properties{{QStringLiteral("org.freedesktop.Secret.Collection.Label"),
                                      QStringLiteral("Default keyring")}};
        const auto created =
            call(kServicePath, kServiceInterface, QStringLiteral("CreateCollection"),
                 {properties, QStringLiteral("default")}, 2, error);
        if (!created) {
            return std::nullopt;
        }
        const auto settled = settle(created->at(0), created->at(1).value<QDBusObjectPath>(), error);
        if (!settled || settled->value<QDBusObjectPath>() == kNoObject) {
            if (!error) {
                error = failure(QStringLiteral("no keyring was created"));
            }
            return std::nullopt;
        }
        collection = settled->value<QDBusObjectPath>();
    }
    const auto unlock = call(kServicePath, kServiceInterface, QStringLiteral("Unlock"),
                             {QVariant::fromValue(Paths{collection})}, 2, error);
    if (!unlock) {
        return std::nullopt;
    }
    HMMaybeError promptError;
    const auto unlocked =
        settle(unlock->at(0), unlock->at(1).value<QDBusObjectPath>(), promptError);
    if (!unlocked || !qdbus_cast<Paths>(*unlocked).contains(collection)) {
        error = lockedFailure();
        return std::nullopt;
    }
    return collection;
}

void report(const QString &action, const HMMaybeError &cause, HMMaybeError *error)
{
    if (error && cause) {
        *error =
            HMError::errorWithDomain(HMSecretServiceKeychain::kErrorDomain, cause->code(),
                                     action + QStringLiteral(": ") + cause->localizedDescription());
    }
}

} // namespace

HMSecretServiceKeychain &HMSecretServiceKeychain::shared()
{
    static HMSecretServiceKeychain keychain;
    return keychain;
}

HMSecretServiceKeychain::Lookup HMSecretServiceKeychain::lookup(const QString &service,
                                                                const QString &account)
{
    static const QString kAction = QStringLiteral("Could not read the password");
    Lookup result;
    HMMaybeError error;
    const auto found = search(itemAttributes(service, account), error);
    if (!found) {
        report(kAction, error, &result.error);
        return result;
    }
    if (found->unlocked.isEmpty()) {
        if (!found->locked.isEmpty()) {
            report(kAction, lockedFailure(), &result.error);
        }
        return result;
    }
    const auto session = HMSecretServiceSession::open(&error);
    const auto reply =
        session ? call(found->unlocked.first().path(), kItemInterface, QStringLiteral("GetSecret"),
                       {QVariant::fromValue(session->path())}, 1, error)
                : std::nullopt;
    if (!reply) {
        report(kAction, error, &result.error);
        return result;
    }
    const auto secret = session->decode(qdbus_cast<HMServiceSecret>(reply->at(0)));
    if (!secret) {
        report(kAction, failure(QStringLiteral("the secret did not decrypt")), &result.error);
        return result;
    }
    result.password = QString::fromUtf8(*secret);
    return result;
}

void HMSecretServiceKeychain::prefetchPassword(const QString &service, const QString &account)
{
    m_prefetch.reset();
    auto promise = std::make_shared<QPromise<Lookup>>();
    promise->start();
    try {
        std::future<void> worker = std::async(std::launch::async, [promise, service, account] {
            promise->addResult(lookup(service, account));
            promise->finish();
        });
        m_prefetch = Prefetch{service, account, promise->future(), std::move(worker)};
    } catch (const std::system_error &) {
        // No thread to spare: the read happens when it is asked for, as without a prefetch.
    }
}

void HMSecretServiceKeychain::whenPrefetched(QObject *context, std::function<void()> done)
{
    if (!m_prefetch || m_prefetch->answer.isFinished()) {
        done();
        return;
    }
    auto *watcher = new QFutureWatcher<Lookup>(context);
    QObject::connect(watcher, &QFutureWatcherBase::finished, context,
                     [watcher, done = std::move(done)] {
                         watcher->deleteLater();
                         done();
                     });
    watcher->setFuture(m_prefetch->answer);
}

QString HMSecretServiceKeychain::passwordForService(const QString &service, const QString &account,
                                                    HMMaybeError *error)
{
    Lookup result;
    if (m_prefetch && m_prefetch->service == service && m_prefetch->account == account) {
        result = m_prefetch->answer.result();
    } else {
        m_prefetch.reset(); // waits for a read still under way: its answer may be stale
        result = lookup(service, account);
    }
    m_prefetch.reset();
    if (error && result.error) {
        *error = result.error;
    }
    return result.password;
}

bool HMSecretServiceKeychain::setPassword(const QString &password, const QString &service,
                                          const QString &account, HMMaybeError *error)
{
    static const QString kAction = QStringLiteral("Could not store the password");
    m_prefetch.reset();
    HMMaybeError cause;
    const auto collection = defaultCollection(cause);
    const auto session = collection ? HMSecretServiceSession::open(&cause) : nullptr;
    if (!session) {
        report(kAction, cause, error);
        return false;
    }
    QByteArray plain = password.toUtf8();
    const HMServiceSecret secret = session->encode(plain);
    explicit_bzero(plain.data(), size_t(plain.size()));
    const QVariantMap properties{
        {QStringLiteral("org.freedesktop.Secret.Item.Label"),
         QString(service + QStringLiteral(" (") + account + QLatin1Char(')'))},
        {QStringLiteral("org.freedesktop.Secret.Item.Attributes"),
         QVariant::fromValue(itemAttributes(service, account))}};
    const auto created = call(
        collection->path(), QStringLiteral("org.freedesktop.Secret.Collection"),
        QStringLiteral("CreateItem"), {properties, QVariant::fromValue(secret), true}, 2, cause);
    if (!created || !settle(created->at(0), created->at(1).value<QDBusObjectPath>(), cause)) {
        report(kAction, cause ? cause : failure(QStringLiteral("the prompt was dismissed")), error);
        return false;
    }
    return true;
}

bool HMSecretServiceKeychain::deletePassword(const QString &service, const QString &account,
                                             HMMaybeError *error)
{
    static const QString kAction = QStringLiteral("Could not delete the password");
    m_prefetch.reset();
    HMMaybeError cause;
    const auto found = search(itemAttributes(service, account), cause);
    if (!found) {
        report(kAction, cause, error);
        return false;
    }
    for (const QDBusObjectPath &item : found->unlocked) {
        const auto deleted =
            call(item.path(), kItemInterface, QStringLiteral("Delete"), {}, 1, cause);
        if (!deleted || !settle({}, deleted->at(0).value<QDBusObjectPath>(), cause)) {
            report(kAction, cause ? cause : failure(QStringLiteral("the prompt was dismissed")),
                   error);
            return false;
        }
    }
    // An item left in a collection that stayed locked is still there: the caller must not
    // take the password for gone.
    if (!found->locked.isEmpty()) {
        report(kAction, lockedFailure(), error);
        return false;
    }
    return true;
}

void HMSecretServiceKeychain::setChangeObserver(std::function<void()> changed)
{
    m_changed = std::move(changed);
    if (!m_watcher) {
        m_watcher = std::make_unique<HMSecretServiceWatcher>([this] {
            if (m_changed) {
                m_changed();
            }
        });
    }
}
