#include "msg/MarkedString_p.h"

#include "msg/HexDigits_p.h"
#include "msg/PasswordEncryptionHelper_p.h"

#include <QtCore/QtEndian>

#include <algorithm>
#include <array>

using namespace Nuvika;

namespace
{
constexpr quint32 kNullArray = 0xFFFFFFFF; // as the stream writes its size
constexpr quint32 kBlock = 16; // of the cipher; an IV is as long
constexpr quint32 kIvSizeAt = 4; // places within the token
constexpr quint32 kIvAt = 8;
constexpr quint32 kCipherSizeAt = 24;
constexpr quint32 kHead = 28;
constexpr quint32 kShort = 64; // tokens that are read without asking first

quint32 wordAt(const QByteArray& bytes, quint32 at)
{
    return qFromBigEndian<quint32>(bytes.constData() + at);
}

// Qt takes a leading U+FEFF for a mark of the byte order: it gets one to take.
QString fromUtf8(const QByteArray& bytes) { return QString::fromUtf8("\xEF\xBB\xBF" + bytes); }
} // namespace

MarkedString::MarkedString(QStringView text) : m_text(text), m_nToken(numberAt(2 * kMarkerLength))
{
    if (m_nToken == kNullArray)
        m_nToken = 0;
}

// The big-endian number in eight digits from there on; 0 when there are fewer.
quint32 MarkedString::numberAt(int place) const
{
    std::array<char, 4> bytes{};
    if (m_text.size() < place + 8 || decodeHex(m_text.mid(place, 8), bytes.data()) >= 0)
        return 0;
    return qFromBigEndian<quint32>(bytes.data());
}

// Adds bytes of the token.
bool MarkedString::decode(quint32 from, quint32 count, QByteArray* bytes, int* badPlace) const
{
    const int place = kWrapperLength + 2 * static_cast<int>(from);
    const int before = bytes->size();
    bytes->resize(before + static_cast<int>(count));
    const int bad = decodeHex(m_text.mid(place, 2 * static_cast<int>(count)), bytes->data() + before);
    if (bad >= 0)
        *badPlace = place + bad;
    return bad < 0;
}

MarkedString::Result MarkedString::read(PwdDecrypter& decrypter, QString* plain, int* badPlace) const
{
    *badPlace = -1;
    std::array<char, kWrapperLength / 2> wrapper{};
    if (m_text.size() < coverage() || decodeHex(m_text.left(kWrapperLength), wrapper.data()) >= 0)
        return eDamaged;
    QByteArray token;
    if (!decode(0, std::min(m_nToken, kShort), &token, badPlace))
        return eDamaged;
    if (m_nToken > kShort && wordAt(token, kIvSizeAt) == kBlock) {
        const quint32 cipher = wordAt(token, kCipherSizeAt);
        Result result = eRead;
        if (cipher > kShort - kHead && cipher <= m_nToken - kHead
            && !decodeLong(cipher, decrypter, &token, &result, badPlace))
            return result;
    }
    const QByteArray bytes = decrypter.decrypt(token);
    *plain = fromUtf8(bytes);
    return bytes.isEmpty() ? eNotRead : eRead;
}

// The last block is a token of its own, whose IV is the block before it.
bool MarkedString::decodeLong(
    quint32 cipher, PwdDecrypter& decrypter, QByteArray* token, Result* result, int* bad) const
{
    const quint32 last = kBlock + cipher % kBlock; // one that is not whole is refused as in the token
    QByteArray probe = token->left(kIvAt);
    QByteArray size(4, '\0');
    qToBigEndian(last, size.data());
    *result = eDamaged;
    if (!decode(kHead + cipher - last - kBlock, kBlock, &probe, bad)
        || !decode(kHead + cipher - last, last, &(probe += size), bad))
        return false;
    *result = eNotRead;
    if (!decrypter.canDecrypt(probe))
        return false;
    *result = eDamaged;
    return decode(kShort, kHead + cipher - kShort, token, bad);
}
