#include <KepNuvikaUtil/StrHlp.h>

#include "core/Log_p.h"
#include "msg/MarkedString_p.h"
#include "msg/PasswordEncryptionHelper_p.h"

#include <QtCore/QDataStream>

#include <algorithm>
#include <vector>

using namespace Nuvika;

namespace
{
constexpr quint32 kMarker = 0xFFB0B80B;
constexpr int kMarkerLength = MarkedString::kMarkerLength;
constexpr int kWrapperLength = 24; // marker, length and size of the token

// A function, so that other static initialisers may use it.
const QString& marker()
{
    static const QString text = QStringLiteral("FFB0B80B");
    return text;
}
[[maybe_unused]] const QString& s_madeAtLoad = marker();

void warnOfInvalidData() { NUVIKA_WARNING(lcMsg, "StrHlp::fromHex(): invalid input data"); }

// Replaces the marked strings of a text. A plain text is shorter than its wrapper: it is laid over the
// wrapper's end and read on from there, so nothing behind it moves, and time stays linear.
class MarkedText
{
public:
    explicit MarkedText(const QString& text) : m_text(text) { }

    QString decoded(int next)
    {
        QString out;
        for (; next >= 0; next = StrHlp::indexOfMk(m_text, m_at)) {
            out += QStringRef(&m_text, m_at, next - m_at);
            m_at = next;
            if (!replaceMarked()) { // it stays, and the search goes on behind the marker
                out += QStringRef(&m_text, m_at, kMarkerLength);
                m_at += kMarkerLength;
            }
        }
        return out + QStringRef(&m_text).mid(m_at);
    }

private:
    bool replaceMarked()
    {
        const QStringView rest = QStringView(m_text).mid(m_at);
        const int size = std::min(MarkedString(rest).length(), static_cast<int>(rest.size()));
        QString plain;
        const MarkedString::Result result
            = size > 0 ? read(MarkedString(rest.left(size)), &plain) : MarkedString::eDamaged;
        if (result == MarkedString::eDamaged)
            warnOfInvalidData();
        if (result != MarkedString::eRead)
            return false;
        forgetPlacesBefore(m_at + size);
        m_at += size - plain.size();
        m_text.replace(m_at, plain.size(), plain);
        return true;
    }

    MarkedString::Result read(const MarkedString& marked, QString* plain)
    {
        forgetPlacesBefore(m_at);
        if (!m_badPlaces.empty() && m_badPlaces.back() < m_at + marked.coverage())
            return MarkedString::eDamaged;
        int bad = -1;
        const MarkedString::Result result = marked.read(m_decrypter, plain, &bad);
        if (bad >= 0)
            m_badPlaces.push_back(m_at + bad);
        return result;
    }

    void forgetPlacesBefore(int place)
    {
        while (!m_badPlaces.empty() && m_badPlaces.back() < place)
            m_badPlaces.pop_back();
    }

    QString m_text;
    int m_at = 0; // what stands before has been copied
    // Characters ahead that are known to be no digits, the nearest last: looked for once only.
    std::vector<int> m_badPlaces;
    PwdDecrypter m_decrypter;
};
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
    PwdDecrypter decrypter;
    QString plain;
    int bad = -1;
    switch (MarkedString(s).read(decrypter, &plain, &bad)) {
    case MarkedString::eRead:
        return plain;
    case MarkedString::eNotRead:
        return s.toString();
    case MarkedString::eDamaged:
        break;
    }
    warnOfInvalidData();
    return QString();
}

QString StrHlp::fromHexAll(const QString& s)
{
    const int first = indexOfMk(s, 0);
    return first < 0 ? s : MarkedText(s).decoded(first);
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

int StrHlp::getLength(const QStringRef& s) { return hasMk(s) ? MarkedString(s).length() : 0; }

int StrHlp::getLength(const QString& s, int from) { return getLength(QStringRef(&s).mid(from)); }
