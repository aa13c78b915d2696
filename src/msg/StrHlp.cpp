#include <KepNuvikaUtil/StrHlp.h>

#include "core/Log_p.h"
#include "msg/PasswordEncryptionHelper_p.h"

#include <QtCore/QDataStream>
#include <QtCore/QtEndian>

#include <algorithm>

namespace
{
constexpr quint32 kMarker = 0xFFB0B80B;
constexpr int kMarkerLength = 8; // characters
constexpr int kWrapperLength = 24; // marker, length and size of the token

// A function, so that other static initialisers may use it.
const QString& marker()
{
    static const QString text = QStringLiteral("FFB0B80B");
    return text;
}
[[maybe_unused]] const QString& s_madeAtLoad = marker();

// The big-endian number in eight hex digits from there on; 0 when there are fewer.
quint32 numberAt(const QStringRef& s, int from)
{
    const QByteArray bytes = QByteArray::fromHex(s.mid(from, 8).toLatin1());
    return bytes.size() == 4 ? qFromBigEndian<quint32>(bytes.constData()) : 0;
}

bool readToken(const QStringRef& s, QByteArray* token)
{
    // The announced size first: what does not hold it is not decoded at all.
    if (s.size() < kWrapperLength || numberAt(s, 2 * kMarkerLength) > static_cast<quint32>(s.size()) / 2)
        return false;
    const QByteArray bytes = QByteArray::fromHex(s.toLatin1());
    QDataStream stream(bytes);
    quint32 mark = 0;
    quint32 length = 0;
    stream >> mark >> length >> *token;
    return stream.status() == QDataStream::Ok;
}
} // namespace

QString StrHlp::toHex(const QString& text)
{
    if (text.isEmpty())
        return QString();
    const QByteArray token = PwdEncrypter().encrypt(text.toUtf8());
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << kMarker << static_cast<quint32>(kWrapperLength + 2 * token.size())
           << static_cast<quint32>(token.size());
    stream.writeRawData(token.constData(), token.size());
    return QString::fromLatin1(bytes.toHex());
}

QString StrHlp::fromHex(const QString& s) { return fromHex(QStringRef(&s)); }

QString StrHlp::fromHex(const QStringRef& s)
{
    if (!hasMk(s))
        return s.toString();
    QByteArray token;
    if (!readToken(s, &token)) {
        NUVIKA_WARNING(lcMsg, "StrHlp::fromHex(): invalid input data");
        return QString();
    }
    const QByteArray plain = PwdDecrypter().decrypt(token);
    return plain.isEmpty() ? s.toString() : QString::fromUtf8(plain.constData(), plain.size());
}

// A plain text is shorter than its wrapper: it is laid over the wrapper's end and read on from there, so
// nothing behind it moves, and time stays linear.
QString StrHlp::fromHexAll(const QString& s)
{
    int from = indexOfMk(s, 0);
    if (from < 0)
        return s;
    QString work = s;
    QString out = s.left(from);
    for (int next = from; next >= 0; next = indexOfMk(work, from)) {
        out += QStringRef(&work, from, next - from);
        from = next;
        const int length = getLength(work, from);
        if (length <= 0)
            NUVIKA_WARNING(lcMsg, "StrHlp::fromHex(): invalid input data");
        const QStringRef marked = QStringRef(&work).mid(from, length > 0 ? length : 0);
        const QString plain = fromHex(marked);
        if (!plain.isEmpty() && marked != plain) {
            from += marked.size() - plain.size();
            work.replace(from, plain.size(), plain);
        } else { // stays, and the search goes on behind the marker
            out += QStringRef(&work, from, kMarkerLength);
            from += kMarkerLength;
        }
    }
    return out + QStringRef(&work).mid(from);
}

bool StrHlp::hasMk(const QString& s) { return hasMk(QStringRef(&s)); }

bool StrHlp::hasMk(const QStringRef& s) { return s.startsWith(marker(), Qt::CaseInsensitive); }

bool StrHlp::containsMk(const QString& s) { return indexOfMk(s, 0) >= 0; }

// Horspool's search: texts without a marker, the usual ones, are passed over in steps of its length.
int StrHlp::indexOfMk(const QString& s, int from)
{
    const QChar* text = s.constData();
    for (int at = from < 0 ? std::max(from + s.size(), 0) : from; at <= s.size() - kMarkerLength;) {
        switch (text[at + kMarkerLength - 1].unicode()) {
        case 'B':
        case 'b':
            if (hasMk(QStringRef(&s, at, kMarkerLength)))
                return at;
            at += 3;
            break;
        case '0':
            at += 1;
            break;
        case '8':
            at += 2;
            break;
        case 'F':
        case 'f':
            at += 6;
            break;
        default:
            at += kMarkerLength;
        }
    }
    return -1;
}

int StrHlp::getLength(const QStringRef& s)
{
    return hasMk(s) ? static_cast<int>(numberAt(s, kMarkerLength)) : 0;
}

int StrHlp::getLength(const QString& s, int from) { return getLength(QStringRef(&s).mid(from)); }
