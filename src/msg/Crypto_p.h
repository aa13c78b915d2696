// Private: what the room takes from OpenSSL, fetched once for the process and owned by RAII.
#pragma once

#include <QtCore/QByteArray>

#include <memory>

#include <openssl/evp.h>

namespace Nuvika
{
struct FreeCipherContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
struct FreeDigestContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipherContext>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeDigestContext>;

// AES-128-CBC with standard padding: the one mode of frames and passwords.
const EVP_CIPHER* aesCipher();
const EVP_MD* sha1Digest();
const EVP_MD* sha256Digest();

// Critical records for the three steps that may fail.
struct DigestTexts {
    const char* initFailed;
    const char* updateFailed;
    const char* finalFailed;
};
// The digest, or nothing behind a record.
QByteArray digest(const EVP_MD* algorithm, const void* data, std::size_t size, const DigestTexts& texts);
} // namespace Nuvika
