#include "media/FormatParameters_p.h"

#include <algorithm>
#include <cctype>

using Nuvika::FormatParameters;

namespace
{
// "96 mode=x" without its payload type.
QByteArray withoutType(const QByteArray& piece)
{
    int digits = 0;
    while (digits < piece.size() && std::isdigit(static_cast<unsigned char>(piece[digits])) != 0)
        ++digits;
    const bool bType
        = digits > 0 && (digits == piece.size() || piece[digits] == ' ' || piece[digits] == '\t');
    return bType ? piece.mid(digits).trimmed() : piece;
}
} // namespace

FormatParameters::FormatParameters(const QString& fmtp)
{
    const QByteArray text = fmtp.toLatin1();
    for (int from = 0; from < text.size();) {
        int to = text.indexOf(';', from);
        to = to < 0 ? text.size() : to;
        QByteArray piece = text.mid(from, to - from).trimmed();
        if (from == 0)
            piece = withoutType(piece);
        const int equals = piece.indexOf('=');
        if (equals > 0)
            m_values.emplace_back(piece.left(equals).trimmed().toLower(), piece.mid(equals + 1).trimmed());
        from = to + 1;
    }
}

QByteArray FormatParameters::value(const char* key) const
{
    const auto found = std::find_if(
        m_values.begin(), m_values.end(), [key](const auto& pair) { return pair.first == key; });
    return found == m_values.end() ? QByteArray() : found->second;
}

quint32 FormatParameters::number(const char* key, quint32 fallback) const
{
    bool bNumber = false;
    const quint32 number = value(key).toUInt(&bNumber);
    return bNumber ? number : fallback;
}
