// Private: the parameters of an a=fmtp line, `key=value; key=value`, as cameras write them: keys in any case,
// blanks anywhere, empty ones, the payload type in front or not. The first of a name counts.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <utility>
#include <vector>

namespace Nuvika
{
class FormatParameters
{
public:
    explicit FormatParameters(const QString& fmtp);

    // The key in lower case; empty when it is missing.
    QByteArray value(const char* key) const;
    // The number, or fallback where there is none.
    quint32 number(const char* key, quint32 fallback) const;
    QByteArray fromHex(const char* key) const { return QByteArray::fromHex(value(key)); }

private:
    std::vector<std::pair<QByteArray, QByteArray>> m_values;
};
} // namespace Nuvika
