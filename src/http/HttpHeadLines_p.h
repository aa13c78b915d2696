// Private: the lines of a head, the same for strings and for received bytes: `View` is a QStringView or a
// QLatin1String. A line that begins with white space continues the one before it; each byte is looked at a
// fixed number of times and copied at most once, however often a line is continued.
#pragma once

#include <QtCore/QString>

#include <cstring>

namespace Nuvika::HeadLines
{
// What counts as white space around words and values: all that Unicode knows, or that of ASCII alone, which
// leaves the bytes 0x85 and 0xA0 to the texts in UTF-8 that they are a part of.
enum class Blanks { Unicode, Ascii };

inline QChar charAt(QStringView view, int i) { return view.at(i); }
inline QChar charAt(QLatin1String view, int i) { return QChar(view.at(i)); }

inline int findChar(QLatin1String view, char c, int from)
{
    const void* found = std::memchr(view.data() + from, c, static_cast<std::size_t>(view.size() - from));
    return found == nullptr ? -1 : static_cast<int>(static_cast<const char*>(found) - view.data());
}

inline int findChar(QStringView view, char c, int from)
{
    return static_cast<int>(view.indexOf(QLatin1Char(c), from));
}

inline void appendTo(QString& text, QStringView view)
{
    text.append(view.data(), static_cast<int>(view.size()));
}
inline void appendTo(QString& text, QLatin1String view) { text.append(view); }
inline QStringView viewOf(const QString& text) { return text; }

template <class View>
int length(View view)
{
    return static_cast<int>(view.size());
}

template <class View>
bool isBlank(View view, int i, Blanks blanks)
{
    const QChar c = charAt(view, i);
    return c.isSpace() && (blanks == Blanks::Unicode || c.unicode() < 0x80);
}

template <class View>
View trimmed(View text, Blanks blanks)
{
    int start = 0;
    int end = length(text);
    while (start < end && isBlank(text, start, blanks))
        ++start;
    while (end > start && isBlank(text, end - 1, blanks))
        --end;
    return text.mid(start, end - start);
}

// The words of a line without the white space around them.
template <class View>
View nextWord(View line, int* from, Blanks blanks)
{
    int start = *from;
    while (start < length(line) && isBlank(line, start, blanks))
        ++start;
    int end = start;
    while (end < length(line) && !isBlank(line, end, blanks))
        ++end;
    *from = end;
    return line.mid(start, end - start);
}

// The end of the line that starts at `from`, and where the next one starts.
template <class View>
int lineEnd(View text, int from, bool bCrLf, int* next)
{
    for (int at = from; (at = findChar(text, '\n', at)) >= 0; ++at) {
        if (bCrLf && (at == from || charAt(text, at - 1) != QLatin1Char('\r')))
            continue;
        *next = at + 1;
        return bCrLf ? at - 1 : at;
    }
    *next = length(text);
    return length(text);
}

// Calls parseLine(line, number) for each logical line; false once that has returned false.
template <class Text = QString, class View, class ParseLine>
bool forEach(View text, Blanks blanks, ParseLine parseLine)
{
    const int firstEnd = length(text) == 0 ? -1 : findChar(text, '\n', 0);
    const bool bCrLf = firstEnd > 0 && charAt(text, firstEnd - 1) == QLatin1Char('\r');
    const View head = trimmed(text, blanks);

    View line;
    Text joined; // the logical line, once a continuation was added to it
    bool bJoined = false;
    bool bHaveLine = false;
    int number = 0;
    const auto flush = [&] {
        return !bHaveLine || (bJoined ? parseLine(viewOf(joined), number++) : parseLine(line, number++));
    };
    for (int from = 0; from < length(head);) {
        const int start = from;
        const int end = lineEnd(head, start, bCrLf, &from);
        const View piece = head.mid(start, end - start);
        if (piece.isEmpty())
            continue;
        if (!isBlank(piece, 0, blanks)) {
            if (!flush())
                return false;
            line = piece;
            bHaveLine = true;
            bJoined = false;
        } else if (bHaveLine) {
            if (!bJoined) {
                joined = Text();
                appendTo(joined, line);
                bJoined = true;
            }
            joined += QLatin1Char(' ');
            appendTo(joined, trimmed(piece, blanks));
        }
    }
    return flush();
}
} // namespace Nuvika::HeadLines
