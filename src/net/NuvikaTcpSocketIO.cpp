#include "net/NuvikaTcpSocketIO_p.h"

#include "core/Log_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/NuvikaTcpSocketEvents_p.h"
#include "net/ReceivePlacer_p.h"
#include "platform/Sockets_p.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <utility>

#include <sys/socket.h>

using namespace Nuvika;

namespace
{
struct SendProfile {
    int nSocketBuffer;
    unsigned int nSendSize;
    unsigned int nChunkSize;
    unsigned int nChunks;
};

struct ReceiveProfile {
    int nSocketBuffer;
    std::size_t nReceiveSize;
};

// The asymmetry of the medium profile is deliberate.
constexpr std::array<SendProfile, 3> kSendProfiles{{
    {8192, 8192, 4096, 10},
    {32768, 65536, 8192, 96},
    {524288, 524288, 65536, 48},
}};
constexpr std::array<ReceiveProfile, 3> kReceiveProfiles{{
    {8192, 4096},
    {65536, 32768},
    {524288, 524288},
}};

// Segments that small buffers can work with, but never small ones towards a network. Heavy buffers hold eight
// of loopback's largest segments and need no limit: one costs them half of their throughput.
constexpr int kSegmentLimit = 16384;
constexpr int kLightSegmentLimit = 1448;

std::size_t profileIndex(NuvikaTcpSocket::LOAD_PROFILE profile)
{
    if (profile >= NuvikaTcpSocket::eLight && profile <= NuvikaTcpSocket::eHeavy)
        return static_cast<std::size_t>(profile);
    NUVIKA_ASSERT(false);
    return NuvikaTcpSocket::eMedium;
}
} // namespace

int NuvikaTcpSocketIO::segmentLimit(LOAD_PROFILE sendProfile, LOAD_PROFILE recvProfile, bool bLoopback)
{
    if (sendProfile == NuvikaTcpSocket::eHeavy && recvProfile == NuvikaTcpSocket::eHeavy)
        return 0;
    if (sendProfile != NuvikaTcpSocket::eLight && recvProfile != NuvikaTcpSocket::eLight)
        return kSegmentLimit;
    return bLoopback ? kLightSegmentLimit : 0;
}

NuvikaTcpSocketIO::NuvikaTcpSocketIO(NuvikaTcpSocket* pOuter, int nSocket, LOAD_PROFILE sendProfile,
    LOAD_PROFILE recvProfile, NuvikaTcpSocket::SYSTEM_BUFFERS buffers, int nSendQueueHint,
    bool bSingleReceive, bool bStalled)
    : SocketEngine(nSocket), m_pOuter(pOuter), m_pPlacer(pOuter->m_pPlacer), m_sendProfile(sendProfile),
      m_bSingleReceive(bSingleReceive), m_bRecvStalled(bStalled)
{
    m_state = eXFer;
    disableNonBlocking();
    Sockets::setNoDelay(nSocket, true);
    Sockets::setUrgentInline(nSocket);
    setLoadProfile(sendProfile, recvProfile, nSendQueueHint, buffers);
    if (buffers == NuvikaTcpSocket::eAsProfile)
        setSystemBuffers(kReceiveProfiles[profileIndex(recvProfile)].nSocketBuffer,
            kSendProfiles[profileIndex(sendProfile)].nSocketBuffer);
    if (!m_bRecvStalled)
        postReceives();
}

NuvikaTcpSocketIO::~NuvikaTcpSocketIO() = default;

// The mode never matters to the transfers, none of which may block.
void NuvikaTcpSocketIO::disableNonBlocking()
{
    if (DirectCalls::setNonBlocking(m_nSocket, false) != 0)
        NUVIKA_CRITICAL(lcNet, "NuvikaTcpSocketIO::disableNonBlocking() failed");
}

void NuvikaTcpSocketIO::setLoadProfile(
    LOAD_PROFILE send, LOAD_PROFILE recv, int nHint, NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    const SendProfile& sendValues = kSendProfiles[profileIndex(send)];
    const ReceiveProfile& recvValues = kReceiveProfiles[profileIndex(recv)];
    m_nSendSize = sendValues.nSendSize;
    m_nReceiveSize = recvValues.nReceiveSize;
    // A reader of ours takes what two receives would, or all that the system may hold: each receive from a
    // full tuned buffer opens the window a little, and pays for the segments that this brings.
    if (m_pPlacer != nullptr)
        m_nReceiveSize = buffers == NuvikaTcpSocket::eTuned ? ReceiveMemory::kSize : 2 * m_nReceiveSize;
    m_nFifoChunks
        = nHint >= 1 ? static_cast<unsigned int>(nHint) / sendValues.nChunkSize + 1 : sendValues.nChunks;
}

void NuvikaTcpSocketIO::setSystemBuffers(int nReceive, int nSend)
{
    if (DirectCalls::setOption(m_nSocket, SOL_SOCKET, SO_RCVBUF, &nReceive, sizeof nReceive) != 0)
        NUVIKA_CRITICAL(lcNet, "NuvikaTcpSocketIO::setLoadProfile: setting SO_RCVBUF failed");
    if (DirectCalls::setOption(m_nSocket, SOL_SOCKET, SO_SNDBUF, &nSend, sizeof nSend) != 0)
        NUVIKA_CRITICAL(lcNet, "NuvikaTcpSocketIO::setLoadProfile: setting SO_SNDBUF failed");
}

void NuvikaTcpSocketIO::notifyOwner(QEvent& event)
{
    if (QCoreApplication::instance() != nullptr)
        QCoreApplication::sendEvent(m_pOuter, &event);
}

// --- receiving -----------------------------------------------------------------------------------------

void NuvikaTcpSocketIO::resumeRecv()
{
    if (m_state == eXFer)
        postReceives();
}

void NuvikaTcpSocketIO::postReceives()
{
    NUVIKA_ASSERT(m_state == eXFer);
    m_bRecvStalled = false;
    const std::size_t count = m_bSingleReceive ? 1 : m_receives.size();
    for (std::size_t i = 0; i < count; ++i) {
        ReceiveContext& context = m_receives[i];
        if (!context.transfer.isBusy() && !context.bDelivering)
            postReceive(context.transfer, m_nReceiveSize);
    }
}

void NuvikaTcpSocketIO::received(Transfer& transfer)
{
    const auto context = std::find_if(m_receives.begin(), m_receives.end(),
        [&](const ReceiveContext& c) { return &c.transfer == &transfer; });
    if (context == m_receives.end()) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketIO::RecvCompletion call is unexpected here");
        return;
    }
    if (transfer.error() != 0) {
        NuvikaTcpSocketErrorEvent event(transfer.error());
        notifyOwner(event);
        return;
    }
    if (transfer.bytes() == 0) {
        NuvikaTcpSocketDisconnectedEvent event;
        notifyOwner(event);
        return;
    }
    context->bDelivering = true;
    deliver(transfer);
    context->bDelivering = false;
    if (m_state == eXFer && !m_bRecvStalled)
        postReceive(transfer, m_nReceiveSize);
}

void NuvikaTcpSocketIO::deliver(const Transfer& transfer)
{
    const int nPlaced = transfer.bytesInTarget();
    const int nRest = transfer.bytes() - nPlaced;
    if (nPlaced > 0)
        m_pPlacer->placed(nPlaced);
    if (m_pPlacer != nullptr && m_pPlacer->read(transfer.rest(), nRest))
        return;
    NuvikaTcpSocketDataReceivedEvent event(transfer.rest(), nRest);
    notifyOwner(event);
}

iovec NuvikaTcpSocketIO::receiveTarget()
{
    return m_state == eXFer && m_pPlacer != nullptr ? m_pPlacer->target() : iovec{};
}

// --- sending -------------------------------------------------------------------------------------------

bool NuvikaTcpSocketIO::acceptsData() const
{
    if (m_state != eXFer) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketIO::sendData failed: invalid state");
        return false;
    }
    if (m_endOfData != eNone) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketIO::sendData failed: end of data already enqueued");
        return false;
    }
    return true;
}

bool NuvikaTcpSocketIO::sendData(const char* data, int size)
{
    if (!acceptsData() || size < 0)
        return false;
    if (size == 0)
        return !isFull();
    if (isFull())
        return false;
    const KepNuvikaUtil::BUFFER buffer{data, size};
    queue(&buffer, 1);
    return true;
}

bool NuvikaTcpSocketIO::sendData(const KepNuvikaUtil::BUFFER* buffers, int count)
{
    if (!acceptsData() || count < 0)
        return false;
    if (isFull())
        return false;
    const auto hasBytes = [](const KepNuvikaUtil::BUFFER& range) { return range.nLen > 0; };
    if (!std::any_of(buffers, buffers + count, hasBytes))
        return true;
    queue(buffers, count);
    return true;
}

void NuvikaTcpSocketIO::queue(const KepNuvikaUtil::BUFFER* buffers, int count)
{
    const SendProfile& values = kSendProfiles[profileIndex(m_sendProfile)];
    if (!m_pFifo && m_nFifoChunks == values.nChunks)
        m_pFifo = SendFifoCache::ofThisThread().take(
            profileIndex(m_sendProfile), values.nChunkSize, values.nChunks);
    else if (!m_pFifo)
        m_pFifo = std::make_unique<SendFifo>(values.nChunkSize, m_nFifoChunks);
    m_nHandedOver += m_pFifo->put(buffers, count, true);
    startSends();
    if (!m_pFifo->isEmpty())
        m_channel.wakeForSends(); // whoever waits behind finished sends leaves with the next pass
    releaseFifoIfEmpty();
}

void NuvikaTcpSocketIO::releaseFifoIfEmpty()
{
    const std::size_t profile = profileIndex(m_sendProfile);
    if (!m_pFifo || !m_pFifo->isEmpty() || m_nFifoChunks != kSendProfiles[profile].nChunks)
        return;
    SendFifoCache::ofThisThread().give(profile, std::move(m_pFifo));
}

void NuvikaTcpSocketIO::startSends()
{
    for (SendContext& context : m_sends) {
        if (!context.transfer.isBusy())
            fillAndSend(context);
    }
}

void NuvikaTcpSocketIO::fillAndSend(SendContext& context)
{
    if (m_channel.isSendBlocked() || !m_pFifo)
        return;
    SendTransfer& transfer = context.transfer;
    transfer.pRanges = m_pFifo->ranges.data();
    transfer.nRanges = static_cast<int>(m_pFifo->ranges.size());
    const unsigned int size = m_pFifo->peek(transfer.pRanges, &transfer.nRanges, m_nSendSize);
    NUVIKA_ASSERT(size <= m_nSendSize);
    if (size == 0)
        return;
    transfer.bQuiet = m_endOfData == eNone && !m_bTellAllSent;
    const auto taken = static_cast<unsigned int>(postSend(transfer));
    m_pFifo->consume(taken);
    context.nInFifo = size - taken;
}

void NuvikaTcpSocketIO::sent(Transfer& transfer)
{
    const auto context = std::find_if(
        m_sends.begin(), m_sends.end(), [&](const SendContext& c) { return &c.transfer == &transfer; });
    if (context == m_sends.end()) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketIO::SendCompletion call is unexpected here");
        return;
    }
    if (transfer.error() != 0) {
        NuvikaTcpSocketErrorEvent event(transfer.error());
        notifyOwner(event);
        return;
    }
    m_nCompleted += static_cast<quint64>(transfer.bytes());
    const bool bWasFull = isFull();
    if (context->nInFifo > 0)
        m_pFifo->consume(std::exchange(context->nInFifo, 0U));
    startSends();
    releaseFifoIfEmpty();
    if ((bWasFull && !isFull()) || hasFallenBelow()) {
        NUVIKA_ASSERT(m_pOuter);
        NuvikaTcpSocketCanSendEvent event;
        notifyOwner(event);
    }
    if (m_state != eXFer || hasBusySend())
        return;
    if (m_endOfData == eRequested)
        finishEndOfData();
    if (m_bTellAllSent) {
        m_bTellAllSent = false;
        NuvikaTcpSocketAllSentEvent event;
        notifyOwner(event);
    }
}

bool NuvikaTcpSocketIO::hasFallenBelow()
{
    if (m_nTellBelow == 0 || bytesToSend() >= m_nTellBelow)
        return false;
    m_nTellBelow = 0;
    return true;
}

bool NuvikaTcpSocketIO::hasBusySend() const
{
    return std::any_of(
        m_sends.begin(), m_sends.end(), [](const SendContext& context) { return context.transfer.isBusy(); });
}

quint64 NuvikaTcpSocketIO::bytesSent() const
{
    quint64 bytes = m_nCompleted;
    for (const SendContext& context : m_sends) {
        if (context.transfer.isBusy())
            bytes += static_cast<quint64>(context.transfer.bytes());
    }
    return bytes;
}

bool NuvikaTcpSocketIO::isAllSent() const { return (!m_pFifo || m_pFifo->isEmpty()) && !hasBusySend(); }

void NuvikaTcpSocketIO::tellWhenAllSent()
{
    m_bTellAllSent = true;
    m_channel.wakeForSends();
}

bool NuvikaTcpSocketIO::sendEndOfData()
{
    if (m_state != eXFer) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketIO::sendEndOfData() failed: invalid state");
        return false;
    }
    if (m_endOfData != eNone) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocketIO::sendEndOfData() failed: EndOfData already enqueued");
        return false;
    }
    m_endOfData = eRequested;
    if (hasBusySend())
        m_channel.wakeForSends();
    else
        finishEndOfData();
    return true;
}

void NuvikaTcpSocketIO::finishEndOfData()
{
    NUVIKA_ASSERT(!m_pFifo || m_pFifo->isEmpty());
    DirectCalls::shutdownWrite(m_nSocket);
    m_endOfData = eDone;
}
