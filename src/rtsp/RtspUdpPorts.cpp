#include "rtsp/RtspUdpPorts_p.h"

#include "net/SocketAddress_p.h"
#include "platform/ErrorCodes_p.h"

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kAttempts = 32;
} // namespace

RtspUdpPorts::RtspUdpPorts(RtspDatagramListener& listener, int track)
    : m_listener(listener), m_nTrack(track), m_rtp{this, false, std::make_unique<NuvikaUdpReceiver>()},
      m_rtcp{this, true, std::make_unique<NuvikaUdpReceiver>()}
{
}

// The system gives a port, and its neighbour is asked for.
bool RtspUdpPorts::open(const QHostAddress& local, int bufferSize)
{
    for (int i = 0; i < kAttempts; ++i) {
        unsigned short port = 0;
        if (!m_rtp.pReceiver->createUnicast(port, local))
            break;
        const bool bOdd = (port & 1) != 0;
        if (bOdd)
            std::swap(m_rtp.pReceiver, m_rtcp.pReceiver);
        NuvikaUdpReceiver& other = bOdd ? *m_rtp.pReceiver : *m_rtcp.pReceiver;
        unsigned short neighbour = port ^ 1U;
        if (other.createUnicast(neighbour, local))
            return listen(bufferSize);
        (bOdd ? m_rtcp : m_rtp).pReceiver->close();
    }
    return fail(QStringLiteral("no pair of UDP ports is free"), *m_rtp.pReceiver);
}

bool RtspUdpPorts::join(
    const QHostAddress& group, quint16 rtpPort, quint16 rtcpPort, const QHostAddress& local, int bufferSize)
{
    unsigned short rtp = rtpPort;
    unsigned short rtcp = rtcpPort;
    const QString problem = QStringLiteral("group %1 cannot be joined on port %2").arg(group.toString());
    if (!m_rtp.pReceiver->createMulticast(rtp, group, local))
        return fail(problem.arg(rtp), *m_rtp.pReceiver);
    if (!m_rtcp.pReceiver->createMulticast(rtcp, group, local))
        return fail(problem.arg(rtcp), *m_rtcp.pReceiver);
    return listen(bufferSize);
}

bool RtspUdpPorts::fail(const QString& what, const NuvikaUdpReceiver& receiver)
{
    m_nProblemCode = ErrorCodes::lastError();
    m_problem = what + QStringLiteral(": ") + receiver.errorString();
    return false;
}

bool RtspUdpPorts::listen(int bufferSize)
{
    m_rtp.pReceiver->setReceiveBufferSize(bufferSize);
    m_rtp.pReceiver->registerCallback(&RtspUdpPorts::received, &m_rtp);
    m_rtcp.pReceiver->registerCallback(&RtspUdpPorts::received, &m_rtcp);
    return true;
}

void RtspUdpPorts::received(const NuvikaUdpReceiver::Datagram* datagram, void* context)
{
    const Port& port = *static_cast<Port*>(context);
    port.pOwner->m_listener.datagram(port.pOwner->m_nTrack, port.bRtcp, *datagram);
}

void RtspUdpPorts::send(bool bRtcp, const QHostAddress& to, quint16 port, const QByteArray& bytes) const
{
    NuvikaLLSock::ADDR_V4_V6 address{};
    NuvikaLLSock::createSockAddr(&address, to, port);
    DirectCalls::sendTo((bRtcp ? m_rtcp : m_rtp).pReceiver->socketDescriptor(), bytes.constData(),
        static_cast<std::size_t>(bytes.size()), 0, &address.sa, sockAddrLength(address));
}
