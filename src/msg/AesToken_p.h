// Private: encryption tokens, which frames and password strings carry.
//
//     [magic] version | 16 | IV (16 bytes) | N | cipher text (N bytes)      integers big-endian
//
// The key is one for the whole system, made of a fixed seed: it keeps a text from a casual reader, no more.
#pragma once

#include "msg/Crypto_p.h"

#include <QtCore/QtGlobal>

#include <array>
#include <cstddef>
#include <optional>
#include <tuple>

namespace Nuvika
{
using TokenBytes = std::array<unsigned char, 16>; // a seed, a key, an IV

// A seed written byte by byte by the running code: it lies in no data and no name of the program.
template <class... Bytes>
TokenBytes assembleSeed(Bytes... bytes)
{
    static_assert(sizeof...(bytes) == std::tuple_size_v<TokenBytes>);
    TokenBytes seed{};
    std::size_t at = 0;
    volatile unsigned char byte = 0; // or the compiler would put the bytes together again
    ((byte = static_cast<unsigned char>(bytes), seed[at++] = byte), ...);
    return seed;
}

// What differs between the kinds of token.
struct TokenKind {
    TokenBytes (*seed)(); // assembled anew by each call
    QByteArray (*sha256)(const QByteArray&); // 32 bytes, or nothing behind a record of its own
    std::optional<quint32> magic;
    quint32 nVersion;
    // Encrypting; critical.
    const char* encryptInitFailed;
    const char* encryptUpdateFailed;
    const char* encryptFinalFailed;
    // Decrypting; critical the first, warnings the others.
    const char* decryptInitFailed;
    const char* invalidData;
    const char* wrongVersion; // with a place for the version
    const char* wrongSizes;
    const char* decryptUpdateFailed;
    const char* decryptFinalFailed;
};

// The cipher key of a kind, wiped with its object.
class TokenKey
{
public:
    explicit TokenKey(const TokenKind& kind);
    ~TokenKey();
    TokenKey(const TokenKey&) = delete;
    TokenKey& operator=(const TokenKey&) = delete;

    bool isEmpty() const { return !m_bMade; }
    const unsigned char* data() const { return m_key.data(); }
    int size() const { return static_cast<int>(m_key.size()); }

private:
    TokenBytes m_key{};
    bool m_bMade = false;
};

// Makes tokens whose IVs count up from a random start. A cipher that fails in its work silences it for good.
class AesTokenWriter
{
public:
    explicit AesTokenWriter(const TokenKind& kind);

    // Empty behind a record when it cannot be made.
    QByteArray encrypt(const char* data, int size);

private:
    void advanceCounter();
    static QByteArray failed(const char* text);

    const TokenKind& m_kind;
    TokenKey m_key;
    CipherContext m_context; // keeps the key's schedule from token to token
    bool m_bKeyed = false;
    TokenBytes m_counter{};
};

// Reads tokens. A bad one does not spoil the next.
class AesTokenReader
{
public:
    explicit AesTokenReader(const TokenKind& kind);

    // Into \a plain, whose memory is used again; false, with nothing in it, behind a record when it cannot be
    // read.
    bool decrypt(const char* token, int size, QByteArray* plain);

private:
    struct Parts;

    bool parse(const char* token, int size, Parts* parts) const;
    bool initialise(const Parts& parts);
    bool finish(const Parts& parts, QByteArray* plain);

    const TokenKind& m_kind;
    TokenKey m_key;
    CipherContext m_context; // made on demand, given up after a failure
};
} // namespace Nuvika
