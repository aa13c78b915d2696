#include "net/NuvikaUdpReceiverIO_p.h"

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

#include <QtCore/QTimer>

#include <cstring>

using namespace Nuvika;

namespace
{
// The numbers of the library's boundary, whatever the system's are.
constexpr quint16 kFamilyIPv4 = 2;
constexpr quint16 kFamilyIPv6 = 23;

constexpr int kRetryMs = 50;
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
    post();
}

// One receive is outstanding, also while a datagram is delivered, so that nested event loops go on; to a
// depth that callbacks which always run one cannot exceed.
void NuvikaUdpReceiverIO::post()
{
    if (m_state == eXFer && !m_receive.isBusy() && m_nDepth < kMaxDepth)
        postReceive(m_receive, 0);
}

// The system is short of memory: what waits there is received when it has some again.
void NuvikaUdpReceiverIO::postLater(int nError)
{
    if (!m_pRetry) {
        NUVIKA_WARNING(lcNet, "NuvikaUdpReceiverIO::RecvCompletion(): WSARecvFrom failed; %s",
            qUtf8Printable(SocketError::format(nError)));
        m_pRetry = std::make_unique<QTimer>();
        m_pRetry->setSingleShot(true);
        QObject::connect(m_pRetry.get(), &QTimer::timeout, [this] { post(); });
    }
    m_pRetry->start(kRetryMs);
}

void NuvikaUdpReceiverIO::grow()
{
    if (m_nDatagramSize < kLargest)
        m_nDatagramSize *= 2;
    cancelReceives();
}

void NuvikaUdpReceiverIO::received(Transfer& transfer)
{
    const int nError = transfer.error();
    if (nError != 0 && nError != ErrorCodes::kCancelled) {
        postLater(nError);
        return;
    }
    if (nError == 0) {
        m_pRetry.reset();
        const DatagramBatch::Datagram datagram = m_receive.datagram();
        if (datagram.bTruncated || datagram.size > static_cast<std::size_t>(m_nDatagramSize))
            grow();
        else if (datagram.size > 0)
            deliver(datagram);
    }
    post();
}

void NuvikaUdpReceiverIO::deliver(const DatagramBatch::Datagram& datagram)
{
    NuvikaLLSock::ADDR_V4_V6 sender;
    std::memcpy(&sender, datagram.sender, sizeof sender);
    NuvikaUdpSocketPacketReceivedEvent event;
    event.pData = datagram.data;
    event.nSize = static_cast<qint32>(datagram.size);
    if (sender.sa.sa_family == AF_INET6) {
        event.nFamily = kFamilyIPv6;
        event.pIPv6 = sender.v6.sin6_addr.s6_addr;
        event.nPort = ntohs(sender.v6.sin6_port);
    } else {
        event.nFamily = kFamilyIPv4;
        event.nIPv4 = ntohl(sender.v4.sin_addr.s_addr);
        event.nPort = ntohs(sender.v4.sin_port);
    }
    ++m_nDepth;
    post();
    static_cast<QObject*>(m_pOuter)->event(
        &event); // at once, past the application's event filters: this is per datagram
    --m_nDepth;
}

void NuvikaUdpReceiverIO::sent(Transfer&) { }
