#include "rtsp/RtspMessageReader_p.h"

#include <algorithm>
#include <cstring>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr std::size_t kPacketHead = 4; // '$', channel, length
constexpr std::size_t kLongestMethod = 24;
constexpr std::size_t kDeciding = 32; // bytes that decide what begins, and some
constexpr std::size_t kLeastPacket = 8; // the shortest packet of RTCP
constexpr char kAnswer[] = "RTSP/";
constexpr std::size_t kAnswerSize = sizeof kAnswer - 1;

bool isLineEnd(char c) { return c == '\r' || c == '\n'; }
bool isMethodLetter(char c) { return (c >= 'A' && c <= 'Z') || c == '_'; }

std::size_t packetSize(const char* p)
{
    return static_cast<std::size_t>(static_cast<unsigned char>(p[2])) << 8U
        | static_cast<unsigned char>(p[3]);
}

HttpReadLimits headLimits(int nHead)
{
    HttpReadLimits limits;
    limits.nHead = nHead;
    return limits;
}
} // namespace

RtspMessageReader::RtspMessageReader(const RtspLimits& limits) : m_limits(limits)
{
    m_heads.setLimits(headLimits(limits.nHead));
}

// --- input -----------------------------------------------------------------------------------------------

void RtspMessageReader::feed(const char* data, int size)
{
    m_pNext = data;
    m_nNext = static_cast<std::size_t>(size);
    if (m_nIn > 0)
        refill();
    else
        consume(0);
}

// Passes to what was received when the front is read.
void RtspMessageReader::consume(std::size_t n)
{
    m_pIn += n;
    m_nIn -= n;
    m_nPosition += n;
    if (m_nIn == 0 && m_nNext > 0) {
        m_pIn = std::exchange(m_pNext, nullptr);
        m_nIn = std::exchange(m_nNext, 0);
        m_bInFront = false;
    }
}

// The bytes at hand do not decide: keeps them, and adds some of those behind. False when there are none.
bool RtspMessageReader::refill()
{
    const std::size_t more = std::min(m_nNext, kDeciding);
    QByteArray front(m_pIn, static_cast<int>(m_nIn));
    front.append(m_pNext, static_cast<int>(more));
    m_pNext += more;
    m_nNext -= more;
    m_front = front;
    m_pIn = m_front.constData();
    m_nIn = static_cast<std::size_t>(m_front.size());
    m_bInFront = true;
    return more > 0;
}

RtspMessageReader::Event RtspMessageReader::next()
{
    m_event = Event::NeedMore;
    while (m_event == Event::NeedMore) {
        if (m_state == State::Failed)
            return Event::Failed;
        if (m_nIn == 0)
            return Event::NeedMore;
        bool bGoesOn = true;
        switch (m_state) {
        case State::Between:
            bGoesOn = readBetween();
            break;
        case State::Head:
            bGoesOn = readHead();
            break;
        case State::Packet:
            readPacket();
            break;
        case State::Body:
            readBody();
            break;
        case State::Failed:
            break;
        }
        if (!bGoesOn)
            return Event::NeedMore;
    }
    return m_event;
}

void RtspMessageReader::fail(const QString& problem)
{
    m_problem = problem + QStringLiteral(" (byte %1)").arg(m_nPosition);
    m_state = State::Failed;
    m_event = Event::Failed;
    m_front.clear();
    m_memory.clear();
    m_body.clear();
    m_heads.reset();
}

// --- between messages ------------------------------------------------------------------------------------

// In its place: the version of an answer, or a word of capitals and a blank.
RtspMessageReader::Start RtspMessageReader::startOf(const char* p, std::size_t n) const
{
    if (*p == '$')
        return n < kPacketHead ? Start::Undecided : Start::Packet;
    std::size_t word = 0;
    while (word < n && word < kLongestMethod && isMethodLetter(p[word]))
        ++word;
    if (word == n)
        return n < kLongestMethod ? Start::Undecided : Start::Stray;
    const bool bAnswer = word + 1 == kAnswerSize && std::memcmp(p, kAnswer, kAnswerSize) == 0;
    return bAnswer || (word > 0 && p[word] == ' ') ? Start::Message : Start::Stray;
}

RtspMessageReader::Start RtspMessageReader::packetAmongStrays(const char* p, std::size_t n) const
{
    if (*p == 'R') {
        const std::size_t here = std::min(n, kAnswerSize);
        if (std::memcmp(p, kAnswer, here) != 0)
            return Start::Stray;
        return here < kAnswerSize ? Start::Undecided : Start::Message;
    }
    if (*p != '$')
        return Start::Stray;
    if (n <= kPacketHead)
        return Start::Undecided;
    const std::size_t behind = kPacketHead + packetSize(p);
    const bool bPlausible = m_channels.test(static_cast<unsigned char>(p[1])) && packetSize(p) >= kLeastPacket
        && static_cast<unsigned char>(p[kPacketHead]) >> 6U == 2
        && (n <= behind || p[behind] == '$' || isLineEnd(p[behind]) || isMethodLetter(p[behind]));
    return bPlausible ? Start::Packet : Start::Stray;
}

// False when nothing can be decided before more is here.
bool RtspMessageReader::readBetween()
{
    if (!m_bAmongStrays && isLineEnd(*m_pIn)) {
        consume(1);
        return true;
    }
    switch (m_bAmongStrays ? packetAmongStrays(m_pIn, m_nIn) : startOf(m_pIn, m_nIn)) {
    case Start::Undecided:
        return refill();
    case Start::Stray:
        consume(1);
        countStrays(1);
        return true;
    case Start::Packet:
        beginPacket();
        break;
    case Start::Message:
        m_state = State::Head;
        m_bLineStart = false;
        break;
    }
    m_bAmongStrays = false;
    return true;
}

void RtspMessageReader::countStrays(std::size_t n)
{
    m_bAmongStrays = true;
    m_nStrays += n;
    m_nRow += n;
    if (m_nRow > static_cast<std::size_t>(m_limits.nStray))
        fail(QStringLiteral("more than %1 bytes that are neither RTSP nor packets").arg(m_limits.nStray));
}

// --- packets ---------------------------------------------------------------------------------------------

void RtspMessageReader::reportPacket(const char* data, std::size_t size)
{
    m_pData = data;
    m_nData = static_cast<int>(size);
    m_nRow = 0;
    m_state = m_bInHead ? State::Head : State::Between;
    m_bInHead = false;
    m_event = Event::Packet;
}

// Its head is here.
void RtspMessageReader::beginPacket()
{
    m_nChannel = static_cast<unsigned char>(m_pIn[1]);
    m_nPacket = packetSize(m_pIn);
    consume(kPacketHead);
    if (m_nIn >= m_nPacket) {
        const char* data = m_pIn;
        m_memory = m_bInFront ? m_front : QByteArray();
        consume(m_nPacket);
        reportPacket(data, m_nPacket);
        return;
    }
    m_memory = QByteArray();
    m_memory.reserve(static_cast<int>(m_nPacket));
    m_state = State::Packet;
}

void RtspMessageReader::readPacket()
{
    const std::size_t n = std::min(m_nIn, m_nPacket - static_cast<std::size_t>(m_memory.size()));
    m_memory.append(m_pIn, static_cast<int>(n));
    consume(n);
    if (static_cast<std::size_t>(m_memory.size()) == m_nPacket)
        reportPacket(m_memory.constData(), m_nPacket);
}

// --- messages --------------------------------------------------------------------------------------------

// Line by line, because a packet may stand between two. False when nothing can be decided before more is
// here.
bool RtspMessageReader::readHead()
{
    if (m_bLineStart && *m_pIn == '$') {
        if (m_nIn < kPacketHead)
            return refill();
        m_bInHead = true;
        beginPacket();
        return true;
    }
    const auto* end = static_cast<const char*>(std::memchr(m_pIn, '\n', m_nIn));
    const std::size_t n = end == nullptr ? m_nIn : static_cast<std::size_t>(end - m_pIn) + 1;
    m_bLineStart = end != nullptr;
    m_heads.feed(m_pIn, static_cast<int>(n));
    const HttpMessageReader::Event event = m_heads.next();
    const bool bHead = event == HttpMessageReader::Event::Head && takeHead();
    consume(n);
    if (event == HttpMessageReader::Event::Failed)
        fail(QStringLiteral("a head of more than %1 bytes").arg(m_limits.nHead));
    else if (bHead && m_nBodyLeft > static_cast<std::size_t>(m_limits.nBody))
        fail(QStringLiteral("a body of %1 bytes, of which %2 may be").arg(m_nBodyLeft).arg(m_limits.nBody));
    else if (bHead && m_nBodyLeft == 0)
        finishMessage();
    return true;
}

// False for a head that is none: its bytes are strays.
bool RtspMessageReader::takeHead()
{
    m_headText = QByteArray(m_heads.data(), m_heads.size());
    m_heads.setBody(HttpBody());
    m_heads.next();
    m_head = RtspHead::fromBytes(m_headText.constData(), m_headText.size());
    m_body.clear();
    if (!m_head.isValid()) {
        m_state = State::Between;
        countStrays(static_cast<std::size_t>(m_headText.size()));
        return false;
    }
    m_nBodyLeft = static_cast<std::size_t>(m_head.bodyLength());
    m_state = State::Body;
    return true;
}

void RtspMessageReader::readBody()
{
    const std::size_t n = std::min(m_nIn, m_nBodyLeft);
    m_body.append(m_pIn, static_cast<int>(n));
    m_nBodyLeft -= n;
    consume(n);
    if (m_nBodyLeft == 0)
        finishMessage();
}

void RtspMessageReader::finishMessage()
{
    if (m_bDescription && m_head.isAnswer() && m_head.status() < 300)
        takeRunOn();
    m_nRow = 0;
    m_state = State::Between;
    m_event = Event::Message;
}

void RtspMessageReader::takeRunOn()
{
    const std::size_t most
        = std::min(m_nIn, static_cast<std::size_t>(std::max(m_limits.nBody - m_body.size(), 0)));
    std::size_t end = 0;
    while (end < most && startOf(m_pIn + end, m_nIn - end) == Start::Stray) {
        const auto* line = static_cast<const char*>(std::memchr(m_pIn + end, '\n', most - end));
        end = line == nullptr ? most : static_cast<std::size_t>(line - m_pIn) + 1;
    }
    m_body.append(m_pIn, static_cast<int>(end));
    consume(end);
}
