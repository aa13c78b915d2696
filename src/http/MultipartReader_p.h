// Private: cuts a multipart stream into its parts.
//
// Pulled, not pushing: feed() gives it a piece of the stream, next() is called until it says NeedMore. Parts
// that lie whole in a piece are handed out in place, others are collected once. Time is linear in the bytes
// however they are cut.
//
// Boundaries are compared without their leading dashes, because some cameras announce them with, some
// without.
#pragma once

#include <KepNuvikaUtil/HttpReadLimits.h>

#include <QtCore/QByteArray>

#include <cstddef>
#include <string>

namespace Nuvika
{
class MultipartReader
{
public:
    enum class Event { NeedMore, Part, Skipped, Failed };

    // The boundary parameter as announced, without quotes.
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

private:
    enum class State { Boundary, Head, Sized, Unsized, Failed };

    bool readLine(std::size_t limit, bool* bTooLong);
    Event readBoundary();
    Event readHead();
    Event readSized();
    Event readUnsized();
    bool isBoundaryLine(bool* bClosing) const;
    bool takeHeadLine();
    Event finishPart(const char* data, std::size_t size);
    Event fail();

    HttpReadLimits m_limits;
    const char* m_pIn = nullptr;
    std::size_t m_nIn = 0;
    State m_state = State::Boundary;
    std::string m_boundary; // without its leading dashes
    std::string m_line;
    bool m_bLineDone = false;
    bool m_bSkipping = false;
    std::size_t m_nHeadSize = 0;
    long long m_nPartLength = -1;
    std::string m_contentType;
    std::string m_buffer; // the part so far, when it came in pieces
    std::size_t m_nSearched = 0;
    const char* m_pPart = nullptr;
    std::size_t m_nPart = 0;
};
} // namespace Nuvika
