#include "HMSecretServiceSession.h"

#include "HMLibCrypto.h"
#include "HMLog.h"
#include "HMSecretServiceKeychain.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <cstring>
#include <mutex>
#include <utility>

const QString HMSecretServiceSession::kEncryptedAlgorithm =
    QStringLiteral("dh-ietf1024-sha256-aes128-cbc-pkcs7");

QDBusArgument &operator<<(QDBusArgument &argument, const HMServiceSecret &secret)
{
    argument.beginStructure();
    argument << secret.session << secret.parameters << secret.value << secret.contentType;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, HMServiceSecret &secret)
{
    argument.beginStructure();
    argument >> secret.session >> secret.parameters >> secret.value >> secret.contentType;
    argument.endStructure();
    return argument;
}

namespace {

// The second Oakley group (RFC 2409), generator 2.
constexpr unsigned char kPrime[128] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xC9, 0x0F, 0xDA, 0xA2, 0x21, 0x68, 0xC2, 0x34,
    0xC4, 0xC6, 0x62, 0x8B, 0x80, 0xDC, 0x1C, 0xD1, 0x29, 0x02, 0x4E, 0x08, 0x8A, 0x67, 0xCC, 0x74,
    0x02, 0x0B, 0xBE, 0xA6, 0x3B, 0x13, 0x9B, 0x22, 0x51, 0x4A, 0x08, 0x79, 0x8E, 0x34, 0x04, 0xDD,
    0xEF, 0x95, 0x19, 0xB3, 0xCD, 0x3A, 0x43, 0x1B, 0x30, 0x2B, 0x0A, 0x6D, 0xF2, 0x5F, 0x14, 0x37,
    0x4F, 0xE1, 0x35, 0x6D, 0x6D, 0x51, 0xC2, 0x45, 0xE4, 0x85, 0xB5, 0x76, 0x62, 0x5E, 0x7E, 0xC6,
    0xF4, 0x4C, 0x42, 0xE9, 0xA6, 0x37, 0xED, 0x6B, 0x0B, 0xFF, 0x5C, 0xB6, 0xF4, 0x06, 0xB7, 0xED,
    0xEE, 0x38, 0x6B, 0xFB, 0x5A, 0x89, 0x9F, 0xA5, 0xAE, 0x9F, 0x24, 0x11, 0x7C, 0x4B, 0x1F, 0xE6,
    0x49, 0x28, 0x66, 0x51, 0xEC, 0xE6, 0x53, 0x81, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr int kPrimeBytes = int(sizeof kPrime);
constexpr int kKeyBytes = 16;
constexpr int kBlock = 16;

const QString kSecrets = QStringLiteral("org.freedesktop.secrets");

void wipe(QByteArray &bytes)
{
    if (!bytes.isEmpty()) {
        explicit_bzero(bytes.data(), size_t(bytes.size()));
    }
    bytes.clear();
}

// Owns one big number, wiped when released.
class Number
{
public:
    Number(const HMLibCrypto &c, const QByteArray &bytes)
        : m_c(c), m_value(c.BN_bin2bn(reinterpret_cast<const unsigned char *>(bytes.constData()),
                                      int(bytes.size()), nullptr))
    {}
    ~Number() { m_c.BN_clear_free(m_value); }
    Number(const Number &) = delete;
    Number &operator=(const Number &) = delete;

    BIGNUM *get() const { return m_value; }
    // The value as exactly `width` big-endian bytes, leading zeros kept; empty if wider.
    QByteArray bytes(int width) const
    {
        QByteArray out(width, '\0');
        if (m_c.BN_bn2binpad(m_value, reinterpret_cast<unsigned char *>(out.data()), width) !=
            width) {
            wipe(out);
        }
        return out;
    }

private:
    const HMLibCrypto &m_c;
    BIGNUM *m_value;
};

const QByteArray &groupPrime()
{
    static const QByteArray prime =
        QByteArray::fromRawData(reinterpret_cast<const char *>(kPrime), kPrimeBytes);
    return prime;
}

// base^exponent mod the group's prime, in constant time in the secret exponent; empty when
// the arithmetic fails.
QByteArray power(const HMLibCrypto &c, const Number &base, const Number &exponent)
{
    const Number prime(c, groupPrime());
    const Number result(c, QByteArray(1, '\0'));
    if (!prime.get() || !result.get() || !base.get() || !exponent.get()) {
        return {};
    }
    c.BN_set_flags(exponent.get(), BN_FLG_CONSTTIME);
    BN_CTX *context = c.BN_CTX_new();
    const bool ok =
        context && c.BN_mod_exp(result.get(), base.get(), exponent.get(), prime.get(), context);
    c.BN_CTX_free(context);
    return ok ? result.bytes(kPrimeBytes) : QByteArray();
}

QByteArray hmacSha256(const HMLibCrypto &c, const QByteArray &key, const QByteArray &message)
{
    QByteArray out(32, '\0');
    unsigned int length = 0;
    if (!c.HMAC(c.EVP_sha256(), key.constData(), int(key.size()),
                reinterpret_cast<const unsigned char *>(message.constData()),
                size_t(message.size()), reinterpret_cast<unsigned char *>(out.data()), &length) ||
        length != 32) {
        wipe(out);
    }
    return out;
}

// AES-128-CBC over whole blocks: the padding is checked by the caller, which must not
// tell a bad pad from a bad key any differently.
QByteArray aes(const HMLibCrypto &c, const QByteArray &key, const QByteArray &iv,
               const QByteArray &data, bool encrypt)
{
    EVP_CIPHER_CTX *cipher = c.EVP_CIPHER_CTX_new();
    QByteArray out(data.size() + kBlock, '\0');
    int written = 0;
    int tail = 0;
    const bool ok =
        cipher &&
        c.EVP_CipherInit_ex(cipher, c.EVP_aes_128_cbc(), nullptr,
                            reinterpret_cast<const unsigned char *>(key.constData()),
                            reinterpret_cast<const unsigned char *>(iv.constData()),
                            encrypt ? 1 : 0) == 1 &&
        c.EVP_CIPHER_CTX_set_padding(cipher, 0) == 1 &&
        c.EVP_CipherUpdate(cipher, reinterpret_cast<unsigned char *>(out.data()), &written,
                           reinterpret_cast<const unsigned char *>(data.constData()),
                           int(data.size())) == 1 &&
        c.EVP_CipherFinal_ex(cipher, reinterpret_cast<unsigned char *>(out.data()) + written,
                             &tail) == 1;
    c.EVP_CIPHER_CTX_free(cipher);
    if (!ok || written + tail != data.size()) {
        wipe(out);
        return out;
    }
    out.truncate(data.size());
    return out;
}

QDBusMessage serviceCall(const QString &method, const QVariantList &arguments)
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(kSecrets, QStringLiteral("/org/freedesktop/secrets"),
                                       QStringLiteral("org.freedesktop.Secret.Service"), method);
    message.setArguments(arguments);
    return HMSecretServiceSession::bus().call(message);
}

HMMaybeError sessionError(const QString &reason)
{
    return HMError::errorWithDomain(HMSecretServiceKeychain::kErrorDomain, 0,
                                    QStringLiteral("Could not open a session: ") + reason);
}

} // namespace

QByteArray HMSecretServiceSession::agreedKey(const QByteArray &privateExponent,
                                             const QByteArray &peerPublic)
{
    const HMLibCrypto *c = HMLibCrypto::instance();
    if (!c) {
        return {};
    }
    QByteArray upperBytes = groupPrime();
    upperBytes.back() = char(upperBytes.back() - 1); // the prime ends in 0xFF
    const Number upper(*c, upperBytes);
    const Number one(*c, QByteArray(1, '\1'));
    const Number exponent(*c, privateExponent);
    const Number peer(*c, peerPublic);
    if (!upper.get() || !one.get() || !exponent.get() || !peer.get()) {
        return {};
    }
    // 1 < y < p - 1: the values that would pin the shared secret to 1 or -1 are refused.
    if (c->BN_cmp(peer.get(), one.get()) <= 0 || c->BN_cmp(peer.get(), upper.get()) >= 0) {
        return {};
    }
    // The secret is the full width of the prime, leading zeros kept, as the services take it.
    QByteArray material = power(*c, peer, exponent);
    if (material.isEmpty()) {
        return {};
    }
    // HKDF-SHA256 with no salt and no info: extract, then the first block of expand.
    QByteArray pseudoRandom = hmacSha256(*c, QByteArray(32, '\0'), material);
    QByteArray key = hmacSha256(*c, pseudoRandom, QByteArray(1, '\x01')).left(kKeyBytes);
    wipe(material);
    wipe(pseudoRandom);
    return key.size() == kKeyBytes ? key : QByteArray();
}

std::unique_ptr<HMSecretServiceSession> HMSecretServiceSession::open(HMMaybeError *error)
{
    static std::once_flag registered;
    std::call_once(registered, [] { qDBusRegisterMetaType<HMServiceSecret>(); });
    if (!bus().isConnected()) {
        if (error) {
            *error = sessionError(
                QStringLiteral("no session bus (%1)").arg(bus().lastError().message()));
        }
        return nullptr;
    }

    QByteArray exponent(kPrimeBytes, '\0');
    const HMLibCrypto *c = HMLibCrypto::instance();
    QByteArray ours;
    if (c && c->RAND_priv_bytes(reinterpret_cast<unsigned char *>(exponent.data()),
                                int(exponent.size())) == 1) {
        // Below 2^1023, so below the prime; zero is all but impossible and refused anyway.
        exponent[0] = char(exponent[0] & 0x7F);
        ours = power(*c, Number(*c, QByteArray(1, '\2')), Number(*c, exponent));
    }
    if (!ours.isEmpty()) {
        const QDBusMessage reply =
            serviceCall(QStringLiteral("OpenSession"),
                        {kEncryptedAlgorithm, QVariant::fromValue(QDBusVariant(ours))});
        if (reply.type() == QDBusMessage::ReplyMessage && reply.arguments().size() == 2) {
            const QByteArray theirs =
                reply.arguments().at(0).value<QDBusVariant>().variant().toByteArray();
            const auto path = reply.arguments().at(1).value<QDBusObjectPath>();
            QByteArray key = agreedKey(exponent, theirs);
            wipe(exponent);
            if (key.isEmpty()) {
                HMSecretServiceSession rejected(path, {}); // closes it
                if (error) {
                    *error = sessionError(QStringLiteral("the service's key is not valid"));
                }
                return nullptr;
            }
            return std::unique_ptr<HMSecretServiceSession>(new HMSecretServiceSession(path, key));
        }
        wipe(exponent);
        if (reply.errorName() != QLatin1String("org.freedesktop.DBus.Error.NotSupported")) {
            if (error) {
                *error = sessionError(reply.errorMessage());
            }
            return nullptr;
        }
    }
    wipe(exponent);
    // The protocol allows it, but a bus monitor would then see the password.
    HMLogError(QStringLiteral("The keyring session is not encrypted: %1")
                   .arg(ours.isEmpty() ? QStringLiteral("no cryptography available")
                                       : QStringLiteral("the service does not offer it")));
    const QDBusMessage reply =
        serviceCall(QStringLiteral("OpenSession"),
                    {QStringLiteral("plain"), QVariant::fromValue(QDBusVariant(QString()))});
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
        if (error) {
            *error = sessionError(reply.errorMessage());
        }
        return nullptr;
    }
    return std::unique_ptr<HMSecretServiceSession>(
        new HMSecretServiceSession(reply.arguments().at(1).value<QDBusObjectPath>(), {}));
}

QDBusConnection HMSecretServiceSession::bus()
{
    static const QDBusConnection connection = QDBusConnection::connectToBus(
        QDBusConnection::SessionBus, QStringLiteral("hollowmere-keychain"));
    return connection;
}

HMSecretServiceSession::HMSecretServiceSession(QDBusObjectPath path, QByteArray key)
    : m_path(std::move(path)), m_key(std::move(key))
{}

HMSecretServiceSession::~HMSecretServiceSession()
{
    wipe(m_key);
    // Not waited for: the service also ends the session when our connection goes.
    bus().send(QDBusMessage::createMethodCall(kSecrets, m_path.path(),
                                              QStringLiteral("org.freedesktop.Secret.Session"),
                                              QStringLiteral("Close")));
}

HMServiceSecret HMSecretServiceSession::encode(const QByteArray &plain) const
{
    HMServiceSecret secret{m_path, {}, plain, QStringLiteral("text/plain")};
    if (!isEncrypted()) {
        return secret;
    }
    const HMLibCrypto *c = HMLibCrypto::instance();
    secret.parameters = QByteArray(kBlock, '\0');
    if (!c ||
        c->RAND_bytes(reinterpret_cast<unsigned char *>(secret.parameters.data()), kBlock) != 1) {
        // Never sent in the clear: an empty value is refused by the service.
        secret.value.clear();
        return secret;
    }
    QByteArray padded = plain;
    const int pad = kBlock - int(plain.size() % kBlock);
    padded.append(QByteArray(pad, char(pad)));
    secret.value = aes(*c, m_key, secret.parameters, padded, true);
    wipe(padded);
    return secret;
}

std::optional<QByteArray> HMSecretServiceSession::decode(const HMServiceSecret &secret) const
{
    if (secret.session != m_path) {
        return std::nullopt;
    }
    if (!isEncrypted()) {
        return secret.value;
    }
    if (secret.parameters.size() != kBlock || secret.value.isEmpty() ||
        secret.value.size() % kBlock != 0) {
        return std::nullopt;
    }
    const HMLibCrypto *c = HMLibCrypto::instance();
    if (!c) {
        return std::nullopt;
    }
    QByteArray plain = aes(*c, m_key, secret.parameters, secret.value, false);
    const int pad = plain.isEmpty() ? 0 : int(static_cast<unsigned char>(plain.back()));
    bool padded = pad >= 1 && pad <= kBlock;
    for (int i = 1; padded && i <= pad; ++i) {
        padded = static_cast<unsigned char>(plain.at(plain.size() - i)) == pad;
    }
    if (!padded) {
        wipe(plain);
        return std::nullopt;
    }
    plain.chop(pad);
    return plain;
}
