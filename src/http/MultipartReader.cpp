#include "http/MultipartReader_p.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

using namespace Nuvika;

namespace
{
constexpr std::size_t kMaxContentType = 255;
constexpr std::size_t kMaxLengthDigits = 256;
constexpr std::size_t kBoundaryLineSlack = 1024;
constexpr std::size_t kBoundaryLineTail = 8; // dashes and line end

std::string withoutLeadingDashes(std::string text)
{
    text.erase(0, std::min(text.find_first_not_of('-'), text.size()));
    return text;
}

void trimRight(std::string* text)
{
    const std::size_t last = text->find_last_not_of(" \t\r\n");
    text->erase(last == std::string::npos ? 0 : last + 1);
}

// The value of a head line of that name, or null. Blanks around the colon are skipped.
const char* fieldValue(const std::string& line, const char* name)
{
    const std::size_t length = std::strlen(name);
    if (strncasecmp(line.c_str(), name, length) != 0)
        return nullptr;
    std::size_t at = std::min(line.find_first_not_of(" \t", length), line.size());
    if (at == line.size() || line[at] != ':')
        return nullptr;
    at = std::min(line.find_first_not_of(" \t", at + 1), line.size());
    return line.c_str() + at;
}
} // namespace

void MultipartReader::start(const QByteArray& boundary, const HttpReadLimits& limits)
{
    *this = MultipartReader();
    m_limits = limits;
    m_boundary = withoutLeadingDashes(boundary.toStdString());
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

// Adds input to the line up to its end. False when the line goes on behind the input.
bool MultipartReader::readLine(std::size_t limit, bool* bTooLong)
{
    if (m_bLineDone) {
        m_line.clear();
        m_bLineDone = false;
    }
    const auto* end = static_cast<const char*>(std::memchr(m_pIn, '\n', m_nIn));
    const std::size_t n = end == nullptr ? m_nIn : static_cast<std::size_t>(end - m_pIn) + 1;
    *bTooLong = m_line.size() + n > limit;
    if (*bTooLong) { // its end is kept: a boundary may stand behind junk that has no line end
        const std::size_t tail = std::min(n, m_boundary.size() + kBoundaryLineTail);
        m_line.assign(m_pIn + n - tail, tail);
    } else {
        m_line.append(m_pIn, n);
    }
    m_pIn += n;
    m_nIn -= n;
    m_bLineDone = end != nullptr;
    return m_bLineDone;
}

bool MultipartReader::isBoundaryLine(bool* bClosing) const
{
    const std::string line = withoutLeadingDashes(m_line);
    *bClosing = line == m_boundary + "--";
    if (*bClosing || line == m_boundary)
        return true;
    const std::string delimiter = "--" + m_boundary; // behind junk that has no line end
    return m_line.size() > delimiter.size()
        && m_line.compare(m_line.size() - delimiter.size(), delimiter.size(), delimiter) == 0;
}

MultipartReader::Event MultipartReader::readBoundary()
{
    bool bTooLong = false;
    const bool bLine = readLine(m_boundary.size() + kBoundaryLineSlack, &bTooLong);
    if (bLine)
        trimRight(&m_line);
    if ((!bLine && !bTooLong) || m_line.empty())
        return Event::NeedMore;
    bool bClosing = false;
    if (bLine && isBoundaryLine(&bClosing)) {
        m_bSkipping = bClosing; // what follows the last part is no fault
        if (!bClosing) {
            m_state = State::Head;
            m_nHeadSize = 0;
            m_nPartLength = -1;
            m_contentType.clear();
        }
        return Event::NeedMore;
    }
    const bool bFirst = !m_bSkipping;
    m_bSkipping = true;
    return bFirst ? Event::Skipped : Event::NeedMore;
}

bool MultipartReader::takeHeadLine()
{
    if (const char* type = fieldValue(m_line, "content-type")) {
        m_contentType.assign(type, strnlen(type, kMaxContentType));
    } else if (const char* text = fieldValue(m_line, "content-length")) {
        const std::size_t digits = std::strspn(text, "0123456789");
        if (digits == 0 || digits > kMaxLengthDigits || text[digits] != '\0')
            return false;
        long long length = 0;
        for (std::size_t i = 0; i < digits && length <= m_limits.nPart; ++i)
            length = length * 10 + (text[i] - '0');
        m_nPartLength = length;
        return length <= m_limits.nPart;
    }
    return true;
}

MultipartReader::Event MultipartReader::readHead()
{
    bool bTooLong = false;
    const bool bLine = readLine(static_cast<std::size_t>(m_limits.nHead), &bTooLong);
    if (bTooLong)
        return fail();
    if (!bLine)
        return Event::NeedMore;
    m_nHeadSize += m_line.size();
    trimRight(&m_line);
    if (!m_line.empty())
        return m_nHeadSize > static_cast<std::size_t>(m_limits.nHead) || !takeHeadLine() ? fail()
                                                                                         : Event::NeedMore;
    m_state = m_nPartLength >= 0 ? State::Sized : State::Unsized;
    m_buffer.clear();
    m_nSearched = 0;
    return Event::NeedMore;
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
    m_pIn += n;
    m_nIn -= n;
    if (m_buffer.empty() && n == length)
        return finishPart(start, n);
    m_buffer.append(start, n);
    return m_buffer.size() == length ? finishPart(m_buffer.data(), length) : Event::NeedMore;
}

// A part without a length ends where a line starts with the boundary.
MultipartReader::Event MultipartReader::readUnsized()
{
    const std::size_t before = m_buffer.size();
    if (before + m_nIn > static_cast<std::size_t>(m_limits.nPart))
        return fail();
    m_buffer.append(m_pIn, m_nIn);
    const std::string delimiter = "--" + m_boundary;
    for (std::size_t at = m_nSearched; (at = m_buffer.find(delimiter, at)) != std::string::npos; ++at) {
        std::size_t lineStart = at;
        while (lineStart > 0 && m_buffer[lineStart - 1] == '-')
            --lineStart;
        if (lineStart > 0 && m_buffer[lineStart - 1] != '\n')
            continue;
        // The boundary line is read again, from the rest of the input and what of it came earlier.
        const std::size_t fromInput = std::max(lineStart, before);
        m_line = m_buffer.substr(lineStart, fromInput - lineStart);
        m_bLineDone = false;
        m_pIn += fromInput - before;
        m_nIn -= fromInput - before;
        std::size_t size = lineStart;
        if (size > 0 && m_buffer[size - 1] == '\n')
            --size;
        if (size > 0 && m_buffer[size - 1] == '\r')
            --size;
        return finishPart(m_buffer.data(), size);
    }
    m_nSearched = m_buffer.size() - std::min(m_buffer.size(), delimiter.size() - 1);
    m_pIn += m_nIn;
    m_nIn = 0;
    return Event::NeedMore;
}
