// Private: the parameters of an a=fmtp line, `key=value; key=value`, as cameras write them: keys in any case,
// blanks anywhere, empty ones.
#pragma once

#include <KepNuvikaUtil/SdpDescription.h>

#include <QtCore/QByteArray>
#include <QtCore/QStringView>

namespace Nuvika
{
// The text up to the separator, without blanks around it, which leaves `rest`.
QStringView takeToken(QStringView& rest, QChar separator);

// Appends them in their order; false when that would make too many.
bool readFormatParameters(QStringView fmtp, QVector<SdpParameter>* parameters);

// The first of a name counts.
class FormatParameters
{
public:
    explicit FormatParameters(const QString& fmtp) { readFormatParameters(fmtp, &m_parameters); }

    // The key in lower case; empty when it is missing.
    QByteArray value(const char* key) const;
    // The number, or fallback where there is none.
    quint32 number(const char* key, quint32 fallback) const;
    QByteArray fromHex(const char* key) const { return QByteArray::fromHex(value(key)); }

private:
    QVector<SdpParameter> m_parameters;
};
} // namespace Nuvika
