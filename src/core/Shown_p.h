// Private: how values are shown in logs: Name(word value, word value). Texts of peers come quoted, their
// control characters escaped, and without what may be a password.
#pragma once

#include <QtCore/QDebug>
#include <QtCore/QString>

namespace Nuvika
{
// What stands before the '@' of a URL, behind a question mark, and behind a key such as "password=" is "...".
// A password in a URL may hold any character but blanks, so the last '@' counts.
QString withoutSecrets(const QString& text);

// Writes one value, whatever the stream's settings are, and gives them back.
class Shown
{
public:
    Shown(const QDebug& debug, const char* name) : m_debug(debug), m_saver(m_debug)
    {
        m_debug.resetFormat().nospace().quote() << name << '(';
    }
    ~Shown() { m_debug << ')'; }
    Shown(const Shown&) = delete;
    Shown& operator=(const Shown&) = delete;

    template <class Value>
    Shown& operator()(const char* word, const Value& value)
    {
        separate() << word << ' ' << value;
        return *this;
    }
    template <class Value>
    Shown& operator()(const Value& value)
    {
        separate() << value;
        return *this;
    }
    // A word where it is so, nothing else.
    Shown& when(bool bSo, const char* word)
    {
        if (bSo)
            separate() << word;
        return *this;
    }
    Shown& hex(const char* word, quint32 value)
    {
        separate() << word << " 0x" << Qt::hex << value << Qt::dec;
        return *this;
    }

private:
    QDebug& separate()
    {
        if (m_bAny)
            m_debug << ", ";
        m_bAny = true;
        return m_debug;
    }

    QDebug m_debug; // a share: the caller's has been moved into its result when this one ends
    QDebugStateSaver m_saver;
    bool m_bAny = false;
};
} // namespace Nuvika
