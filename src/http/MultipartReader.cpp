#include "http/MultipartReader_p.h"

#include "http/HttpLimits_p.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

using namespace Nuvika;

namespace
{
constexpr std::size_t kMaxBoundary = 70;
constexpr std::size_t kMaxContentType = 255;
constexpr std::size_t kMaxLengthDigits = 256;
constexpr std::size_t kBoundaryLineSlack = 1024;
constexpr std::size_t kBoundaryLineTail = 8; // dashes and line end
constexpr std::size_t kDashes = 2; // begin a boundary line

std::string_view withoutLeadingDashes(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of('-'), text.size()));
    return text;
}

std::string_view view(const QByteArray& bytes)
{
    return {bytes.constData(), static_cast<std::size_t>(bytes.size())};
}

std::string_view trimmedRight(std::string_view text)
{
    return text.substr(0, text.find_last_not_of(" \t\r\n") + 1); // npos + 1 is 0
}

// Whether the head line has that name; cuts the line down to its value. Blanks around the colon are skipped.
bool takeFieldValue(std::string_view* line, std::string_view name)
{
    if (line->size() < name.size() || strncasecmp(line->data(), name.data(), name.size()) != 0)
        return false;
    std::size_t at = line->find_first_not_of(" \t", name.size());
    if (at == std::string_view::npos || (*line)[at] != ':')
        return false;
    at = line->find_first_not_of(" \t", at + 1);
    line->remove_prefix(std::min(at, line->size()));
    return true;
}
} // namespace

bool MultipartReader::isUsableBoundary(const QByteArray& boundary)
{
    const std::size_t size = withoutLeadingDashes(view(boundary)).size();
    return size > 0 && size <= kMaxBoundary;
}

void MultipartReader::start(const QByteArray& boundary, const HttpReadLimits& limits)
{
    *this = MultipartReader();
    m_limits = limits;
    if (isUsableBoundary(boundary))
        m_boundary = withoutLeadingDashes(view(boundary));
    else
        m_state = State::Failed;
}

MultipartReader::Event MultipartReader::next()
{
    Event event = Event::NeedMore;
    do {
        switch (m_state) {
        case State::Boundary:
            event = readBoundary();
            break;
        case State::Head:
            event = readHead();
            break;
        case State::Sized:
            event = readSized();
            break;
        case State::Unsized:
            event = readUnsized();
            break;
        case State::Failed:
            return Event::Failed;
        }
    } while (event == Event::NeedMore && (m_nIn > 0 || (m_state == State::Sized && m_nPartLength == 0)));
    return event;
}

MultipartReader::Event MultipartReader::fail()
{
    m_state = State::Failed;
    return Event::Failed;
}

// --- looking at bytes ------------------------------------------------------------------------------------

void MultipartReader::consume(std::size_t size)
{
    m_pIn += size;
    m_nIn -= size;
}

// Up to and with the next line end; 0 when there is none.
std::size_t MultipartReader::lineIn(const char* data, std::size_t size)
{
    const auto* end = size == 0 ? nullptr : static_cast<const char*>(std::memchr(data, '\n', size));
    const std::size_t n = end == nullptr ? 0 : static_cast<std::size_t>(end - data) + 1;
    m_nLookedAt += end == nullptr ? size : n;
    return n;
}

std::size_t MultipartReader::dashesIn(std::string_view text)
{
    const std::size_t n = std::min(text.find_first_not_of('-'), text.size());
    m_nLookedAt += n + 1;
    return n;
}

bool MultipartReader::isEqual(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    m_nLookedAt += a.size();
    return a == b;
}

// Makes m_line of the input up to its end. False when the line goes on behind the input.
bool MultipartReader::readLine(std::size_t limit, bool* bTooLong)
{
    const std::size_t line = lineIn(m_pIn, m_nIn);
    const std::size_t n = line == 0 ? m_nIn : line;
    *bTooLong = m_lineStart.size() + n > limit;
    m_line = {m_pIn, n};
    if (*bTooLong)
        keepTail(m_pIn, n);
    else if (line == 0 || !m_lineStart.empty())
        m_lineStart.append(m_pIn, n);
    if (!m_lineStart.empty()) {
        m_line = m_lineStart;
        m_nLookedAt += n;
    }
    consume(n);
    if (line != 0 || *bTooLong)
        m_line = trimmedRight(m_line);
    return line != 0;
}

// Of a line that is too long: a boundary may stand behind junk that has no line end.
void MultipartReader::keepTail(const char* data, std::size_t size)
{
    const std::size_t most = m_boundary.size() + kBoundaryLineTail;
    const std::size_t n = std::min(size, most);
    m_lineStart.erase(0, m_lineStart.size() - std::min(m_lineStart.size(), most - n));
    m_lineStart.append(data + size - n, n);
}

// --- between the parts -----------------------------------------------------------------------------------

bool MultipartReader::isBoundaryLine(bool* bClosing)
{
    std::string_view line = m_line;
    line.remove_prefix(dashesIn(line));
    *bClosing = line.size() == m_boundary.size() + kDashes && line.substr(m_boundary.size()) == "--"
        && isEqual(line.substr(0, m_boundary.size()), m_boundary);
    if (*bClosing || isEqual(line, m_boundary))
        return true;
    // Behind junk that has no line end.
    const std::size_t delimiter = kDashes + m_boundary.size();
    if (m_line.size() <= delimiter)
        return false;
    line = m_line.substr(m_line.size() - delimiter);
    return line.substr(0, kDashes) == "--" && isEqual(line.substr(kDashes), m_boundary);
}

MultipartReader::Event MultipartReader::readBoundary()
{
    m_buffer.clear(); // the part before has been read
    bool bTooLong = false;
    const bool bLine = readLine(m_boundary.size() + kBoundaryLineSlack, &bTooLong);
    if (!bLine && !bTooLong)
        return Event::NeedMore;
    bool bClosing = false;
    const bool bBoundary = bLine && !m_line.empty() && isBoundaryLine(&bClosing);
    const bool bSkipped = !bBoundary && !m_line.empty() && !m_bSkipping;
    if (bLine)
        m_lineStart.clear();
    if (bBoundary) {
        m_bSkipping = bClosing; // what follows the last part is no fault
        if (!bClosing) {
            m_state = State::Head;
            m_nHeadSize = 0;
            m_nPartLength = -1;
            m_contentType.clear();
        }
    }
    m_bSkipping = m_bSkipping || bSkipped;
    return bSkipped ? Event::Skipped : Event::NeedMore;
}

bool MultipartReader::takeHeadLine()
{
    std::string_view line = m_line;
    if (takeFieldValue(&line, "content-type")) {
        m_contentType = line.substr(0, kMaxContentType);
    } else if (takeFieldValue(&line, "content-length")) {
        if (line.empty() || line.size() > kMaxLengthDigits
            || line.find_first_not_of("0123456789") != std::string_view::npos)
            return false;
        long long length = 0;
        for (std::size_t i = 0; i < line.size() && length <= m_limits.nPart; ++i)
            length = length * 10 + (line[i] - '0');
        m_nPartLength = length;
        return length <= m_limits.nPart;
    }
    return true;
}

MultipartReader::Event MultipartReader::readHead()
{
    const auto limit = static_cast<std::size_t>(m_limits.nHead);
    const std::size_t before = m_nIn;
    bool bTooLong = false;
    const bool bLine = readLine(limit, &bTooLong);
    m_nHeadSize += before - m_nIn;
    if (bTooLong || m_nHeadSize > limit)
        return fail();
    if (!bLine)
        return Event::NeedMore;
    if (m_line.empty())
        beginContent();
    else if (!takeHeadLine())
        return fail();
    m_lineStart.clear();
    return Event::NeedMore;
}

// --- parts -----------------------------------------------------------------------------------------------

void MultipartReader::beginContent()
{
    m_state = m_nPartLength >= 0 ? State::Sized : State::Unsized;
    if (m_state == State::Sized)
        m_buffer.expect(static_cast<std::size_t>(m_nPartLength));
    m_match = LineMatch::Dashes;
    m_nMatched = 0;
    m_nRead = 0;
    m_nLineAt = 0;
}

MultipartReader::Event MultipartReader::finishPart(const char* data, std::size_t size)
{
    m_pPart = data;
    m_nPart = size;
    m_state = State::Boundary;
    m_bSkipping = false;
    return Event::Part;
}

MultipartReader::Event MultipartReader::readSized()
{
    const auto length = static_cast<std::size_t>(m_nPartLength);
    const std::size_t n = std::min(length - m_buffer.size(), m_nIn);
    const char* start = m_pIn;
    consume(n);
    if (m_buffer.isEmpty() && n == length)
        return finishPart(start, n);
    m_buffer.append(start, n);
    m_nLookedAt += n;
    return m_buffer.size() == length ? finishPart(m_buffer.data(), length) : Event::NeedMore;
}

iovec MultipartReader::target(std::size_t most)
{
    if (m_state != State::Sized || m_nIn > 0 || most == 0)
        return {};
    return m_buffer.room(std::min(static_cast<std::size_t>(m_nPartLength) - m_buffer.size(), most));
}

void MultipartReader::placed(std::size_t size)
{
    m_buffer.grow(size);
    feed(nullptr, 0);
}

// A part without a length ends where a line starts with the boundary.
MultipartReader::Event MultipartReader::readUnsized()
{
    const char* begin = m_pIn;
    const bool bFound = findBoundary();
    if ((bFound ? m_nLineAt : m_nRead) > static_cast<std::size_t>(m_limits.nPart))
        return fail();
    if (bFound)
        return finishUnsized(begin);
    m_buffer.append(begin, static_cast<std::size_t>(m_pIn - begin));
    m_nLookedAt += static_cast<std::size_t>(m_pIn - begin);
    return Event::NeedMore;
}

// Consumes the input up to the end of the boundary, or all of it. No byte needs a second look: a boundary
// does not begin with a dash, so that what does not match cannot begin a match inside the same line.
bool MultipartReader::findBoundary()
{
    while (m_nIn > 0) {
        if (m_match != LineMatch::Other) {
            if (matchBoundary())
                return true;
            continue;
        }
        const std::size_t line = lineIn(m_pIn, m_nIn);
        const std::size_t n = line == 0 ? m_nIn : line;
        m_nRead += n;
        consume(n);
        if (line != 0) {
            m_match = LineMatch::Dashes;
            m_nMatched = 0;
            m_nLineAt = m_nRead;
        }
    }
    return false;
}

// One step: over the dashes of the line in hand, or over as much of the boundary as is here.
bool MultipartReader::matchBoundary()
{
    std::size_t n = 0;
    if (m_match == LineMatch::Dashes) {
        n = dashesIn({m_pIn, m_nIn});
        m_nMatched = std::min(m_nMatched + n, kDashes);
        if (n < m_nIn) {
            m_match = m_nMatched == kDashes ? LineMatch::Boundary : LineMatch::Other;
            m_nMatched = 0;
        }
    } else {
        n = std::min(m_boundary.size() - m_nMatched, m_nIn);
        if (isEqual({m_pIn, n}, std::string_view(m_boundary).substr(m_nMatched, n))) {
            m_nMatched += n;
        } else {
            m_match = LineMatch::Other;
            n = 0;
        }
    }
    m_nRead += n;
    consume(n);
    return m_match == LineMatch::Boundary && m_nMatched == m_boundary.size();
}

MultipartReader::Event MultipartReader::finishUnsized(const char* begin)
{
    if (m_nLineAt >= m_buffer.size()) { // the boundary line begins here, and is read from here
        const std::size_t back = m_nRead - m_nLineAt;
        m_pIn -= back;
        m_nIn += back;
    } else {
        m_lineStart = "--" + m_boundary;
    }
    const char* data = begin;
    if (!m_buffer.isEmpty()) {
        if (m_nLineAt > m_buffer.size()) {
            m_nLookedAt += m_nLineAt - m_buffer.size();
            m_buffer.append(begin, m_nLineAt - m_buffer.size());
        }
        data = m_buffer.data();
    }
    std::size_t size = m_nLineAt;
    if (size > 0 && data[size - 1] == '\n')
        --size;
    if (size > 0 && data[size - 1] == '\r')
        --size;
    return finishPart(data, size);
}
