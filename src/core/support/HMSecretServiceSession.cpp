#include "HMSecretServiceSession.h"

#include "HMSecretServiceKeychain.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <cstring>
#include <gcrypt.h>
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

// libgcrypt wants one initialisation per process; another library may have done it.
bool cryptoReady()
{
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] {
        if (!gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) {
            if (!gcry_check_version(GCRYPT_VERSION)) {
                return;
            }
            // Locked memory needs a privilege a desktop user lacks; our buffers are wiped.
            gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
            gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        }
        ready = true;
    });
    return ready;
}

// Owns one big number: released once, however it was made.
struct Mpi
{
    gcry_mpi_t value = nullptr;
    explicit Mpi(gcry_mpi_t v = nullptr) : value(v) {}
    Mpi(Mpi &&other) noexcept : value(std::exchange(other.value, nullptr)) {}
    Mpi(const Mpi &) = delete;
    Mpi &operator=(const Mpi &) = delete;
    Mpi &operator=(Mpi &&) = delete;
    ~Mpi() { gcry_mpi_release(value); }
    static Mpi scan(const QByteArray &bytes)
    {
        Mpi mpi;
        if (gcry_mpi_scan(&mpi.value, GCRYMPI_FMT_USG, bytes.constData(), size_t(bytes.size()),
                          nullptr) != 0) {
            mpi.value = nullptr;
        }
        return mpi;
    }
    QByteArray bytes(int padTo = 0) const
    {
        size_t length = 0;
        gcry_mpi_print(GCRYMPI_FMT_USG, nullptr, 0, &length, value);
        QByteArray out(std::max<qsizetype>(qsizetype(length), padTo), '\0');
        gcry_mpi_print(GCRYMPI_FMT_USG,
                       reinterpret_cast<unsigned char *>(out.data()) +
                           (out.size() - qsizetype(length)),
                       length, &length, value);
        return out;
    }
};

Mpi groupPrime()
{
    return Mpi::scan(QByteArray::fromRawData(reinterpret_cast<const char *>(kPrime), kPrimeBytes));
}

QByteArray hmacSha256(const QByteArray &key, const QByteArray &message)
{
    gcry_md_hd_t md = nullptr;
    if (gcry_md_open(&md, GCRY_MD_SHA256, GCRY_MD_FLAG_HMAC) != 0) {
        return {};
    }
    QByteArray out;
    if (gcry_md_setkey(md, key.constData(), size_t(key.size())) == 0) {
        gcry_md_write(md, message.constData(), size_t(message.size()));
        out = QByteArray(reinterpret_cast<const char *>(gcry_md_read(md, GCRY_MD_SHA256)), 32);
    }
    gcry_md_close(md);
    return out;
}

QByteArray aes(const QByteArray &key, const QByteArray &iv, const QByteArray &data, bool encrypt)
{
    gcry_cipher_hd_t cipher = nullptr;
    if (gcry_cipher_open(&cipher, GCRY_CIPHER_AES128, GCRY_CIPHER_MODE_CBC, 0) != 0) {
        return {};
    }
    QByteArray out(data.size(), '\0');
    const bool ok = gcry_cipher_setkey(cipher, key.constData(), size_t(key.size())) == 0 &&
                    gcry_cipher_setiv(cipher, iv.constData(), size_t(iv.size())) == 0 &&
                    (encrypt ? gcry_cipher_encrypt(cipher, out.data(), size_t(out.size()),
                                                   data.constData(), size_t(data.size()))
                             : gcry_cipher_decrypt(cipher, out.data(), size_t(out.size()),
                                                   data.constData(), size_t(data.size()))) == 0;
    gcry_cipher_close(cipher);
    if (!ok) {
        wipe(out);
    }
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
    if (!cryptoReady()) {
        return {};
    }
    const Mpi prime = groupPrime();
    const Mpi exponent = Mpi::scan(privateExponent);
    const Mpi peer = Mpi::scan(peerPublic);
    if (!prime.value || !exponent.value || !peer.value) {
        return {};
    }
    // 1 < y < p - 1: the values that would pin the shared secret to 1 or -1 are refused.
    const Mpi upper(gcry_mpi_new(0));
    gcry_mpi_sub_ui(upper.value, prime.value, 1);
    if (gcry_mpi_cmp_ui(peer.value, 1) <= 0 || gcry_mpi_cmp(peer.value, upper.value) >= 0) {
        return {};
    }
    const Mpi shared(gcry_mpi_snew(1024));
    gcry_mpi_powm(shared.value, peer.value, exponent.value, prime.value);
    // The secret is the full width of the prime, leading zeros kept, as the services take it.
    QByteArray material = shared.bytes(kPrimeBytes);
    // HKDF-SHA256 with no salt and no info: extract, then the first block of expand.
    QByteArray pseudoRandom = hmacSha256(QByteArray(32, '\0'), material);
    QByteArray key = hmacSha256(pseudoRandom, QByteArray(1, '\x01')).left(kKeyBytes);
    wipe(material);
    wipe(pseudoRandom);
    return key;
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
    if (cryptoReady()) {
        // Below 2^1023, so below the prime; zero is all but impossible and refused anyway.
        gcry_randomize(exponent.data(), size_t(exponent.size()), GCRY_STRONG_RANDOM);
        exponent[0] = char(exponent[0] & 0x7F);
        const Mpi prime = groupPrime();
        const Mpi secret = Mpi::scan(exponent);
        const Mpi generator(gcry_mpi_set_ui(nullptr, 2));
        const Mpi ours(gcry_mpi_new(1024));
        gcry_mpi_powm(ours.value, generator.value, secret.value, prime.value);
        const QDBusMessage reply =
            serviceCall(QStringLiteral("OpenSession"),
                        {kEncryptedAlgorithm, QVariant::fromValue(QDBusVariant(ours.bytes()))});
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
    secret.parameters = QByteArray(kBlock, '\0');
    gcry_create_nonce(secret.parameters.data(), kBlock);
    QByteArray padded = plain;
    const int pad = kBlock - int(plain.size() % kBlock);
    padded.append(QByteArray(pad, char(pad)));
    secret.value = aes(m_key, secret.parameters, padded, true);
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
    QByteArray plain = aes(m_key, secret.parameters, secret.value, false);
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
