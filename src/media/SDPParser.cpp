#include "media/SDPParser_p.h"

#include <cstring>
#include <limits>
#include <numeric>
#include <utility>

namespace
{
constexpr char kOrder[] = "vosiuepcbzkatr"; // of the lines of a section, before its rules are applied
constexpr int kAny = std::numeric_limits<int>::max();

// One text for each type, shared by all pairs.
const QString& nameOf(char type)
{
    static const std::array<QString, 26> names = [] {
        std::array<QString, 26> letters;
        for (std::size_t i = 0; i < letters.size(); ++i)
            letters[i] = QString(QLatin1Char(static_cast<char>('a' + static_cast<int>(i))));
        return letters;
    }();
    return names[static_cast<std::size_t>(type - 'a')];
}
} // namespace

SDP::Parser::Parser(SDP* sdp) : m_sdp(sdp)
{
    constexpr std::size_t kUsualSection = 32; // lines
    m_section.reserve(kUsualSection);
    m_sorted.reserve(kUsualSection);
}

bool SDP::Parser::Rule::admits(const Accepted& accepted) const
{
    return accepted.count >= nLeast && accepted.count <= nMost && (accepted.letters & needed) == needed
        && (accepted.letters & excluded) == 0;
}

const SDP::Parser::Rules& SDP::Parser::rules()
{
    static const Rules table = [] {
        Rules rules;
        const Rule never{0, 1, 0, 0};
        rules.session.fill(never);
        rules.media.fill(never);
        const auto letters = [](const char* set) {
            quint32 mask = 0;
            for (; *set != '\0'; ++set)
                mask |= Accepted::bit(*set);
            return mask;
        };
        const auto session = [&](char type, const char* needed, int least, int most, const char* excluded) {
            rules.session[static_cast<std::size_t>(type - 'a')]
                = {letters(needed), least, most, letters(excluded)};
        };
        const auto media = [&](char type, const char* needed, int least, int most, const char* excluded) {
            rules.media[static_cast<std::size_t>(type - 'a')]
                = {letters(needed), least, most, letters(excluded)};
        };
        session('v', "", 0, 0, "");
        session('o', "v", 1, 1, "");
        session('s', "o", 2, 2, "");
        session('i', "s", 3, 3, "iuepcbtrzkam");
        session('u', "s", 3, kAny, "uepcbtrzkam");
        session('e', "s", 3, kAny, "epcbtrzkam");
        session('p', "s", 3, kAny, "pcbtrzkam");
        session('c', "s", 3, kAny, "cbtrzkam");
        session('b', "s", 3, kAny, "trzkam");
        session('t', "s", 3, kAny, "zkam");
        session('r', "s", 3, kAny, "zkam");
        session('z', "s", 3, kAny, "zkam");
        session('k', "s", 3, kAny, "kam");
        session('a', "s", 3, kAny, "m");
        media('i', "m", 1, 1, "icbka");
        media('c', "m", 1, kAny, "cbka");
        media('b', "m", 1, kAny, "ka");
        media('k', "m", 1, kAny, "ka");
        media('a', "m", 1, kAny, "");
        return rules;
    }();
    return table;
}

void SDP::Parser::parse(const QString& text)
{
    const QStringView all(text);
    for (qsizetype begin = 0; begin < all.size();) {
        const int found = text.indexOf(QLatin1Char('\n'), static_cast<int>(begin));
        const qsizetype end = found < 0 ? all.size() : found;
        const bool bReturn = end > begin && all.at(end - 1) == QLatin1Char('\r');
        takeLine(all.mid(begin, end - begin - (bReturn ? 1 : 0)));
        begin = end + 1;
    }
    endSection();
}

void SDP::Parser::takeLine(QStringView line)
{
    if (line.contains(QLatin1Char('\r'))) {
        m_cleaned.push_back(line.toString().remove(QLatin1Char('\r')));
        line = m_cleaned.back();
    }
    if (line.size() < 2 || line.at(1) != QLatin1Char('='))
        return;
    const ushort type = line.at(0).unicode();
    if (type == 'm') {
        endSection();
        m_bInMedia = true;
        m_media = Accepted();
        m_media.add('m');
        m_mediaLine = line.mid(2);
        return;
    }
    const char* rank = type > 0 && type < 128 ? std::strchr(kOrder, static_cast<char>(type)) : nullptr;
    if (rank != nullptr)
        m_section.push_back({static_cast<std::size_t>(rank - kOrder), line.mid(2)});
}

// Sorts the section's lines by type, keeping their order within one, and applies the rules.
void SDP::Parser::endSection()
{
    std::array<std::size_t, kTypes + 1> starts{};
    for (const Line& line : m_section)
        ++starts[line.nRank + 1];
    std::partial_sum(starts.begin(), starts.end(), starts.begin());
    m_sorted.resize(m_section.size());
    std::array<std::size_t, kTypes + 1> next = starts;
    for (const Line& line : m_section)
        m_sorted[next[line.nRank]++] = line.value;
    beginStoring();
    for (std::size_t rank = 0; rank < kTypes; ++rank) {
        for (std::size_t i = starts[rank]; i < starts[rank + 1]; ++i)
            accept(kOrder[rank], m_sorted[i]);
    }
    m_section.clear();
}

// The list that takes the lines, with room for all of them.
void SDP::Parser::beginStoring()
{
    const int lines = static_cast<int>(m_section.size());
    if (m_bInMedia) {
        m_sdp->m_mediaDescs.append(ParamList());
        m_sdp->m_mediaDescs.last().reserve(lines + 1);
        m_sdp->appendMediaParam({nameOf('m'), m_mediaLine.toString()});
    } else {
        m_sdp->m_sessionParams.reserve(lines);
    }
}

void SDP::Parser::accept(char type, QStringView value)
{
    Accepted& accepted = m_bInMedia ? m_media : m_session;
    const auto& table = m_bInMedia ? rules().media : rules().session;
    const bool bOrphan = !m_bInMedia && type == 'r' && m_sdp->m_timeDescs.isEmpty();
    if (bOrphan || !table[static_cast<std::size_t>(type - 'a')].admits(accepted))
        return;
    store(type, value);
    accepted.add(type);
}

void SDP::Parser::store(char type, QStringView value)
{
    Param param(nameOf(type), value.toString());
    if (m_bInMedia) {
        m_sdp->appendMediaParam(std::move(param));
    } else if (type == 't' || type == 'r') {
        if (type == 't')
            m_sdp->m_timeDescs.append(ParamList());
        m_sdp->m_timeDescs.last().append(std::move(param));
    } else {
        m_sdp->appendSessionParam(std::move(param));
    }
}
