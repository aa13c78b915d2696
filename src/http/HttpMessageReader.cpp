#include "http/HttpMessageReader_p.h"

#include <KepNuvikaUtil/HttpHeader.h>

#include "http/HttpHeader_p.h"
#include "http/HttpLimits_p.h"
#include "http/HttpStrict_p.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>

using namespace Nuvika;

namespace
{
const QLatin1String kContentLength("content-length");
const QLatin1String kTransferEncoding("transfer-encoding");
const QLatin1String kConnection("connection");
const QLatin1String kContentType("content-type");
const QLatin1String kChunked("chunked");

// Digits only, and 31 bits at most.
bool parseLength(QStringView text, long long* length)
{
    if (text.isEmpty())
        return false;
    long long value = 0;
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
        value = value * 10 + c.digitValue();
        if (value > HttpLimits::kMaxLength)
            return false;
    }
    *length = value;
    return true;
}

QByteArray boundaryOf(const QString& contentType)
{
    const QString key = QStringLiteral("boundary=");
    const int at = contentType.indexOf(key, 0, Qt::CaseInsensitive);
    if (at < 0)
        return QByteArray();
    QString text = contentType.mid(at + key.size());
    if (text.startsWith(QLatin1Char('"'))) {
        const int end = text.indexOf(QLatin1Char('"'), 1);
        text = text.mid(1, end < 0 ? -1 : end - 1);
    } else {
        const int end = text.indexOf(QLatin1Char(';'));
        text = text.left(end < 0 ? text.size() : end).trimmed();
    }
    return text.toLatin1();
}

// Calls visit(member) for each member of a field's comma-separated list, which may stand in several fields.
template <class Visit>
void forEachMember(const HttpHeader& header, QLatin1String key, Visit visit)
{
    const HttpFieldList& fields = HttpHeaderPrivate::fieldsOf(header);
    for (int i = -1; (i = fields.find(key, i + 1)) >= 0;) {
        const QStringView list = fields.value(i);
        for (qsizetype from = 0; from <= list.size();) {
            const qsizetype comma = list.indexOf(QLatin1Char(','), from);
            const qsizetype end = comma < 0 ? list.size() : comma;
            const QStringView member = list.mid(from, end - from).trimmed();
            if (!member.isEmpty())
                visit(member);
            from = end + 1;
        }
    }
}

bool isWord(QStringView text, QLatin1String word) { return text.compare(word, Qt::CaseInsensitive) == 0; }

struct Codings {
    int nChunked = 0;
    bool bLastIsChunked = false;
};

Codings codingsOf(const HttpHeader& header)
{
    Codings codings;
    forEachMember(header, kTransferEncoding, [&](QStringView coding) {
        codings.bLastIsChunked = isWord(coding, kChunked);
        codings.nChunked += codings.bLastIsChunked ? 1 : 0;
    });
    return codings;
}
} // namespace

HttpBody HttpBody::fromFields(const HttpHeader& header, Kind otherwise)
{
    HttpBody body;
    body.kind = otherwise;
    const HttpFieldList& fields = HttpHeaderPrivate::fieldsOf(header);
    const int length = fields.find(kContentLength);
    if (length >= 0) {
        body.kind = Length;
        body.bInvalid = !parseLength(fields.value(length), &body.nLength);
        for (int i = length; (i = fields.find(kContentLength, i + 1)) >= 0;)
            body.bInvalid = body.bInvalid || fields.value(i) != fields.value(length);
    }
    const int coding = fields.find(kTransferEncoding);
    const bool bChunked
        = coding >= 0 && (length >= 0 ? fields.value(coding) == kChunked : codingsOf(header).bLastIsChunked);
    if (bChunked) {
        body.kind = Chunked;
        body.bAmbiguous = length >= 0;
        body.bInvalid = false;
    }
    return body;
}

void HttpBody::detectMultipart(const HttpHeader& header)
{
    const HttpFieldList& fields = HttpHeaderPrivate::fieldsOf(header);
    const int i = fields.find(kContentType);
    if (i < 0)
        return;
    const QStringView type = fields.value(i);
    const qsizetype semicolon = type.indexOf(QLatin1Char(';'));
    bMultipart = isWord(type.left(semicolon < 0 ? type.size() : semicolon).trimmed(),
        QLatin1String("multipart/x-mixed-replace"));
    if (bMultipart)
        boundary = boundaryOf(type.toString());
}

// Chunks framed twice, or in a coding that has no end, are framed for others than us.
bool Nuvika::hasForeignCoding(const HttpHeader& header)
{
    if (HttpHeaderPrivate::fieldsOf(header).find(kTransferEncoding) < 0)
        return false;
    const Codings codings = codingsOf(header);
    return codings.nChunked != 1 || !codings.bLastIsChunked;
}

bool Nuvika::wantsClose(const HttpHeader& header)
{
    bool bClose = false;
    bool bKeepAlive = false;
    forEachMember(header, kConnection, [&](QStringView option) {
        bClose = bClose || isWord(option, QLatin1String("close"));
        bKeepAlive = bKeepAlive || isWord(option, QLatin1String("keep-alive"));
    });
    if (bClose)
        return true;
    const bool bOldVersion
        = header.majorVersion() < 1 || (header.majorVersion() == 1 && header.minorVersion() < 1);
    return bOldVersion && !bKeepAlive;
}

void HttpMessageReader::reset()
{
    m_pIn = nullptr;
    m_nIn = 0;
    m_state = State::Head;
    m_lineEnd = LineEnd::Start;
    m_head.clear();
    m_line.clear();
    m_multipart.reset(); // or it would claim the next body's bytes
    m_bPartsWait = false;
}

HttpMessageReader::Event HttpMessageReader::fail()
{
    m_state = State::Failed;
    return Event::Failed;
}

HttpMessageReader::Event HttpMessageReader::finish()
{
    m_state = State::Head;
    m_lineEnd = LineEnd::Start;
    m_multipart.reset(); // a large part's memory
    return Event::End;
}

HttpMessageReader::Event HttpMessageReader::next()
{
    Event event = Event::NeedMore;
    do {
        if (m_bPartsWait) {
            event = nextPart();
            continue;
        }
        const bool bBodyComplete = m_state == State::Length && m_nLeft == 0;
        if (m_nIn == 0 && !bBodyComplete && m_state != State::Failed)
            return Event::NeedMore;
        switch (m_state) {
        case State::Head:
            event = readHead();
            break;
        case State::Length:
            event = readLength();
            break;
        case State::UntilEnd:
            event = deliver(m_nIn);
            break;
        case State::ChunkSize:
            event = readChunkSize();
            break;
        case State::ChunkData:
            event = readChunkData();
            break;
        case State::ChunkEnd:
        case State::ChunkEndLf:
            event = readChunkEnd();
            break;
        case State::Trailer:
            event = readTrailer();
            break;
        case State::AwaitBody:
        case State::Failed:
            return Event::Failed;
        }
    } while (event == Event::NeedMore && (m_nIn > 0 || m_bPartsWait));
    return event;
}

// --- head ----------------------------------------------------------------------------------------------

// The bytes of the input that belong to the head, found in one look at each.
std::size_t HttpMessageReader::scanHead(bool* bComplete)
{
    std::size_t i = 0;
    while (m_lineEnd == LineEnd::Start && i < m_nIn && (m_pIn[i] == '\r' || m_pIn[i] == '\n'))
        ++i; // empty lines before a head are nothing
    m_pIn += i;
    m_nIn -= i;
    for (i = 0; i < m_nIn; ++i) {
        if (m_lineEnd == LineEnd::Start || m_lineEnd == LineEnd::Inside) {
            const void* found = std::memchr(m_pIn + i, '\n', m_nIn - i);
            m_lineEnd = found == nullptr ? LineEnd::Inside : LineEnd::Lf;
            if (found == nullptr)
                return m_nIn;
            i = static_cast<std::size_t>(static_cast<const char*>(found) - m_pIn);
        } else if (m_pIn[i] == '\n') {
            *bComplete = true;
            return i + 1;
        } else {
            m_lineEnd = m_lineEnd == LineEnd::Lf && m_pIn[i] == '\r' ? LineEnd::LfCr : LineEnd::Inside;
        }
    }
    return m_nIn;
}

HttpMessageReader::Event HttpMessageReader::readHead()
{
    bool bComplete = false;
    const std::size_t n = scanHead(&bComplete);
    if (m_head.size() + n > static_cast<std::size_t>(m_limits.nHead))
        return fail();
    m_pData = m_pIn;
    m_nData = n;
    m_pIn += n;
    m_nIn -= n;
    if (!bComplete || !m_head.empty()) {
        m_head.append(m_pData, n);
        m_pData = m_head.data();
        m_nData = m_head.size();
    }
    if (!bComplete)
        return Event::NeedMore;
    m_state = State::AwaitBody;
    return Event::Head;
}

void HttpMessageReader::setBody(const HttpBody& body)
{
    std::string().swap(m_head); // up to the limit of a head, which an idle connection is not to keep
    m_line.clear();
    m_body = body;
    m_nLeft = body.nLength;
    m_nTrailerSize = 0;
    if (body.bMultipart)
        m_multipart.emplace().start(body.boundary, m_limits);
    switch (body.kind) {
    case HttpBody::None:
        m_nLeft = 0;
        m_state = State::Length;
        break;
    case HttpBody::Length:
        m_state = State::Length;
        break;
    case HttpBody::Chunked:
        m_state = State::ChunkSize;
        break;
    case HttpBody::UntilEnd:
        m_state = State::UntilEnd;
        break;
    }
}

// --- body ----------------------------------------------------------------------------------------------

HttpMessageReader::Event HttpMessageReader::deliver(std::size_t size)
{
    if (size == 0)
        return Event::NeedMore;
    m_pData = m_pIn;
    m_nData = size;
    m_pIn += size;
    m_nIn -= size;
    if (!m_body.bMultipart)
        return Event::Content;
    m_multipart->feed(m_pData, m_nData);
    m_bPartsWait = true;
    return Event::NeedMore;
}

HttpMessageReader::Event HttpMessageReader::nextPart()
{
    switch (m_multipart->next()) {
    case MultipartReader::Event::Part:
        m_pData = m_multipart->data();
        m_nData = static_cast<std::size_t>(m_multipart->size());
        return Event::Part;
    case MultipartReader::Event::Skipped:
        return Event::PartSkipped;
    case MultipartReader::Event::Failed:
        m_bPartsWait = false;
        return fail();
    case MultipartReader::Event::NeedMore:
        break;
    }
    m_bPartsWait = false;
    // What the last bytes of a body complete must not wait for more of them.
    if (m_state == State::Length && m_nLeft == 0)
        return finish();
    return Event::NeedMore;
}

std::size_t HttpMessageReader::contentAhead() const
{
    if (m_nIn > 0 || m_bPartsWait)
        return 0;
    if (m_state == State::UntilEnd)
        return std::numeric_limits<std::size_t>::max();
    return m_state == State::Length || m_state == State::ChunkData ? static_cast<std::size_t>(m_nLeft) : 0;
}

void HttpMessageReader::contentPlaced(std::size_t size)
{
    if (m_state != State::UntilEnd)
        m_nLeft -= static_cast<long long>(size);
    if (m_state == State::ChunkData && m_nLeft == 0)
        m_state = State::ChunkEnd;
}

void HttpMessageReader::partPlaced(std::size_t size)
{
    contentPlaced(size);
    m_multipart->placed(size);
    m_bPartsWait = true;
}

HttpMessageReader::Event HttpMessageReader::readLength()
{
    if (m_nLeft == 0)
        return finish();
    const auto n = static_cast<std::size_t>(std::min<long long>(m_nLeft, static_cast<long long>(m_nIn)));
    m_nLeft -= static_cast<long long>(n);
    return deliver(n);
}

// Adds input to the line up to its end; false when the line goes on behind the input.
bool HttpMessageReader::takeLine(std::size_t limit, bool* bTooLong)
{
    const auto* end = static_cast<const char*>(std::memchr(m_pIn, '\n', m_nIn));
    const std::size_t n = end == nullptr ? m_nIn : static_cast<std::size_t>(end - m_pIn) + 1;
    *bTooLong = m_line.size() + n > limit;
    if (!*bTooLong)
        m_line.append(m_pIn, n);
    m_pIn += n;
    m_nIn -= n;
    return end != nullptr;
}

bool HttpMessageReader::parseChunkSize()
{
    const std::size_t start = std::min(m_line.find_first_not_of(" \t"), m_line.size());
    std::size_t i = start;
    long long size = 0;
    for (; i < m_line.size() && std::isxdigit(static_cast<unsigned char>(m_line[i])) != 0; ++i) {
        const int c = std::tolower(static_cast<unsigned char>(m_line[i]));
        size = size * 16 + (c <= '9' ? c - '0' : c - 'a' + 10);
        if (size > HttpLimits::kMaxLength)
            return false;
    }
    m_nLeft = size;
    return i > start;
}

HttpMessageReader::Event HttpMessageReader::readChunkSize()
{
    bool bTooLong = false;
    const bool bLine = takeLine(static_cast<std::size_t>(m_limits.nChunkSizeLine), &bTooLong);
    if (bTooLong)
        return fail();
    if (!bLine)
        return Event::NeedMore;
    if (!parseChunkSize() || (m_grade == Strict && !isStrictChunkLine(m_line)))
        return fail();
    m_line.clear();
    m_state = m_nLeft == 0 ? State::Trailer : State::ChunkData;
    return Event::NeedMore;
}

HttpMessageReader::Event HttpMessageReader::readChunkData()
{
    const auto n = static_cast<std::size_t>(std::min<long long>(m_nLeft, static_cast<long long>(m_nIn)));
    m_nLeft -= static_cast<long long>(n);
    if (m_nLeft == 0)
        m_state = State::ChunkEnd;
    return deliver(n);
}

HttpMessageReader::Event HttpMessageReader::readChunkEnd()
{
    const char c = *m_pIn++;
    --m_nIn;
    if (c == '\n' && (m_grade == Lenient || m_state == State::ChunkEndLf))
        m_state = State::ChunkSize;
    else if (c == '\r' && (m_grade == Lenient || m_state == State::ChunkEnd))
        m_state = State::ChunkEndLf;
    else
        return fail();
    return Event::NeedMore;
}

HttpMessageReader::Event HttpMessageReader::readTrailer()
{
    bool bTooLong = false;
    const bool bLine = takeLine(static_cast<std::size_t>(m_limits.nHead), &bTooLong);
    if (bTooLong)
        return fail();
    if (!bLine)
        return Event::NeedMore;
    m_nTrailerSize += m_line.size();
    const bool bEmpty = m_line == "\r\n" || m_line == "\n";
    if (m_nTrailerSize > static_cast<std::size_t>(m_limits.nHead)
        || (m_grade == Strict && !isStrictTrailerLine(m_line)))
        return fail();
    m_line.clear();
    return bEmpty ? finish() : Event::NeedMore;
}

// --- ends ----------------------------------------------------------------------------------------------

bool HttpMessageReader::endOfStream()
{
    // A server that ends behind its last chunk, without the empty line, has said all there was.
    if ((m_state == State::UntilEnd && !m_body.bMultipart) || (m_state == State::Trailer && m_line.empty())) {
        finish();
        return true;
    }
    return false;
}

QByteArray HttpMessageReader::takeRest()
{
    QByteArray rest(m_pIn, static_cast<int>(m_nIn));
    m_nIn = 0;
    return rest;
}

bool HttpMessageReader::hasOnlyLineEndsLeft() const
{
    return std::all_of(m_pIn, m_pIn + m_nIn, [](char c) { return c == '\r' || c == '\n'; });
}
