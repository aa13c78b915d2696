// Private: cuts a multipart stream into its parts.
//
// Pulled, not pushing: feed() gives it a piece of the stream, next() is called until it says NeedMore. Lines
// and parts that lie whole in a piece are read in place, others are collected once. No byte is looked at more
// than a few times however the stream is cut.
//
// Boundaries are compared without their leading dashes, because some cameras announce them with, some
// without.
#pragma once

#include <KepNuvikaUtil/HttpReadLimits.h>

#include <QtCore/QByteArray>

#include <cstddef>
#include <string>
#include <string_view>

namespace Nuvika
{
class MultipartReader
{
public:
    enum class Event { NeedMore, Part, Skipped, Failed };

    // 1 to 70 characters (RFC 2046, 5.1.1) behind its leading dashes.
    static bool isUsableBoundary(const QByteArray& boundary);

    // The boundary parameter as announced, without quotes. One that is not usable fails the stream.
    void start(const QByteArray& boundary, const HttpReadLimits& limits);
    // The piece must stay in place until next() says NeedMore.
    void feed(const char* data, std::size_t size)
    {
        m_pIn = data;
        m_nIn = size;
    }
    Event next();

    // Of the part just reported; valid until the next call.
    const char* data() const { return m_pPart; }
    int size() const { return static_cast<int>(m_nPart); }
    const char* contentType() const { return m_contentType.c_str(); }

    // How many bytes were compared, searched or copied since start(): the measure of linear work.
    unsigned long long bytesLookedAt() const { return m_nLookedAt; }

private:
    enum class State { Boundary, Head, Sized, Unsized, Failed };
    enum class LineMatch { Dashes, Boundary, Other }; // of the line in hand, in a part without a length

    void consume(std::size_t size);
    std::size_t lineIn(const char* data, std::size_t size);
    std::size_t dashesIn(std::string_view text);
    bool isEqual(std::string_view a, std::string_view b);
    bool readLine(std::size_t limit, bool* bTooLong);
    void keepTail(const char* data, std::size_t size);
    Event readBoundary();
    Event readHead();
    Event readSized();
    Event readUnsized();
    bool isBoundaryLine(bool* bClosing);
    bool takeHeadLine();
    void beginContent();
    bool findBoundary();
    bool matchBoundary();
    Event finishUnsized(const char* begin);
    Event finishPart(const char* data, std::size_t size);
    Event fail();

    HttpReadLimits m_limits;
    const char* m_pIn = nullptr;
    std::size_t m_nIn = 0;
    State m_state = State::Boundary;
    std::string m_boundary; // without its leading dashes
    std::string_view m_line; // without its blanks and its end
    std::string m_lineStart; // of a line that came in pieces
    bool m_bSkipping = false;
    std::size_t m_nHeadSize = 0;
    long long m_nPartLength = -1;
    std::string m_contentType;
    std::string m_buffer; // the part so far, when it came in pieces
    LineMatch m_match = LineMatch::Dashes;
    std::size_t m_nMatched = 0; // of the dashes (two suffice), then of the boundary
    std::size_t m_nRead = 0; // of the part
    std::size_t m_nLineAt = 0; // where in the part the line in hand begins
    const char* m_pPart = nullptr;
    std::size_t m_nPart = 0;
    unsigned long long m_nLookedAt = 0;
};
} // namespace Nuvika
