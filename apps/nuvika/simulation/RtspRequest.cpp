#include "RtspRequest.h"

#include <QtCore/QStringList>
#include <QtCore/QUrl>
#include <QtCore/QtEndian>

#include <algorithm>

namespace
{
constexpr char kHeadEnd[] = "\r\n\r\n";
constexpr int kHeadEndSize = 4;
constexpr int kPacketHead = 4;
} // namespace

// --- RtspRequest ---------------------------------------------------------------------------------------

RtspRequest::RtspRequest(const QByteArray& head)
{
    setValid(true);
    parse(QString::fromLatin1(head)); // a refused line ends the validity
}

bool RtspRequest::parseLine(const QString& line, int number)
{
    if (number > 0)
        return HttpHeader::parseLine(line, number);
    const QStringList words = line.split(QLatin1Char(' '));
    if (words.size() != 3 || words.contains(QString()) || !words[2].startsWith(QLatin1String("RTSP/")))
        return false;
    m_method = words[0];
    m_url = words[1];
    m_version = words[2];
    return true;
}

QString RtspRequest::path() const
{
    QString path = QUrl(m_url).path();
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path.startsWith(QLatin1Char('/')) ? path.mid(1) : path;
}

QString RtspRequest::session() const
{
    return value(QStringLiteral("Session")).section(QLatin1Char(';'), 0, 0).trimmed();
}

// --- RtspRequestReader ---------------------------------------------------------------------------------

void RtspRequestReader::feed(const char* data, int size)
{
    m_input.remove(0, m_nAt);
    m_nAt = 0;
    m_input.append(data, size);
}

RtspRequestReader::Event RtspRequestReader::next()
{
    if (m_bFailed)
        return eFailed;
    while (skip()) {
        if (m_nAt == m_input.size())
            return eNeedMore;
        if (m_input.at(m_nAt) != '$')
            return readHead();
        if (m_input.size() - m_nAt < kPacketHead)
            return eNeedMore;
        m_nSkip = kPacketHead + qFromBigEndian<quint16>(m_input.constData() + m_nAt + 2);
    }
    return eNeedMore;
}

// Also empty lines in front of what follows. True when it is all gone.
bool RtspRequestReader::skip()
{
    const int step = std::min(m_nSkip, m_input.size() - m_nAt);
    m_nAt += step;
    m_nSkip -= step;
    while (m_nSkip == 0 && m_nSeen == 0 && m_nAt < m_input.size()
        && (m_input.at(m_nAt) == '\r' || m_input.at(m_nAt) == '\n'))
        ++m_nAt;
    return m_nSkip == 0;
}

RtspRequestReader::Event RtspRequestReader::readHead()
{
    const int end = m_input.indexOf(kHeadEnd, m_nAt + m_nSeen);
    const int size = (end < 0 ? m_input.size() : end + kHeadEndSize) - m_nAt;
    m_bFailed = size > kMaxHead;
    if (end < 0 && !m_bFailed) {
        m_nSeen = std::max(size - (kHeadEndSize - 1), 0);
        return eNeedMore;
    }
    if (!m_bFailed) {
        m_request = RtspRequest(m_input.mid(m_nAt, size));
        m_bFailed = !m_request.isValid() || m_request.contentLength() > kMaxBody;
    }
    m_nAt += size;
    m_nSeen = 0;
    m_nSkip = m_bFailed ? 0 : static_cast<int>(m_request.contentLength());
    return m_bFailed ? eFailed : eRequest;
}
