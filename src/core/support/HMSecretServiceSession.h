// One session with the desktop's Secret Service, through which secrets cross the bus.
//
// The session is negotiated as the desktop's own clients do: a Diffie-Hellman exchange over
// the 1024-bit IETF group, HKDF-SHA256 to a 128-bit key, and AES-CBC with PKCS#7 padding
// for each secret, so a bus monitor or a logged bus dump never holds a password in the
// clear. A service that does not offer that algorithm is met with "plain", as the protocol
// allows. The arithmetic is the system libcrypto's, loaded when the first session opens.
//
// Used by HMSecretServiceKeychain on whichever thread makes the call; the session closes
// when the object goes.
#pragma once

#include "HMError.h"

#include <QByteArray>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QString>
#include <memory>
#include <optional>

// The protocol's secret structure, (oayays).
struct HMServiceSecret
{
    QDBusObjectPath session;
    QByteArray parameters;
    QByteArray value;
    QString contentType;
};
Q_DECLARE_METATYPE(HMServiceSecret)

QDBusArgument &operator<<(QDBusArgument &argument, const HMServiceSecret &secret);
const QDBusArgument &operator>>(const QDBusArgument &argument, HMServiceSecret &secret);

class HMSecretServiceSession
{
public:
    static const QString kEncryptedAlgorithm; // "dh-ietf1024-sha256-aes128-cbc-pkcs7"

    // The keychain's own connection to the session bus. Qt holds back signals on the shared
    // connection until the main thread's event loop first runs, and a prompt's answer is a
    // signal that a keychain call made before then, or from another thread, must receive.
    static QDBusConnection bus();

    // Opens a session on the session bus; null with `error` set when the service cannot be
    // reached or refuses both algorithms.
    static std::unique_ptr<HMSecretServiceSession> open(HMMaybeError *error);
    ~HMSecretServiceSession();
    HMSecretServiceSession(const HMSecretServiceSession &) = delete;
    HMSecretServiceSession &operator=(const HMSecretServiceSession &) = delete;

    const QDBusObjectPath &path() const { return m_path; }
    bool isEncrypted() const { return !m_key.isEmpty(); }
    HMServiceSecret encode(const QByteArray &plain) const;
    // Null when the secret was not made for this session or does not decrypt.
    std::optional<QByteArray> decode(const HMServiceSecret &secret) const;

    // The key agreement, apart from the bus so that it can be checked against known values:
    // the shared key for our private exponent and the service's public value, or empty when
    // that value is out of range.
    static QByteArray agreedKey(const QByteArray &privateExponent, const QByteArray &peerPublic);

private:
    HMSecretServiceSession(QDBusObjectPath path, QByteArray key);

    QDBusObjectPath m_path;
    QByteArray m_key; // empty for a plain session
};
