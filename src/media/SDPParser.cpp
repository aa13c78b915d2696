#include "media/SDPParser_p.h"

#include <cstring>
#include <limits>

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
        media('m', "", 0, 0, "");
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
    QString plain;
    if (text.contains(QLatin1Char('\r'))) {
        plain = text;
        plain.remove(QLatin1Char('\r'));
    }
    const QString& lines = plain.isNull() ? text : plain;
    for (int begin = 0; begin < lines.size();) {
        const int found = lines.indexOf(QLatin1Char('\n'), begin);
        const int end = found < 0 ? lines.size() : found;
        takeLine(QStringRef(&lines, begin, end - begin));
        begin = end + 1;
    }
    endSection();
}

void SDP::Parser::takeLine(const QStringRef& line)
{
    if (line.size() < 2 || line.at(1) != QLatin1Char('='))
        return;
    const ushort type = line.at(0).unicode();
    if (type == 'm') {
        endSection();
        m_bInMedia = true;
        m_media = Accepted();
        accept('m', line.mid(2));
        return;
    }
    const char* rank = type > 0 && type < 128 ? std::strchr(kOrder, static_cast<char>(type)) : nullptr;
    if (rank != nullptr)
        m_section[static_cast<std::size_t>(rank - kOrder)].push_back(line.mid(2));
}

void SDP::Parser::endSection()
{
    for (std::size_t i = 0; i < m_section.size(); ++i) {
        for (const QStringRef& value : m_section[i])
            accept(kOrder[i], value);
        m_section[i].clear();
    }
}

void SDP::Parser::accept(char type, const QStringRef& value)
{
    Accepted& accepted = m_bInMedia ? m_media : m_session;
    const auto& table = m_bInMedia ? rules().media : rules().session;
    const bool bOrphan = !m_bInMedia && type == 'r' && m_sdp->m_timeDescs.isEmpty();
    if (bOrphan || !table[static_cast<std::size_t>(type - 'a')].admits(accepted))
        return;
    store(type, value);
    accepted.add(type);
}

void SDP::Parser::store(char type, const QStringRef& value)
{
    const Param param(nameOf(type), value.toString());
    if (m_bInMedia) {
        if (type == 'm')
            m_sdp->m_mediaDescs.append(ParamList());
        m_sdp->appendMediaParam(param);
    } else if (type == 't' || type == 'r') {
        if (type == 't')
            m_sdp->m_timeDescs.append(ParamList());
        m_sdp->m_timeDescs.last().append(param);
    } else {
        m_sdp->appendSessionParam(param);
    }
}
