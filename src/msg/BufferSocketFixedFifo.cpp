#include <KepNuvikaUtil/BufferSocketFixedFifo.h>

#include "msg/Frame_p.h"

BufferSocketFixedFifo::BufferSocketFixedFifo(bool bEncrypted, QObject* parent)
    : BufferSocketBase(bEncrypted, parent)
{
    connect(&m_socket, &NuvikaTcpSocket::sigCanSend, this, &BufferSocketFixedFifo::sigCanSend);
}

BufferSocketFixedFifo::BufferSocketFixedFifo(bool bEncrypted, int loadProfile, QObject* parent)
    : BufferSocketBase(bEncrypted, loadProfile, parent)
{
    connect(&m_socket, &NuvikaTcpSocket::sigCanSend, this, &BufferSocketFixedFifo::sigCanSend);
}

bool BufferSocketFixedFifo::canSend() const { return m_socket.canSend(); }

qint64 BufferSocketFixedFifo::bytesToSend() const { return m_socket.bytesToSend(); }

bool BufferSocketFixedFifo::sendBuffer(const char* data, int size)
{
    // sendData() refuses as well, but a refused message need not be encrypted.
    if (size < 0 || (m_bEncrypted && !m_socket.canSend()))
        return false;
    const Frame frame = frameOf(data, size);
    const KepNuvikaUtil::BUFFER ranges[]
        = {{frame.head.data(), static_cast<qint32>(frame.head.size())}, {frame.pPayload, frame.nPayload}};
    return m_socket.sendData(ranges, 2);
}
