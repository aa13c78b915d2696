#include "core/Shown_p.h"

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>
#include <KepNuvikaUtil/VariableBuffer.h>

#include <array>

using namespace Nuvika;

namespace
{
const QLatin1String kHidden("...");

bool endsWord(QChar c) { return c.isSpace() || c == QLatin1Char('"') || c == QLatin1Char('<'); }

bool isKeyCharacter(QChar c)
{
    return c.isLetterOrNumber() || c == QLatin1Char('-') || c == QLatin1Char('_');
}

bool isSecretKey(const QString& key)
{
    constexpr std::array<const char*, 6> kParts{"pas", "pw", "secret", "token", "key", "auth"};
    for (const char* part : kParts) {
        if (key.contains(QLatin1String(part), Qt::CaseInsensitive))
            return true;
    }
    return false;
}

// Where a query, or the value of a key that speaks of a password, begins; the word's end when neither does.
int secretAt(const QString& word)
{
    int key = 0;
    for (int i = 0; i < word.size(); ++i) {
        const QChar c = word.at(i);
        if (c == QLatin1Char('?') || (c == QLatin1Char('=') && isSecretKey(word.mid(key, i - key))))
            return i + 1;
        if (!isKeyCharacter(c))
            key = i + 1;
    }
    return word.size();
}

QString shownWord(QString word)
{
    const int scheme = word.indexOf(QLatin1String("://"));
    const int login = word.lastIndexOf(QLatin1Char('@'));
    if (scheme >= 0 && login > scheme)
        word.replace(scheme + 3, login - scheme - 3, kHidden);
    const int secret = secretAt(word);
    return secret < word.size() ? word.left(secret) + kHidden : word;
}
} // namespace

QString Nuvika::withoutSecrets(const QString& text)
{
    QString shown;
    shown.reserve(text.size());
    for (int at = 0; at < text.size(); ++at) {
        const int begin = at;
        while (at < text.size() && !endsWord(text.at(at)))
            ++at;
        shown += shownWord(text.mid(begin, at - begin));
        if (at < text.size())
            shown += text.at(at);
    }
    return shown;
}

// --- buffers: their sizes, since the bytes are anybody's -------------------------------------------------

QDebug KepNuvikaUtil::operator<<(QDebug debug, const BUFFER& buffer)
{
    Shown(debug, "BUFFER")("bytes", buffer.nLen);
    return debug;
}

QDebug operator<<(QDebug debug, const VariableBuffer& buffer)
{
    Shown(debug, "VariableBuffer")("bytes", buffer.size());
    return debug;
}

QDebug operator<<(QDebug debug, const SharedPoolBuffer& buffer)
{
    Shown shown(debug, "SharedPoolBuffer");
    shown.when(buffer.getVariableBuffer() == nullptr, "none");
    if (buffer.getVariableBuffer() != nullptr)
        shown("bytes", buffer.getBufferSize());
    return debug;
}
