#include "msg/BufferSocketCrypto_p.h"

using namespace Nuvika;

namespace
{
TokenBytes frameSeed()
{
    return assembleSeed(
        0x5C, 0xE1, 0x07, 0x9A, 0x33, 0xB8, 0x4F, 0xD2, 0x16, 0x6D, 0xA4, 0x80, 0xFB, 0x29, 0xC7, 0x5E);
}

QByteArray frameDigest(const QByteArray& seed)
{
    // The stray "1" has always been part of that text.
    constexpr DigestTexts kTexts{"sha256: EVP_DigestInit_ex failed", "sha2561: EVP_DigestUpdate failed",
        "sha256: EVP_DigestFinal_ex failed"};
    return digest(sha256Digest(), seed.constData(), static_cast<std::size_t>(seed.size()), kTexts);
}

constexpr TokenKind kFrameToken{&frameSeed, &frameDigest, 0x63566658, 17,
    "BufferSocketEncrypter::encrypt(): EVP_EncryptInit_ex failed",
    "BufferSocketEncrypter::encrypt(): EVP_EncryptUpdate failed",
    "BufferSocketEncrypter::encrypt(): EVP_EncryptFinal_ex failed",
    "BufferSocketDecrypter::decrypt(): EVP_DecryptInit_ex failed",
    "BufferSocketDecrypter::decrypt(): invalid input data",
    "BufferSocketDecrypter::decrypt(): crypto token version %u not supported in this release",
    "BufferSocketDecrypter::decrypt(): invalid input data, key size mismatch",
    "BufferSocketDecrypter::decrypt(): EVP_DecryptUpdate failed",
    "BufferSocketDecrypter::decrypt(): EVP_DecryptFinal_ex failed"};
} // namespace

BufferSocketEncrypter::BufferSocketEncrypter() : AesTokenWriter(kFrameToken) { }

BufferSocketDecrypter::BufferSocketDecrypter() : AesTokenReader(kFrameToken) { }
