#include "http/HttpStrict_p.h"

#include <QtCore/QByteArray>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <string_view>

namespace
{
enum Kind : unsigned char { eToken = 1, eText = 2 };

constexpr std::array<unsigned char, 256> kindsOfBytes()
{
    std::array<unsigned char, 256> kinds{};
    for (std::size_t c = ' '; c < kinds.size(); ++c)
        kinds[c] = c == 0x7F ? 0 : eText;
    kinds['\t'] = eText;
    constexpr std::string_view kTokens
        = "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    for (const char c : kTokens)
        kinds[static_cast<unsigned char>(c)] = eToken | eText;
    return kinds;
}

constexpr std::array<unsigned char, 256> kKinds = kindsOfBytes();

// Objects and not functions, so that loops over bytes take them in.
constexpr auto isTokenChar = [](char c) { return (kKinds[static_cast<unsigned char>(c)] & eToken) != 0; };
constexpr auto isText = [](char c) { return (kKinds[static_cast<unsigned char>(c)] & eText) != 0; };
constexpr auto isBlank = [](char c) { return c == ' ' || c == '\t'; };

const char* lineEndIn(const char* line, const char* end)
{
    const void* found = std::memchr(line, '\n', static_cast<std::size_t>(end - line));
    return found == nullptr ? end : static_cast<const char*>(found);
}

// Steps over the characters that fit; false when there is none.
template <class Fits>
bool skip(const char** at, const char* end, Fits fits)
{
    const char* start = *at;
    *at = std::find_if_not(start, end, fits);
    return *at != start;
}

// Without its line end. Lines without a name are another's to judge: the parser's.
bool isStrictField(const char* line, const char* end, int* hosts)
{
    if (line == end || isBlank(*line))
        return true;
    const char* at = line;
    const bool bName = skip(&at, end, isTokenChar);
    *hosts += at == line + 4 && qstrnicmp(line, "host", 4) == 0 ? 1 : 0;
    return bName && at != end && *at == ':';
}

bool skipQuoted(const char** at, const char* end)
{
    for (++*at; *at < end && **at != '"'; ++*at) {
        if (**at == '\\' && *at + 1 < end)
            ++*at;
    }
    return *at < end && *(*at)++ == '"';
}

// *( BWS ";" BWS name [ BWS "=" BWS ( token / quoted string ) ] )
bool areExtensions(const char* at, const char* end)
{
    while (at != end) {
        skip(&at, end, isBlank);
        if (at == end || *at++ != ';')
            return false;
        skip(&at, end, isBlank);
        if (!skip(&at, end, isTokenChar))
            return false;
        const char* behindName = at;
        skip(&at, end, isBlank);
        if (at == end || *at != '=') {
            at = behindName;
            continue;
        }
        ++at;
        skip(&at, end, isBlank);
        if (at != end && *at == '"' ? !skipQuoted(&at, end) : !skip(&at, end, isTokenChar))
            return false;
    }
    return true;
}

// The line's end without CR LF; null when it does not end so, or holds a control character.
const char* endOfText(const std::string& line)
{
    const char* begin = line.data();
    const char* end = begin + line.size();
    if (line.size() < 2 || end[-2] != '\r' || end[-1] != '\n' || !std::all_of(begin, end - 2, isText))
        return nullptr;
    return end - 2;
}
} // namespace

bool Nuvika::isStrictHead(const char* data, int size)
{
    const char* const end = data + size;
    const char* const firstEnd = lineEndIn(data, end);
    const bool bCrLf = firstEnd != data && firstEnd[-1] == '\r';
    int hosts = 0;
    for (const char* line = data; line < end;) {
        const char* const lineEnd = lineEndIn(line, end);
        const bool bCr = lineEnd != line && lineEnd[-1] == '\r';
        const char* const textEnd = lineEnd - (bCr ? 1 : 0);
        if ((bCrLf && !bCr && lineEnd != line && lineEnd != end) || !std::all_of(line, textEnd, isText))
            return false;
        if (line != data && !isStrictField(line, textEnd, &hosts))
            return false;
        line = lineEnd == end ? end : lineEnd + 1;
    }
    return hosts <= 1;
}

bool Nuvika::isStrictChunkLine(const std::string& line)
{
    const char* const end = endOfText(line);
    const char* at = line.data();
    return end != nullptr
        && skip(&at, end, [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; })
        && areExtensions(at, end);
}

bool Nuvika::isStrictTrailerLine(const std::string& line)
{
    const char* const end = endOfText(line);
    int hosts = 0;
    return end != nullptr && isStrictField(line.data(), end, &hosts);
}
