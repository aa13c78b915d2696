#include "msg/PasswordEncryptionHelper_p.h"

#include "msg/CryptoUtil_p.h"

using namespace Nuvika;

namespace
{
// Each byte by itself, so that the seed stands nowhere whole.
TokenBytes passwordSeed()
{
    TokenBytes seed;
    volatile unsigned char* byte = seed.data();
    byte[0] = 0xA9;
    byte[1] = 0x1F;
    byte[2] = 0x74;
    byte[3] = 0xC2;
    byte[4] = 0x0E;
    byte[5] = 0x58;
    byte[6] = 0xBD;
    byte[7] = 0x63;
    byte[8] = 0xF0;
    byte[9] = 0x2B;
    byte[10] = 0x97;
    byte[11] = 0x4C;
    byte[12] = 0xE5;
    byte[13] = 0x81;
    byte[14] = 0x3A;
    byte[15] = 0xD6;
    return seed;
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
