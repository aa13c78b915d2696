#include "net/NuvikaUdpReceiverIO_p.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

#include <QtCore/QCoreApplication>

#include <cstring>

using namespace Nuvika;

namespace
{
// The numbers of the library's boundary, whatever the system's are.
constexpr quint16 kFamilyIPv4 = 2;
constexpr quint16 kFamilyIPv6 = 23;
} // namespace

NuvikaUdpReceiverIO::NuvikaUdpReceiverIO(NuvikaUdpReceiver* pOuter, int nSocket)
    : SocketEngine(nSocket, Channel::eDatagrams), m_pOuter(pOuter)
{
}

NuvikaUdpReceiverIO::~NuvikaUdpReceiverIO() { NUVIKA_ASSERT(m_pOuter == nullptr); }

void NuvikaUdpReceiverIO::startRecv()
{
    NUVIKA_ASSERT(m_state == eIdle);
    m_state = eXFer;
    postIdle();
}

void NuvikaUdpReceiverIO::post(ReceiveContext& context)
{
    if (context.nSize < m_nDatagramSize) {
        context.buffer.reset(new char[static_cast<std::size_t>(m_nDatagramSize)]);
        context.nSize = m_nDatagramSize;
    }
    postReceive(context, context.buffer.get(), static_cast<std::size_t>(context.nSize));
}

void NuvikaUdpReceiverIO::postIdle()
{
    for (ReceiveContext& context : m_receives) {
        if (!context.isBusy() && !context.bDelivering)
            post(context);
    }
}

void NuvikaUdpReceiverIO::grow()
{
    m_nDatagramSize *= 2;
    cancelReceives();
}

void NuvikaUdpReceiverIO::received(Transfer& transfer)
{
    ReceiveContext& context = static_cast<ReceiveContext&>(transfer);
    const int nError = transfer.error();
    if (nError == ErrorCodes::kMessageSize) {
        if (context.nSize == m_nDatagramSize)
            grow();
    } else if (nError != 0 && nError != ErrorCodes::kCancelled) {
        NUVIKA_WARNING(lcNet, "NuvikaUdpReceiverIO::RecvCompletion(): WSARecvFrom failed; %s",
            qUtf8Printable(SocketError::format(nError)));
        m_bIdle = true; // until a later datagram shows that the socket still receives
        return;
    } else if (nError == 0 && transfer.bytes() > 0 && context.nSize >= m_nDatagramSize) {
        deliver(context);
    }
    if (m_state != eXFer)
        return;
    post(context);
    if (m_bIdle) {
        m_bIdle = false;
        postIdle();
    }
}

void NuvikaUdpReceiverIO::deliver(ReceiveContext& context)
{
    NuvikaLLSock::ADDR_V4_V6 sender;
    std::memcpy(&sender, context.sender.data(), sizeof sender);
    NuvikaUdpSocketPacketReceivedEvent event;
    event.pData = context.buffer.get();
    event.nSize = context.bytes();
    if (sender.sa.sa_family == AF_INET6) {
        event.nFamily = kFamilyIPv6;
        event.pIPv6 = sender.v6.sin6_addr.s6_addr;
        event.nPort = ntohs(sender.v6.sin6_port);
    } else {
        event.nFamily = kFamilyIPv4;
        event.nIPv4 = ntohl(sender.v4.sin_addr.s_addr);
        event.nPort = ntohs(sender.v4.sin_port);
    }
    context.bDelivering = true; // a nested event loop posts the others, not this one
    QCoreApplication::sendEvent(m_pOuter, &event);
    context.bDelivering = false;
}

void NuvikaUdpReceiverIO::sent(Transfer&) { }
