#include "http/HttpFieldList_p.h"

#include <algorithm>

namespace
{
constexpr int kUsualFields = 16;
constexpr int kSpareText = 4096; // replaced values stay in the text until they are that long and half of it
} // namespace

void Nuvika::HttpFieldList::removeAll(QStringView key)
{
    const QString kept = key.toString(); // it may be a part of this text
    m_fields.erase(std::remove_if(m_fields.begin(), m_fields.end(),
                       [&](const Field& field) { return isNamed(field, QStringView(kept)); }),
        m_fields.end());
}

void Nuvika::HttpFieldList::setValue(int i, QStringView value)
{
    const QString kept = value.toString(); // it may be a part of this text
    Part& part = m_fields[static_cast<std::size_t>(i)].value;
    m_nSpare += part.nSize;
    part = add(QStringView(kept));
    if (m_nSpare > std::max(kSpareText, m_text.size() / 2))
        compact();
}

void Nuvika::HttpFieldList::compact()
{
    HttpFieldList fresh;
    fresh.reserve(0);
    for (int i = 0; i < size(); ++i)
        fresh.append(name(i), value(i));
    *this = fresh;
}

void Nuvika::HttpFieldList::reserve(int textSize)
{
    m_text.reserve(textSize);
    m_fields.reserve(kUsualFields);
}
