#include "msg/PasswordEncryptionHelper_p.h"

#include "msg/CryptoUtil_p.h"

using namespace Nuvika;

namespace
{
TokenBytes passwordSeed()
{
    return assembleSeed(
        0xA9, 0x1F, 0x74, 0xC2, 0x0E, 0x58, 0xBD, 0x63, 0xF0, 0x2B, 0x97, 0x4C, 0xE5, 0x81, 0x3A, 0xD6);
}

QByteArray passwordDigest(const QByteArray& seed) { return CryptoUtil::sha256(seed); }

constexpr TokenKind kPasswordToken{&passwordSeed, &passwordDigest, std::nullopt, 0xFFFEEFEF,
    "PwdEncrypter::encrypt(): EVP_EncryptInit_ex failed", "PwdEncrypter::encrypt(): EVP_EncryptUpdate failed",
    "PwdEncrypter::encrypt(): EVP_EncryptFinal_ex failed",
    "PwdDecrypter::decrypt(): EVP_DecryptInit_ex failed", "PwdDecrypter::decrypt(): invalid input data",
    "PwdDecrypter::decrypt(): crypto token version %u not supported in this release",
    "PwdDecrypter::decrypt(): invalid input data, key size mismatch",
    "PwdDecrypter::decrypt(): EVP_DecryptUpdate failed",
    "PwdDecrypter::decrypt(): EVP_DecryptFinal_ex failed"};
} // namespace

PwdEncrypter::PwdEncrypter() : m_writer(kPasswordToken) { }

PwdDecrypter::PwdDecrypter() : m_reader(kPasswordToken) { }
