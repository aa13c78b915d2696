#include "http/HttpChallenge_p.h"

#include "http/HttpDigest_p.h"

#include <algorithm>

namespace
{
using Bytes = QByteArray;

bool isBlank(char c) { return c == ' ' || c == '\t'; }

int skipBlanks(const Bytes& text, int at)
{
    while (at < text.size() && isBlank(text.at(at)))
        ++at;
    return at;
}

// Behind a value, quoted or not; appends the value without quotes and escapes.
int readValue(const Bytes& text, int at, Bytes* value)
{
    if (at >= text.size() || text.at(at) != '"') {
        const int start = at;
        while (at < text.size() && text.at(at) != ',')
            ++at;
        *value = text.mid(start, at - start).trimmed();
        return at;
    }
    for (++at; at < text.size() && text.at(at) != '"'; ++at) {
        if (text.at(at) == '\\' && at + 1 < text.size())
            ++at;
        value->append(text.at(at));
    }
    while (at < text.size() && text.at(at) != ',')
        ++at;
    return at;
}

// A scheme word starts here: a token and a blank, with no "=" behind.
bool startsChallenge(const Bytes& text, int at)
{
    const int start = at;
    while (at < text.size() && (isalnum(static_cast<unsigned char>(text.at(at))) != 0 || text.at(at) == '-'))
        ++at;
    const int behind = skipBlanks(text, at);
    return at > start && behind > at && behind < text.size() && text.at(behind) != '='
        && text.at(behind) != ',';
}

QList<Bytes> splitChallenges(const Bytes& value)
{
    QList<Bytes> challenges;
    int start = 0;
    bool bQuoted = false;
    for (int i = 0; i < value.size(); ++i) {
        const char c = value.at(i);
        if (bQuoted && c == '\\') {
            ++i;
        } else if (c == '"') {
            bQuoted = !bQuoted;
        } else if (c == ',' && !bQuoted && startsChallenge(value, skipBlanks(value, i + 1))) {
            challenges.append(value.mid(start, i - start));
            start = i + 1;
        }
    }
    challenges.append(value.mid(start));
    return challenges;
}

// What an answer is worth; of Digest's named algorithms each hash is one step more.
enum Rank { eNotAnswerable = -1, eBasic = 0, eDigest = 1, eNamedDigest = 2 };

bool isBasic(const Bytes& challenge)
{
    const Bytes word = challenge.trimmed().left(6).toLower();
    return word.startsWith("basic") && (word.size() == 5 || isBlank(word.at(5)));
}

int rank(const Bytes& challenge)
{
    if (!Nuvika::isLine(challenge))
        return eNotAnswerable;
    int at = 0;
    if (!Nuvika::isDigestChallenge(challenge, &at))
        return isBasic(challenge) ? eBasic : eNotAnswerable;
    int best = eDigest;
    for (const auto& parameter : Nuvika::parseChallengeParameters(challenge.mid(at))) {
        if (parameter.first == "algorithm" && !parameter.second.isEmpty()) {
            const Nuvika::DigestAlgorithm* algorithm = Nuvika::findDigestAlgorithm(parameter.second);
            if (algorithm == nullptr)
                return eNotAnswerable;
            best = eNamedDigest + algorithm->hash;
        } else if (parameter.first == "qop" && !Nuvika::isSupportedQop(Nuvika::chooseQop(parameter.second))) {
            return eNotAnswerable;
        }
    }
    return best;
}
} // namespace

QList<QPair<QByteArray, QByteArray>> Nuvika::parseChallengeParameters(const QByteArray& text)
{
    QList<QPair<Bytes, Bytes>> parameters;
    for (int at = 0; at < text.size();) {
        while (at < text.size() && (isBlank(text.at(at)) || text.at(at) == ','))
            ++at;
        const int start = at;
        while (at < text.size() && text.at(at) != '=' && text.at(at) != ',')
            ++at;
        const Bytes key = text.mid(start, at - start).trimmed().toLower();
        if (at >= text.size() || text.at(at) == ',')
            continue; // a word without a value
        Bytes value;
        at = readValue(text, skipBlanks(text, at + 1), &value);
        parameters.append({key, value});
    }
    return parameters;
}

bool Nuvika::isLine(const QByteArray& challenge)
{
    return std::none_of(challenge.begin(), challenge.end(),
        [](char c) { return c != '\t' && static_cast<unsigned char>(c) < ' '; });
}

bool Nuvika::isDigestChallenge(const QByteArray& challenge, int* parametersAt)
{
    constexpr int kWord = 6;
    int start = 0;
    while (start < challenge.size() && challenge.at(start) == ' ')
        ++start;
    if (challenge.size() - start <= kWord || qstrnicmp(challenge.constData() + start, "digest", kWord) != 0
        || !isBlank(challenge.at(start + kWord)))
        return false;
    *parametersAt = skipBlanks(challenge, start + kWord);
    return true;
}

QByteArray Nuvika::chooseQop(const QByteArray& list)
{
    Bytes chosen;
    for (const Bytes& item : list.split(',')) {
        Bytes token = item.trimmed().toLower();
        if (token == "auth")
            return token;
        if (token == "auth-int" || chosen != "auth-int")
            chosen = token;
    }
    return chosen;
}

bool Nuvika::isSupportedQop(const QByteArray& qop)
{
    return qop.isEmpty() || qop == "auth" || qop == "auth-int";
}

QByteArray Nuvika::chooseChallenge(const QList<QByteArray>& fieldValues)
{
    Bytes best;
    int bestRank = eNotAnswerable;
    for (const Bytes& value : fieldValues) {
        for (const Bytes& challenge : splitChallenges(value)) {
            const int r = rank(challenge);
            if (r > bestRank) {
                best = challenge;
                bestRank = r;
            }
        }
    }
    return best;
}
