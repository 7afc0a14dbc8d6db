#include "HMLibCrypto.h"

#include "HMLog.h"

#include <QString>
#include <dlfcn.h>
#include <optional>

namespace {

template <typename Function> bool resolve(void *library, const char *name, Function &function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

std::optional<HMLibCrypto> load()
{
    // Never closed: the TLS stack shares it, and unloading it would gain nothing.
    void *library = dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        HMLogError(
            QStringLiteral("Cannot load libcrypto: %1").arg(QString::fromLocal8Bit(dlerror())));
        return std::nullopt;
    }
    HMLibCrypto c;
    const bool complete =
        resolve(library, "BN_CTX_new", c.BN_CTX_new) &&
        resolve(library, "BN_CTX_free", c.BN_CTX_free) &&
        resolve(library, "BN_bin2bn", c.BN_bin2bn) &&
        resolve(library, "BN_bn2binpad", c.BN_bn2binpad) &&
        resolve(library, "BN_clear_free", c.BN_clear_free) &&
        resolve(library, "BN_set_flags", c.BN_set_flags) && resolve(library, "BN_cmp", c.BN_cmp) &&
        resolve(library, "BN_mod_exp", c.BN_mod_exp) &&
        resolve(library, "RAND_priv_bytes", c.RAND_priv_bytes) &&
        resolve(library, "RAND_bytes", c.RAND_bytes) &&
        resolve(library, "EVP_sha256", c.EVP_sha256) && resolve(library, "HMAC", c.HMAC) &&
        resolve(library, "EVP_aes_128_cbc", c.EVP_aes_128_cbc) &&
        resolve(library, "EVP_CIPHER_CTX_new", c.EVP_CIPHER_CTX_new) &&
        resolve(library, "EVP_CIPHER_CTX_free", c.EVP_CIPHER_CTX_free) &&
        resolve(library, "EVP_CIPHER_CTX_set_padding", c.EVP_CIPHER_CTX_set_padding) &&
        resolve(library, "EVP_CipherInit_ex", c.EVP_CipherInit_ex) &&
        resolve(library, "EVP_CipherUpdate", c.EVP_CipherUpdate) &&
        resolve(library, "EVP_CipherFinal_ex", c.EVP_CipherFinal_ex);
    if (!complete) {
        HMLogError(QStringLiteral("libcrypto lacks a function the keyring needs: %1")
                       .arg(QString::fromLocal8Bit(dlerror())));
        return std::nullopt;
    }
    return c;
}

} // namespace

const HMLibCrypto *HMLibCrypto::instance()
{
    static const std::optional<HMLibCrypto> loaded = load();
    return loaded ? &*loaded : nullptr;
}
