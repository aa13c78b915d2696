#include <KepNuvikaUtil/CommandParsing.h>

#include <KepNuvikaUtil/StrHlp.h>

#include "core/Log_p.h"

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

    const QString& m_text;
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

// The pieces of a text that only its first separator splits: those behind the second are joined again.
QStringList splitOnce(const QString& text, QChar separator, bool bDecodeMarked)
{
    QStringList pieces;
    tokenise(text, &pieces, QStringView(&separator, 1), true, bDecodeMarked);
    if (pieces.size() <= 2)
        return pieces;
    const QString first = pieces.takeFirst();
    return {first, pieces.join(separator)};
}

void parseParameters(
    const QString& text, bool bDecodeMarked, bool bLowerCase, QMap<QString, QVariant>* params)
{
    QStringList items;
    tokenise(text, &items, QStringView(u";"), true, bDecodeMarked);
    for (const QString& item : qAsConst(items)) {
        const QStringList pair = splitOnce(item, QLatin1Char('='), bDecodeMarked);
        if (pair.size() == 2)
            params->insert(bLowerCase ? pair.at(0).toLower() : pair.at(0), pair.at(1));
        else if (pair.size() == 1)
            params->insert(pair.at(0), QVariant());
    }
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
    command = QString();
    params.clear();
    const QStringList parts = splitOnce(text, QLatin1Char(':'), true);
    if (parts.size() == 2)
        command = parts.at(0);
    if (!parts.isEmpty())
        parseParameters(parts.last(), true, true, &params);
    return true;
}

bool parseDefinition(const QString& text, QMap<QString, QVariant>& params, bool bDecodeMarked)
{
    params.clear();
    parseParameters(text, bDecodeMarked, false, &params);
    return true;
}
