#include "RtspSession.h"

#include <QtCore/QRandomGenerator>

RtspSession::RtspSession(int stream, const RtspTransport& transport, RtspViewer& viewer, int lossPercent)
    : m_id(QString::number(QRandomGenerator::system()->generate64(), 16)), m_nStream(stream),
      m_transport(transport), m_viewer(&viewer)
{
    if (std::unique_ptr<RtpSink> sink = makeSink(viewer))
        m_source = std::make_unique<RtpSource>(std::move(sink), transport.bInterleaved ? 0 : lossPercent);
    m_sinceAsked.start();
}

// Datagrams go to the asking host, whatever the request says: to nobody who has not asked for them.
std::unique_ptr<RtpSink> RtspSession::makeSink(RtspViewer& viewer)
{
    if (m_transport.bInterleaved)
        return std::make_unique<InterleavedSink>(viewer, m_transport.nRtp, m_transport.nRtcp);
    auto sink = std::make_unique<UdpSink>(viewer.address(), static_cast<unsigned short>(m_transport.nRtp),
        static_cast<unsigned short>(m_transport.nRtcp));
    if (!sink->bindPair(viewer.localAddress()))
        return nullptr;
    m_nServerPort = sink->localPort();
    return sink;
}

QString RtspSession::transport() const
{
    const auto pair = [](const char* name, int first, int second) {
        return QStringLiteral(";%1=%2-%3").arg(QLatin1String(name)).arg(first).arg(second);
    };
    const QString ports = m_transport.bInterleaved
        ? QLatin1String("/TCP;unicast") + pair("interleaved", m_transport.nRtp, m_transport.nRtcp)
        : QLatin1String(";unicast") + pair("client_port", m_transport.nRtp, m_transport.nRtcp)
            + pair("server_port", m_nServerPort, m_nServerPort + 1);
    const QString ssrc = QStringLiteral("%1").arg(m_source->ssrc(), 8, 16, QLatin1Char('0'));
    return QLatin1String("RTP/AVP") + ports + QLatin1String(";ssrc=") + ssrc;
}

void RtspSession::sendPicture(const QByteArray& jpeg)
{
    if (m_bPlaying)
        m_source->sendPicture(jpeg);
}

// Over TCP whatever the viewer sends shows that it lives, its reports too.
bool RtspSession::isOver() const
{
    constexpr qint64 kTimeoutMs = 1000LL * kTimeoutSeconds;
    if (!m_transport.bInterleaved)
        return m_sinceAsked.elapsed() > kTimeoutMs;
    return m_viewer == nullptr || m_viewer->isEnding() || m_viewer->silence() > kTimeoutMs;
}
