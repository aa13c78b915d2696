// Private: reads a session description into an SDP, one section (the session, then each media section) after
// the other, in time linear in the text.
#pragma once

#include <KepNuvikaUtil/SDP.h>

#include <QtCore/QStringView>

#include <array>
#include <vector>

class SDP::Parser
{
public:
    explicit Parser(SDP* sdp);
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

    struct Line {
        std::size_t nRank; // of its type
        QStringView value;
    };

    static const Rules& rules();
    void takeLine(QStringView line);
    void endSection();
    void beginStoring();
    void accept(char type, QStringView value);
    void store(char type, QStringView value);

    SDP* m_sdp;
    std::vector<Line> m_section; // its lines in input order
    std::vector<QStringView> m_sorted; // their values by type
    std::vector<QString> m_cleaned; // lines that held a carriage return
    QStringView m_mediaLine; // of the section
    Accepted m_session;
    Accepted m_media;
    bool m_bInMedia = false;
};
