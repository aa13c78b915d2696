#include <KepNuvikaUtil/CommandParsing.h>

#include <KepNuvikaUtil/StrHlp.h>

#include "core/Log_p.h"

namespace
{
constexpr int kUsualToken = 32; // characters

// One walk over a text; the tokens go to a list.
class Tokeniser
{
public:
    Tokeniser(const QString& text, QStringList* out, const QString& separators, bool bStrip)
        : m_text(text), m_out(out), m_separators(separators), m_bStrip(bStrip)
    {
        m_token.reserve(kUsualToken);
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

    bool isSeparator(QChar c) const { return m_separators.contains(c); }
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
            m_token += m_bStrip && isOrdinary(c) ? escapeValue(c) : c;
            m_state = m_state == eQuotedEscape ? eQuoted : ePlain;
            ++m_at;
        } else if (isSeparator(c)) {
            takeSeparator(c);
            ++m_at;
        } else if (c == QLatin1Char('"')) {
            keepUnlessStripped(c);
            m_state = m_state == eQuoted ? ePlain : eQuoted;
            ++m_at;
        } else if (c == QLatin1Char('\\')) {
            keepUnlessStripped(c);
            m_state = m_state == eQuoted ? eQuotedEscape : ePlainEscape;
            ++m_at;
        } else {
            takeOrdinary();
        }
    }

    void takeSeparator(QChar c)
    {
        if (m_state == eQuoted) {
            m_token += c;
        } else if (m_state == ePlain) {
            endToken();
            m_state = eBetween;
        }
    }

    void keepUnlessStripped(QChar c)
    {
        if (!m_bStrip)
            m_token += c;
    }

    void takeOrdinary()
    {
        const int begin = m_at;
        do {
            ++m_at;
        } while (m_at < m_text.size() && isOrdinary(m_text.at(m_at)));
        m_token.append(m_text.constData() + begin, m_at - begin);
        if (m_state == eBetween)
            m_state = ePlain;
    }

    void endToken()
    {
        const bool bBlankEnds
            = !m_token.isEmpty() && (m_token.at(0).isSpace() || m_token.at(m_token.size() - 1).isSpace());
        m_out->append(bBlankEnds ? m_token.trimmed() : QString(m_token.constData(), m_token.size()));
        m_token.resize(0); // keeps its memory
    }

    const QString& m_text;
    QStringList* m_out;
    const QString& m_separators;
    bool m_bStrip;
    State m_state = eBetween;
    int m_at = 0;
    QString m_token;
};

// The pieces of a text that only its first separator splits: those behind the second are joined again.
QStringList splitOnce(const QString& text, QChar separator, bool bDecodeMarked)
{
    QStringList pieces;
    parseSubStrings(text, &pieces, QString(separator), true, bDecodeMarked);
    if (pieces.size() <= 2)
        return pieces;
    const QString first = pieces.takeFirst();
    return {first, pieces.join(separator)};
}

void parseParameters(
    const QString& text, bool bDecodeMarked, bool bLowerCase, QMap<QString, QVariant>* params)
{
    QStringList items;
    parseSubStrings(text, &items, QStringLiteral(";"), true, bDecodeMarked);
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
    const QString decoded = bDecodeMarked && StrHlp::containsMk(text) ? StrHlp::fromHexAll(text) : text;
    Tokeniser(decoded, out, separators, bStrip).run();
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
    parseSubStrings(text, &l, QString(), true, true);
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
