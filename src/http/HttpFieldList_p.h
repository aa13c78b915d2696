// Private: the fields of a head, in one text.
//
//     m_text:   Content-Length12ServercameraDate...
//     m_fields: {name at, size, value at, size}, ...
//
// A head of a dozen fields costs two allocations instead of three dozen, and copies share the text.
#pragma once

#include <QtCore/QString>

#include <vector>

namespace Nuvika
{
class HttpFieldList
{
public:
    int size() const { return static_cast<int>(m_fields.size()); }
    QStringView name(int i) const { return part(m_fields[static_cast<std::size_t>(i)].name); }
    QStringView value(int i) const { return part(m_fields[static_cast<std::size_t>(i)].value); }
    // Index of the first field of that name from `from` on, without regard to case; -1 for none.
    template <class Key>
    int find(Key key, int from = 0) const
    {
        for (int i = from; i < size(); ++i) {
            if (isNamed(m_fields[static_cast<std::size_t>(i)], key))
                return i;
        }
        return -1;
    }

    template <class Text>
    void append(Text name, Text value)
    {
        m_fields.push_back({add(name), add(value)});
    }
    void setValue(int i, QStringView value);
    void removeAt(int i) { m_fields.erase(m_fields.begin() + i); }
    void removeAll(QStringView key);
    void clear()
    {
        m_fields.clear();
        m_text.clear();
        m_nSpare = 0;
    }
    void reserve(int textSize);

private:
    struct Part {
        int nAt;
        int nSize;
    };
    struct Field {
        Part name;
        Part value;
    };

    QStringView part(Part p) const { return QStringView(m_text).mid(p.nAt, p.nSize); }
    template <class Text>
    Part add(Text text)
    {
        const int at = m_text.size();
        append(text);
        return {at, m_text.size() - at};
    }
    void append(QStringView text) { m_text.append(text.data(), static_cast<int>(text.size())); }
    void append(QLatin1String text) { m_text.append(text); }
    void compact();

    template <class Key>
    bool isNamed(const Field& field, Key key) const
    {
        return field.name.nSize == key.size() && part(field.name).compare(key, Qt::CaseInsensitive) == 0;
    }

    QString m_text;
    std::vector<Field> m_fields;
    int m_nSpare = 0; // characters of the text that are no field's any more
};
} // namespace Nuvika
