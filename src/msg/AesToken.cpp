#include "msg/AesToken_p.h"

#include "core/Log_p.h"

#include <QtCore/QtEndian>

#include <cstring>
#include <limits>
#include <new>

#include <openssl/crypto.h>
#include <openssl/rand.h>

using namespace Nuvika;

namespace
{
constexpr int kBlock = 16; // of the cipher
constexpr int kWord = 4;
constexpr int kIvSize = 16;

struct CipherSpace { // its name and size() stand in the texts of assertions
    int length;
    int size() const { return length; }
};

// Room for so many bytes, in memory that stays with the array; null when there is none.
unsigned char* makeRoom(QByteArray* bytes, int size)
{
    try {
        bytes->reserve(size);
        bytes->resize(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return reinterpret_cast<unsigned char*>(bytes->data());
}
} // namespace

// --- the key ---------------------------------------------------------------------------------------------

TokenKey::TokenKey(const TokenKind& kind)
{
    TokenBytes seed = kind.seed();
    QByteArray whole
        = kind.sha256(QByteArray::fromRawData(reinterpret_cast<const char*>(seed.data()), kIvSize));
    OPENSSL_cleanse(seed.data(), seed.size());
    m_bMade = whole.size() >= size();
    if (m_bMade)
        std::memcpy(m_key.data(), whole.constData(), m_key.size());
    OPENSSL_cleanse(whole.data(), static_cast<std::size_t>(whole.size()));
}

TokenKey::~TokenKey() { OPENSSL_cleanse(m_key.data(), m_key.size()); }

// --- writing ---------------------------------------------------------------------------------------------

AesTokenWriter::AesTokenWriter(const TokenKind& kind)
    : m_kind(kind), m_key(kind), m_context(EVP_CIPHER_CTX_new())
{
    if (RAND_bytes(m_counter.data(), kIvSize) != 1)
        m_context.reset(); // no counter, no tokens
}

// The first eight bytes count, as a little-endian number.
void AesTokenWriter::advanceCounter()
{
    qToLittleEndian<quint64>(qFromLittleEndian<quint64>(m_counter.data()) + 1, m_counter.data());
}

QByteArray AesTokenWriter::failed(const char* text)
{
    NUVIKA_CRITICAL(lcMsg, "%s", text);
    return QByteArray();
}

QByteArray AesTokenWriter::encrypt(const char* data, int size)
{
    std::array<unsigned char, 4 * kWord + kIvSize> head{}; // before the cipher text
    constexpr int kMost = std::numeric_limits<int>::max() - static_cast<int>(head.size()) - 3 * kBlock;
    if (m_key.isEmpty() || !m_context || size < 0 || size > kMost)
        return QByteArray();
    unsigned char* out = head.data();
    const auto put = [&out](quint32 value) {
        qToBigEndian<quint32>(value, out);
        out += kWord;
    };
    if (m_kind.magic)
        put(*m_kind.magic);
    put(m_kind.nVersion);
    put(kIvSize);
    advanceCounter();
    std::memcpy(out, m_counter.data(), kIvSize);
    out += kIvSize;
    const auto headSize = static_cast<int>(out + kWord - head.data());
    const CipherSpace baEnc{size + 3 * kBlock};
    QByteArray token;
    unsigned char* space = makeRoom(&token, headSize + baEnc.size());
    if (space == nullptr)
        return failed(m_kind.encryptUpdateFailed);

    // The key's schedule is kept: after the first token only the IV changes.
    const EVP_CIPHER* cipher = m_bKeyed ? nullptr : aesCipher();
    const unsigned char* key = m_bKeyed ? nullptr : m_key.data();
    if (EVP_EncryptInit_ex(m_context.get(), cipher, nullptr, key, m_counter.data()) != 1)
        return failed(m_kind.encryptInitFailed);
    m_bKeyed = true;
    const auto* plain = reinterpret_cast<const unsigned char*>(data);
    unsigned char* cipherText = space + headSize;
    int updated = 0;
    int finished = 0;
    if (EVP_EncryptUpdate(m_context.get(), cipherText, &updated, plain, size) != 1) {
        m_context.reset();
        return failed(m_kind.encryptUpdateFailed);
    }
    if (EVP_EncryptFinal_ex(m_context.get(), cipherText + updated, &finished) != 1) {
        m_context.reset();
        return failed(m_kind.encryptFinalFailed);
    }
    const int nBytesEncrypted = updated + finished;
    NUVIKA_ASSERT(nBytesEncrypted <= baEnc.size());
    if (nBytesEncrypted == 0)
        return QByteArray();
    put(static_cast<quint32>(nBytesEncrypted));
    std::memcpy(space, head.data(), static_cast<std::size_t>(headSize));
    token.resize(headSize + nBytesEncrypted);
    return token;
}

// --- reading ---------------------------------------------------------------------------------------------

struct AesTokenReader::Parts {
    const unsigned char* iv;
    quint32 nIvSize;
    const unsigned char* cipherText;
    int nCipherSize;
};

AesTokenReader::AesTokenReader(const TokenKind& kind) : m_kind(kind), m_key(kind) { }

bool AesTokenReader::parse(const char* token, int size, Parts* parts) const
{
    const auto* at = reinterpret_cast<const unsigned char*>(token);
    auto left = static_cast<quint32>(size);
    const auto take = [&at, &left](quint32* value) {
        if (left < kWord)
            return false;
        *value = qFromBigEndian<quint32>(at);
        at += kWord;
        left -= kWord;
        return true;
    };
    const auto takeBytes = [&](const unsigned char** bytes, quint32* count) {
        if (!take(count))
            return false;
        if (*count == 0xFFFFFFFF) // a null array, as the stream writes it
            *count = 0;
        if (*count > left)
            return false;
        *bytes = at;
        at += *count;
        left -= *count;
        return true;
    };
    quint32 magic = 0;
    quint32 version = 0;
    quint32 cipherSize = 0;
    const bool bMagic = !m_kind.magic || (take(&magic) && magic == *m_kind.magic);
    if (!bMagic || !take(&version)) {
        NUVIKA_WARNING(lcMsg, "%s", m_kind.invalidData);
        return false;
    }
    if (version != m_kind.nVersion) {
        NUVIKA_WARNING(lcMsg, m_kind.wrongVersion, version);
        return false;
    }
    if (!takeBytes(&parts->iv, &parts->nIvSize) || !takeBytes(&parts->cipherText, &cipherSize)) {
        NUVIKA_WARNING(lcMsg, "%s", m_kind.invalidData);
        return false;
    }
    parts->nCipherSize = static_cast<int>(cipherSize);
    return true;
}

bool AesTokenReader::initialise(const Parts& parts)
{
    // Before the cipher reads its IV, whatever the token holds.
    if (parts.nIvSize != kIvSize || m_key.isEmpty()) {
        m_context.reset();
        NUVIKA_WARNING(lcMsg, "%s", m_kind.wrongSizes);
        return false;
    }
    const bool bKept = m_context != nullptr;
    if (!bKept)
        m_context.reset(EVP_CIPHER_CTX_new());
    if (!m_context || aesCipher() == nullptr
        || EVP_DecryptInit_ex(m_context.get(), bKept ? nullptr : aesCipher(), nullptr,
               bKept ? nullptr : m_key.data(), parts.iv)
            != 1) {
        m_context.reset();
        NUVIKA_CRITICAL(lcMsg, "%s", m_kind.decryptInitFailed);
        return false;
    }
    return true;
}

bool AesTokenReader::finish(const Parts& parts, QByteArray* plain)
{
    const CipherSpace baDec{parts.nCipherSize + 3 * kBlock};
    int updated = 0;
    int finished = 0;
    const char* failure = nullptr;
    unsigned char* out = makeRoom(plain, baDec.size());
    if (out == nullptr
        || EVP_DecryptUpdate(m_context.get(), out, &updated, parts.cipherText, parts.nCipherSize) != 1)
        failure = m_kind.decryptUpdateFailed;
    else if (EVP_DecryptFinal_ex(m_context.get(), out + updated, &finished) != 1)
        failure = m_kind.decryptFinalFailed;
    if (failure != nullptr) {
        m_context.reset();
        plain->resize(0);
        NUVIKA_WARNING(lcMsg, "%s", failure);
        return false;
    }
    const int nBytesDecrypted = updated + finished;
    NUVIKA_ASSERT(nBytesDecrypted <= baDec.size());
    plain->resize(nBytesDecrypted);
    return true;
}

bool AesTokenReader::decrypt(const char* token, int size, QByteArray* plain)
{
    Parts parts{};
    plain->resize(0);
    return parse(token, size, &parts) && initialise(parts) && finish(parts, plain);
}
