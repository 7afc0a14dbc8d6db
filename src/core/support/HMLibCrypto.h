// The few functions of the system's libcrypto that the keyring session needs, loaded the
// first time a session opens instead of linked.
//
// Loading libcrypto costs 1.7 MiB resident, which a signed-out application would pay for
// nothing; a signed-in one maps it for its TLS requests anyway, so the keyring's arithmetic
// then comes almost free. (libgcrypt, which systemd's library maps, brings 0.6 MiB of its
// own code into memory once used.) The members are named after the functions they hold and
// typed from the library's own headers, so a call reads as the library's documentation.
//
// Used by HMSecretServiceSession, from whichever thread opens a session.
#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

struct HMLibCrypto
{
    // Null when the library or one of the functions is missing.
    static const HMLibCrypto *instance();

    decltype(&::BN_CTX_new) BN_CTX_new = nullptr;
    decltype(&::BN_CTX_free) BN_CTX_free = nullptr;
    decltype(&::BN_bin2bn) BN_bin2bn = nullptr;
    decltype(&::BN_bn2binpad) BN_bn2binpad = nullptr;
    decltype(&::BN_clear_free) BN_clear_free = nullptr;
    decltype(&::BN_set_flags) BN_set_flags = nullptr;
    decltype(&::BN_cmp) BN_cmp = nullptr;
    decltype(&::BN_mod_exp) BN_mod_exp = nullptr;
    decltype(&::RAND_priv_bytes) RAND_priv_bytes = nullptr;
    decltype(&::RAND_bytes) RAND_bytes = nullptr;
    decltype(&::EVP_sha256) EVP_sha256 = nullptr;
    decltype(&::HMAC) HMAC = nullptr;
    decltype(&::EVP_aes_128_cbc) EVP_aes_128_cbc = nullptr;
    decltype(&::EVP_CIPHER_CTX_new) EVP_CIPHER_CTX_new = nullptr;
    decltype(&::EVP_CIPHER_CTX_free) EVP_CIPHER_CTX_free = nullptr;
    decltype(&::EVP_CIPHER_CTX_set_padding) EVP_CIPHER_CTX_set_padding = nullptr;
    decltype(&::EVP_CipherInit_ex) EVP_CipherInit_ex = nullptr;
    decltype(&::EVP_CipherUpdate) EVP_CipherUpdate = nullptr;
    decltype(&::EVP_CipherFinal_ex) EVP_CipherFinal_ex = nullptr;
};
