#include "http/HttpFieldList_p.h"

namespace
{
constexpr int kUsualFields = 16;
constexpr int kSpareText = 4096; // replaced values stay in the text until there are this many of them
} // namespace

int Nuvika::HttpFieldList::find(QStringView key, int from) const
{
    for (int i = from; i < size(); ++i) {
        if (m_fields[static_cast<std::size_t>(i)].name.nSize == key.size()
            && name(i).compare(key, Qt::CaseInsensitive) == 0)
            return i;
    }
    return -1;
}

void Nuvika::HttpFieldList::setValue(int i, QStringView value)
{
    const QString kept = value.toString(); // it may be a part of this text
    m_fields[static_cast<std::size_t>(i)].value = add(QStringView(kept));
    if (m_text.size() > kSpareText)
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
