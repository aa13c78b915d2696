#include "media/FormatParameters_p.h"

#include <algorithm>

using namespace Nuvika;

QStringView Nuvika::takeToken(QStringView& rest, QChar separator)
{
    qsizetype at = 0;
    while (at < rest.size() && rest.at(at) != separator)
        ++at;
    const QStringView token = rest.left(at);
    rest = rest.mid(std::min(at + 1, rest.size()));
    return token.trimmed();
}

bool Nuvika::readFormatParameters(QStringView fmtp, QVector<SdpParameter>* parameters)
{
    while (!fmtp.isEmpty()) {
        QStringView text = takeToken(fmtp, QLatin1Char(';'));
        const QStringView key = takeToken(text, QLatin1Char('='));
        if (key.isEmpty())
            continue;
        if (parameters->size() >= SdpDescription::kMaxParameters)
            return false;
        parameters->append({key.toString().toLower(), text.trimmed().toString()});
    }
    return true;
}

QByteArray FormatParameters::value(const char* key) const
{
    const auto found = std::find_if(m_parameters.begin(), m_parameters.end(),
        [key](const SdpParameter& each) { return each.key == QLatin1String(key); });
    return found == m_parameters.end() ? QByteArray() : found->value.toLatin1();
}

quint32 FormatParameters::number(const char* key, quint32 fallback) const
{
    bool bNumber = false;
    const quint32 number = value(key).toUInt(&bNumber);
    return bNumber ? number : fallback;
}
