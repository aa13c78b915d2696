#include <KepNuvikaUtil/BufferSocketQueued.h>

#include "msg/Frame_p.h"
#include "net/ChunkQueue_p.h"
#include "net/SendRoom_p.h"

#include <algorithm>

using namespace Nuvika;

BufferSocketQueued::BufferSocketQueued(bool bEncrypted, QObject* parent)
    : BufferSocketBase(bEncrypted, parent), m_pQueue(std::make_unique<ChunkQueue>())
{
    connectSending();
}

BufferSocketQueued::BufferSocketQueued(bool bEncrypted, int loadProfile, QObject* parent)
    : BufferSocketBase(bEncrypted, loadProfile, parent), m_pQueue(std::make_unique<ChunkQueue>())
{
    connectSending();
}

BufferSocketQueued::~BufferSocketQueued() = default;

void BufferSocketQueued::connectSending()
{
    connect(&m_socket, &NuvikaTcpSocket::sigCanSend, this, &BufferSocketQueued::slotCanSend);
}

bool BufferSocketQueued::sendBuffer(const char* data, int size)
{
    if (m_socket.getState() != NuvikaTcpSocket::eConnected || size < 0 || isSendLimitReached())
        return false;
    const Frame frame = frameOf(data, size);
    data = frame.pPayload;
    size = frame.nPayload;
    int headLeft = static_cast<int>(frame.head.size());
    while ((headLeft > 0 || size > 0) && m_pQueue->isEmpty() && m_socket.canSend()) {
        const int piece = std::min(size, ChunkQueue::kChunkSize);
        const KepNuvikaUtil::BUFFER ranges[] = {{frame.head.data(), headLeft}, {data, piece}};
        m_socket.sendData(ranges, 2);
        headLeft = 0;
        data += piece;
        size -= piece;
    }
    m_pQueue->append(frame.head.data(), headLeft);
    m_pQueue->append(data, size);
    watchSendLimit();
    return true;
}

void BufferSocketQueued::slotCanSend()
{
    m_pQueue->drain([this] { return m_socket.canSend(); },
        [this](const char* data, int size) { m_socket.sendData(data, size); });
    if (canSend())
        emit sigCanSend();
    else
        watchSendLimit();
}

bool BufferSocketQueued::canSend() const
{
    return m_pQueue->isEmpty() && m_socket.canSend() && !isSendLimitReached();
}

qint64 BufferSocketQueued::bytesToSend() const { return m_pQueue->size() + m_socket.bytesToSend(); }

bool BufferSocketQueued::isSendLimitReached() const
{
    return m_nSendLimit > 0 && bytesToSend() >= m_nSendLimit;
}

void BufferSocketQueued::setSendLimit(qint64 bytes)
{
    m_nSendLimit = bytes;
    watchSendLimit();
}

// While the queue holds bytes, the socket's is full, and tells of its room anyway.
void BufferSocketQueued::watchSendLimit()
{
    if (m_pQueue->isEmpty() && isSendLimitReached())
        SendRoom::tellBelow(m_socket, m_nSendLimit);
}

void BufferSocketQueued::close()
{
    m_pQueue->clear();
    BufferSocketBase::close();
}

void BufferSocketQueued::slotDisconnected()
{
    m_pQueue->clear();
    BufferSocketBase::slotDisconnected();
}

void BufferSocketQueued::slotError(int errorCode)
{
    m_pQueue->clear();
    BufferSocketBase::slotError(errorCode);
}
