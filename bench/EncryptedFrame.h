// Encrypted frames by plain EVP calls, with the key that every copy of the library has.
#pragma once

#include "Messages.h"

#include <openssl/evp.h>

namespace bench
{
struct FrameKey {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    FrameKey()
    {
        static const unsigned char kSeed[16] = {
            0x5C, 0xE1, 0x07, 0x9A, 0x33, 0xB8, 0x4F, 0xD2, 0x16, 0x6D, 0xA4, 0x80, 0xFB, 0x29, 0xC7, 0x5E};
        unsigned int size = 0;
        EVP_Digest(kSeed, sizeof kSeed, bytes, &size, EVP_sha256(), nullptr);
    }
};

inline std::string encryptedFrame()
{
    const FrameKey key;
    const std::string iv(16, 'i');
    const std::string plain(kMessageSize, 'm');
    unsigned char cipher[kMessageSize + 32];
    int size = 0;
    int rest = 0;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(
        context, EVP_aes_128_cbc(), nullptr, key.bytes, reinterpret_cast<const unsigned char*>(iv.data()));
    EVP_EncryptUpdate(
        context, cipher, &size, reinterpret_cast<const unsigned char*>(plain.data()), kMessageSize);
    EVP_EncryptFinal_ex(context, cipher + size, &rest);
    EVP_CIPHER_CTX_free(context);
    const auto whole = static_cast<unsigned int>(size + rest);
    const std::string token = "cVfX" + bigEndian(17) + bigEndian(16) + iv + bigEndian(whole)
        + std::string(reinterpret_cast<const char*>(cipher), whole);
    return "GEUD" + bigEndian(static_cast<unsigned int>(token.size())) + token;
}
} // namespace bench
