// Private: one marked hex string, read in place.
//
//     FFB0B80B | length | size of the token | version | 16 | IV | N | N bytes of cipher text | anything
//
// Whether a long token can be read is asked of its last block, whose padding tells: a text of strangers, in
// which they overlap, makes us look at each of its characters a few times only.
#pragma once

#include <QtCore/QString>
#include <QtCore/QStringView>

class PwdDecrypter;

namespace Nuvika
{
class MarkedString
{
public:
    static constexpr int kMarkerLength = 8; // characters

    // From the marker on.
    explicit MarkedString(QStringView text);

    // The length field, which may be negative; 0 when there is none.
    int length() const { return static_cast<int>(numberAt(kMarkerLength)); }
    // How many characters the token takes it to have: all of them digits.
    qint64 coverage() const { return kWrapperLength + 2 * qint64(m_nToken); }

    // eDamaged: no token; nothing was told. eNotRead: behind a record of the decrypter, or an empty text.
    enum Result { eRead, eNotRead, eDamaged };
    // \a badPlace becomes that of a character that should be a digit, when one was met, else -1.
    Result read(PwdDecrypter& decrypter, QString* plain, int* badPlace) const;

private:
    static constexpr int kWrapperLength = 24; // marker, length and size of the token

    quint32 numberAt(int place) const;
    bool decode(quint32 from, quint32 count, QByteArray* bytes, int* badPlace) const;
    bool decodeLong(
        quint32 cipher, PwdDecrypter& decrypter, QByteArray* token, Result* result, int* bad) const;

    QStringView m_text;
    quint32 m_nToken; // bytes
};
} // namespace Nuvika
