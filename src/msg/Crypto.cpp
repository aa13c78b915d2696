#include "msg/Crypto_p.h"

#include "core/Log_p.h"

using namespace Nuvika;

namespace
{
// Fetched on first use, and freed before OpenSSL ends itself.
struct Algorithms {
    EVP_CIPHER* aes = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    EVP_MD* sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);

    Algorithms() = default;
    ~Algorithms()
    {
        EVP_CIPHER_free(aes);
        EVP_MD_free(sha1);
        EVP_MD_free(sha256);
    }
    Algorithms(const Algorithms&) = delete;
    Algorithms& operator=(const Algorithms&) = delete;
};

const Algorithms& algorithms()
{
    static const Algorithms instance;
    return instance;
}
} // namespace

const EVP_CIPHER* Nuvika::aesCipher() { return algorithms().aes; }
const EVP_MD* Nuvika::sha1Digest() { return algorithms().sha1; }
const EVP_MD* Nuvika::sha256Digest() { return algorithms().sha256; }

QByteArray Nuvika::digest(
    const EVP_MD* algorithm, const void* data, std::size_t size, const DigestTexts& texts)
{
    const DigestContext context(EVP_MD_CTX_new());
    QByteArray result(EVP_MAX_MD_SIZE, '\0');
    unsigned int length = 0;
    const char* failure = nullptr;
    if (algorithm == nullptr || context == nullptr
        || EVP_DigestInit_ex(context.get(), algorithm, nullptr) != 1)
        failure = texts.initFailed;
    else if (EVP_DigestUpdate(context.get(), data, size) != 1)
        failure = texts.updateFailed;
    else if (EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char*>(result.data()), &length) != 1)
        failure = texts.finalFailed;
    if (failure != nullptr) {
        NUVIKA_CRITICAL(lcMsg, "%s", failure);
        return QByteArray();
    }
    result.resize(static_cast<int>(length));
    return result;
}
