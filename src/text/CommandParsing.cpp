#include <KepNuvikaUtil/CommandParsing.h>

#include <KepNuvikaUtil/StrHlp.h>

#include "core/Log_p.h"

#include <algorithm>

namespace
{
// One walk over a text; the tokens go to a list.
class Tokeniser
{
public:
    Tokeniser(const QString& text, QStringList* out, QStringView separators, bool bStrip)
        : m_text(text), m_out(out), m_separators(separators), m_bStrip(bStrip)
    {
    }

    void run()
    {
        while (m_at < m_text.size())
            takeNext();
        if (m_state != eBetween)
            endToken();
    }

private:
    enum State { eBetween = 0, ePlain = 1, eQuoted = 2, eQuotedEscape = 3, ePlainEscape = 4 };

    bool isSeparator(QChar c) const
    {
        for (const QChar separator : m_separators) {
            if (c == separator)
                return true;
        }
        return false;
    }
    bool isOrdinary(QChar c) const
    {
        return c != QLatin1Char('"') && c != QLatin1Char('\\') && !isSeparator(c);
    }
    static QChar escapeValue(QChar c)
    {
        switch (c.unicode()) {
        case 'n':
            return QLatin1Char('\n');
        case 'r':
            return QLatin1Char('\r');
        case 't':
            return QLatin1Char('\t');
        default:
            return c;
        }
    }

    void takeNext()
    {
        const QChar c = m_text.at(m_at);
        if (m_state == eQuotedEscape || m_state == ePlainEscape) {
            takeEscaped(c);
        } else if (isSeparator(c)) {
            takeSeparator();
        } else if (c == QLatin1Char('"')) {
            keepUnlessStripped();
            m_state = m_state == eQuoted ? ePlain : eQuoted;
        } else if (c == QLatin1Char('\\')) {
            keepUnlessStripped();
            m_state = m_state == eQuoted ? eQuotedEscape : ePlainEscape;
        } else {
            takeOrdinary();
        }
    }

    void takeEscaped(QChar c)
    {
        const QChar value = m_bStrip && isOrdinary(c) ? escapeValue(c) : c;
        if (value == c)
            keep(1);
        else
            replaceBy(value);
        m_state = m_state == eQuotedEscape ? eQuoted : ePlain;
    }

    void takeSeparator()
    {
        if (m_state == eQuoted) {
            keep(1);
            return;
        }
        if (m_state == ePlain)
            endToken();
        m_state = eBetween;
        ++m_at;
    }

    void keepUnlessStripped()
    {
        if (m_bStrip)
            ++m_at;
        else
            keep(1);
    }

    void takeOrdinary()
    {
        int end = m_at + 1;
        while (end < m_text.size() && isOrdinary(m_text.at(end)))
            ++end;
        keep(end - m_at);
        if (m_state == eBetween)
            m_state = ePlain;
    }

    // The next characters belong to the token. While it stands in the text in one piece, it is not copied.
    void keep(int count)
    {
        if (!m_bPieces && m_nLength == 0)
            m_nBegin = m_at;
        if (!m_bPieces && m_nBegin + m_nLength == m_at) {
            m_nLength += count;
        } else {
            toPieces();
            m_pieces.append(m_text.constData() + m_at, count);
        }
        m_at += count;
    }

    void replaceBy(QChar value)
    {
        toPieces();
        m_pieces += value;
        ++m_at;
    }

    void toPieces()
    {
        if (!m_bPieces)
            m_pieces = QString(m_text.constData() + m_nBegin, m_nLength);
        m_bPieces = true;
    }

    void endToken()
    {
        const QString token = m_bPieces ? m_pieces : QString(m_text.constData() + m_nBegin, m_nLength);
        const bool bBlankEnds
            = !token.isEmpty() && (token.at(0).isSpace() || token.at(token.size() - 1).isSpace());
        m_out->append(bBlankEnds ? token.trimmed() : token);
        m_bPieces = false;
        m_nLength = 0;
    }

    const QString m_text; // shared, for it may be an element of the list
    QStringList* m_out;
    const QStringView m_separators;
    const bool m_bStrip;
    State m_state = eBetween;
    int m_at = 0;
    int m_nBegin = 0; // of the token, while it is one piece of the text
    int m_nLength = 0;
    bool m_bPieces = false;
    QString m_pieces;
};

void tokenise(const QString& text, QStringList* out, QStringView separators, bool bStrip, bool bDecodeMarked)
{
    if (bDecodeMarked && StrHlp::containsMk(text)) {
        const QString decoded = StrHlp::fromHexAll(text);
        Tokeniser(decoded, out, separators, bStrip).run();
    } else {
        Tokeniser(text, out, separators, bStrip).run();
    }
}

// Nothing but separators divides such a text, and nothing in it changes.
bool isPlain(const QString& text, bool bDecodeMarked)
{
    return !text.contains(QLatin1Char('"')) && !text.contains(QLatin1Char('\\'))
        && !(bDecodeMarked && StrHlp::containsMk(text));
}

// The tokens of a plain text, read in place.
template <class Take>
void tokenisePlain(QStringView text, QChar separator, Take take)
{
    const QChar* at = text.begin();
    while (at != text.end()) {
        const QChar* const end = std::find(at, text.end(), separator);
        if (end != at)
            take(QStringView(at, end).trimmed());
        at = end == text.end() ? end : end + 1;
    }
}

// The pieces of a text that only its first separator splits: those behind the second are joined again.
struct Split {
    int count = 0;
    QString first;
    QString rest;

    template <class Token>
    void add(const Token& token, QChar separator)
    {
        const QString piece(token.data(), static_cast<int>(token.size()));
        if (count == 0)
            first = piece;
        else if (count == 1)
            rest = piece;
        else
            rest += separator + piece;
        ++count;
    }
};

Split splitPlain(QStringView text, QChar separator)
{
    Split split;
    tokenisePlain(text, separator, [&](QStringView token) { split.add(token, separator); });
    return split;
}

Split splitOnce(const QString& text, QChar separator, bool bDecodeMarked)
{
    if (isPlain(text, bDecodeMarked))
        return splitPlain(text, separator);
    QStringList tokens;
    tokenise(text, &tokens, QStringView(&separator, 1), true, bDecodeMarked);
    Split split;
    for (const QString& token : qAsConst(tokens))
        split.add(token, separator);
    return split;
}

void parseParameters(
    const QString& text, bool bDecodeMarked, bool bLowerCase, QMap<QString, QVariant>* params)
{
    const auto insert = [&](const Split& pair) {
        if (pair.count > 1)
            params->insert(bLowerCase ? pair.first.toLower() : pair.first, pair.rest);
        else if (pair.count == 1)
            params->insert(pair.first, QVariant());
    };
    if (isPlain(text, bDecodeMarked)) {
        tokenisePlain(
            text, QLatin1Char(';'), [&](QStringView item) { insert(splitPlain(item, QLatin1Char('='))); });
        return;
    }
    QStringList items;
    tokenise(text, &items, QStringView(u";"), true, bDecodeMarked);
    for (const QString& item : qAsConst(items))
        insert(splitOnce(item, QLatin1Char('='), bDecodeMarked));
}
} // namespace

QString getDefaultEscapeChars() { return QStringLiteral("\"\r\n\t\\"); }

QString getDefaultSeparatorChars() { return QString::fromLatin1("\t\v\f \0", 5); }

QString getWhitespaceChars() { return QString::fromLatin1("\t\n\v\f\r \0", 7); }

void parseSubStrings(
    const QString& text, QStringList* out, const QString& separators, bool bStrip, bool bDecodeMarked)
{
    tokenise(text, out, separators, bStrip, bDecodeMarked);
}

QString escapeString(const QString& text, const QString& extraChars)
{
    const QString special = getDefaultEscapeChars() + extraChars;
    QString out;
    out.reserve(2 * text.size());
    for (const QChar c : text) {
        if (special.contains(c))
            out += QLatin1Char('\\');
        switch (c.unicode()) {
        case '\r':
            out += QLatin1Char('r');
            break;
        case '\n':
            out += QLatin1Char('n');
            break;
        case '\t':
            out += QLatin1Char('t');
            break;
        default:
            out += c;
        }
    }
    return out;
}

QString deEscapeString(const QString& text)
{
    QStringList l;
    tokenise(text, &l, QStringView(), true, true);
    NUVIKA_ASSERT(l.size() <= 1);
    return l.value(0);
}

bool parseCommand(const QString& text, QString& command, QMap<QString, QVariant>& params)
{
    const Split parts = splitOnce(text, QLatin1Char(':'), true); // first: the text may be one of the results
    command = parts.count > 1 ? parts.first : QString();
    params.clear();
    parseParameters(parts.count > 1 ? parts.rest : parts.first, true, true, &params);
    return true;
}

bool parseDefinition(const QString& text, QMap<QString, QVariant>& params, bool bDecodeMarked)
{
    // Shared, for it may be one of the parameters.
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
    const QString definition = text;
    params.clear();
    parseParameters(definition, bDecodeMarked, false, &params);
    return true;
}
