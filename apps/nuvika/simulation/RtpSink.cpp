#include "RtpSink.h"

namespace
{
constexpr int kSendBuffer = 1 << 20; // a picture leaves in one call
constexpr int kPairTrials = 50;
} // namespace

UdpSink::UdpSink(const QHostAddress& host, unsigned short rtpPort, unsigned short rtcpPort)
    : m_rtcpSender(m_rtpSender)
{
    NuvikaLLSock::createSockAddr(&m_rtp, host, rtpPort);
    NuvikaLLSock::createSockAddr(&m_rtcp, host, rtcpPort);
    m_rtpSender.setSendBufferSize(kSendBuffer);
    if (host.isMulticast()) {
        m_rtpSender.setMulticastInterface(QHostAddress(QHostAddress::LocalHost));
        m_rtpSender.setMulticastTtl(0); // simulated cameras stay on this host
    }
}

bool UdpSink::bindPair(const QHostAddress& address)
{
    for (int i = 0; i < kPairTrials; ++i) {
        NuvikaUdpSender first;
        NuvikaUdpSender second;
        if (!first.bind(0, address))
            return false;
        const unsigned short port = first.localPort();
        if (!second.bind(static_cast<unsigned short>(port ^ 1U), address))
            continue;
        m_rtpSender = port % 2 == 0 ? first : second;
        m_rtcpSender = port % 2 == 0 ? second : first;
        return m_rtpSender.setSendBufferSize(kSendBuffer);
    }
    return false;
}

int UdpSink::sendPackets(const KepNuvikaUtil::BUFFER* packets, int count)
{
    return m_rtpSender.sendMany(packets, count, m_rtp);
}

void UdpSink::sendReport(const KepNuvikaUtil::BUFFER& report)
{
    m_rtcpSender.sendTo(report.pData, report.nLen, m_rtcp);
}
