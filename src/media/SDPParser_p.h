// Private: reads a session description into an SDP, one section (the session, then each media section) after
// the other, in time linear in the text.
#pragma once

#include <KepNuvikaUtil/SDP.h>

#include <array>
#include <vector>

class SDP::Parser
{
public:
    explicit Parser(SDP* sdp) : m_sdp(sdp) { }
    void parse(const QString& text);

private:
    // Which types a section has accepted so far.
    struct Accepted {
        int count = 0;
        quint32 letters = 0; // bit 0 for 'a'
        void add(char type)
        {
            ++count;
            letters |= bit(type);
        }
        static quint32 bit(char type) { return 1U << (type - 'a'); }
    };
    struct Rule {
        quint32 needed; // one letter, or none
        int nLeast;
        int nMost;
        quint32 excluded;
        bool admits(const Accepted& accepted) const;
    };
    struct Rules {
        std::array<Rule, 26> session;
        std::array<Rule, 26> media;
    };
    static constexpr int kTypes = 14; // all but "m", which ends a section

    static const Rules& rules();
    void takeLine(const QStringRef& line);
    void endSection();
    void accept(char type, const QStringRef& value);
    void store(char type, const QStringRef& value);

    SDP* m_sdp;
    std::array<std::vector<QStringRef>, kTypes> m_section; // its lines by type, in input order
    Accepted m_session;
    Accepted m_media;
    bool m_bInMedia = false;
};
