#include "HMSecretServiceKeychain.h"

#include <libsecret/secret.h>

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

} // namespace

HMSecretServiceKeychain &HMSecretServiceKeychain::shared()
{
    static HMSecretServiceKeychain keychain;
    return keychain;
}

QString HMSecretServiceKeychain::passwordForService(const QString &service, const QString &account,
                                                    HMMaybeError *error)
{
    const QByteArray serviceUtf8 = service.toUtf8();
    const QByteArray accountUtf8 = account.toUtf8();
    GError *gerror = nullptr;
    gchar *secret = secret_password_lookup_sync(passwordSchema(), nullptr, &gerror, "service",
                                                serviceUtf8.constData(), "account",
                                                accountUtf8.constData(), nullptr);
    if (gerror) {
        secret_password_free(secret);
        report(gerror, QStringLiteral("Could not read the password"), error);
        return QString();
    }
    if (!secret) {
        return QString();
    }
    const QString password = QString::fromUtf8(secret);
    secret_password_free(secret);
    return password;
}

bool HMSecretServiceKeychain::setPassword(const QString &password, const QString &service,
                                          const QString &account, HMMaybeError *error)
{
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
    const QByteArray serviceUtf8 = service.toUtf8();
    const QByteArray accountUtf8 = account.toUtf8();
    GError *gerror = nullptr;
    // FALSE without an error only means there was nothing to remove.
    secret_password_clear_sync(passwordSchema(), nullptr, &gerror, "service",
                               serviceUtf8.constData(), "account", accountUtf8.constData(),
                               nullptr);
    if (gerror) {
        report(gerror, QStringLiteral("Could not delete the password"), error);
        return false;
    }
    return true;
}
