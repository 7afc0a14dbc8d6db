#include "HMSecretServiceKeychain.h"

#include <libsecret/secret.h>
#include <system_error>

const QString HMSecretServiceKeychain::kErrorDomain = QStringLiteral("secret-service");

namespace {

// Items carry the two attributes the old keychain used as the item's address, so a
// password stored by one build is found by the next.
const SecretSchema *passwordSchema()
{
    static const SecretSchema schema = [] {
        SecretSchema s{};
        s.name = "com.hollowmere.mac.Hollowmere.GenericPassword";
        s.flags = SECRET_SCHEMA_NONE;
        s.attributes[0].name = "service";
        s.attributes[0].type = SECRET_SCHEMA_ATTRIBUTE_STRING;
        s.attributes[1].name = "account";
        s.attributes[1].type = SECRET_SCHEMA_ATTRIBUTE_STRING;
        return s;
    }();
    return &schema;
}

// Takes ownership of the GError.
void report(GError *gerror, const QString &action, HMMaybeError *error)
{
    if (!gerror) {
        return;
    }
    const QString message = QString::fromUtf8(gerror->message);
    const long code = gerror->code;
    g_error_free(gerror);
    if (error) {
        *error = HMError::errorWithDomain(HMSecretServiceKeychain::kErrorDomain, code,
                                          action + QStringLiteral(": ") + message);
    }
}

// The password calls treat a locked item whose unlock prompt was dismissed (or could not
// be shown) like a missing one. Telling the two apart matters: a user with a locked
// keyring is not signed out for good, and the log should say why.
bool lockedItemExists(const QByteArray &service, const QByteArray &account)
{
    GError *gerror = nullptr;
    SecretService *secretService = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &gerror);
    if (!secretService) {
        if (gerror) {
            g_error_free(gerror);
        }
        return false;
    }
    GHashTable *attributes = secret_attributes_build(
        passwordSchema(), "service", service.constData(), "account", account.constData(), nullptr);
    GList *items = secret_service_search_sync(secretService, passwordSchema(), attributes,
                                              SECRET_SEARCH_ALL, nullptr, &gerror);
    bool locked = false;
    for (GList *it = items; it; it = it->next) {
        locked = locked || secret_item_get_locked(static_cast<SecretItem *>(it->data));
    }
    g_list_free_full(items, g_object_unref);
    g_hash_table_unref(attributes);
    g_object_unref(secretService);
    if (gerror) {
        g_error_free(gerror);
    }
    return locked;
}

} // namespace

HMSecretServiceKeychain &HMSecretServiceKeychain::shared()
{
    static HMSecretServiceKeychain keychain;
    return keychain;
}

HMSecretServiceKeychain::Lookup
HMSecretServiceKeychain::lookup(const QString &service, const QString &account, bool askIfLocked)
{
    Lookup result;
    const QByteArray serviceUtf8 = service.toUtf8();
    const QByteArray accountUtf8 = account.toUtf8();
    GError *gerror = nullptr;
    gchar *secret = secret_password_lookup_sync(passwordSchema(), nullptr, &gerror, "service",
                                                serviceUtf8.constData(), "account",
                                                accountUtf8.constData(), nullptr);
    if (gerror) {
        secret_password_free(secret);
        report(gerror, QStringLiteral("Could not read the password"), &result.error);
        return result;
    }
    if (!secret) {
        if (askIfLocked && lockedItemExists(serviceUtf8, accountUtf8)) {
            result.error = HMError::errorWithDomain(
                kErrorDomain, kLockedCode,
                QStringLiteral("Could not read the password: the keyring is locked"));
        }
        return result;
    }
    result.password = QString::fromUtf8(secret);
    secret_password_free(secret);
    return result;
}

void HMSecretServiceKeychain::prefetchPassword(const QString &service, const QString &account)
{
    m_prefetch.reset();
    try {
        m_prefetch = Prefetch{service, account,
                              std::async(std::launch::async, &HMSecretServiceKeychain::lookup,
                                         service, account, true)};
    } catch (const std::system_error &) {
        // No thread to spare: the read happens when it is asked for, as without a prefetch.
    }
}

QString HMSecretServiceKeychain::passwordForService(const QString &service, const QString &account,
                                                    HMMaybeError *error)
{
    Lookup result;
    if (m_prefetch && m_prefetch->service == service && m_prefetch->account == account) {
        result = m_prefetch->answer.get();
    } else {
        m_prefetch.reset(); // waits for a read still under way: its answer may be stale
        result = lookup(service, account, error != nullptr);
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
    m_prefetch.reset();
    const QByteArray serviceUtf8 = service.toUtf8();
    const QByteArray accountUtf8 = account.toUtf8();
    const QByteArray passwordUtf8 = password.toUtf8();
    const QByteArray label = (service + QStringLiteral(" (") + account + QLatin1Char(')')).toUtf8();
    GError *gerror = nullptr;
    const gboolean stored = secret_password_store_sync(
        passwordSchema(), SECRET_COLLECTION_DEFAULT, label.constData(), passwordUtf8.constData(),
        nullptr, &gerror, "service", serviceUtf8.constData(), "account", accountUtf8.constData(),
        nullptr);
    if (gerror || !stored) {
        if (!gerror && error) {
            *error = HMError::errorWithDomain(kErrorDomain, 0,
                                              QStringLiteral("Could not store the password"));
        }
        report(gerror, QStringLiteral("Could not store the password"), error);
        return false;
    }
    return true;
}

bool HMSecretServiceKeychain::deletePassword(const QString &service, const QString &account,
                                             HMMaybeError *error)
{
    m_prefetch.reset();
    const QByteArray serviceUtf8 = service.toUtf8();
    const QByteArray accountUtf8 = account.toUtf8();
    GError *gerror = nullptr;
    const gboolean removed = secret_password_clear_sync(
        passwordSchema(), nullptr, &gerror, "service", serviceUtf8.constData(), "account",
        accountUtf8.constData(), nullptr);
    if (gerror) {
        report(gerror, QStringLiteral("Could not delete the password"), error);
        return false;
    }
    // FALSE without an error means nothing was removed: fine when there was nothing, not
    // when the item sits in a collection that stayed locked.
    if (!removed && lockedItemExists(serviceUtf8, accountUtf8)) {
        if (error) {
            *error = HMError::errorWithDomain(
                kErrorDomain, kLockedCode,
                QStringLiteral("Could not delete the password: the keyring is locked"));
        }
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
