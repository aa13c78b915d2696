// Private: receives datagrams for its owner, the NuvikaUdpReceiver.
//
// The bytes lie in the port, so a socket holds no buffers. A datagram above the told size is dropped all the
// same: it doubles the size, and what had arrived by then is dropped with it.
#pragma once

#include "net/SocketEngine_p.h"

#include <QtCore/QEvent>
#include <QtCore/QtGlobal>

#include <memory>

class NuvikaUdpReceiver;
class QTimer;

// Delivered at once.
class NuvikaUdpSocketPacketReceivedEvent : public QEvent
{
public:
    static constexpr QEvent::Type kType = static_cast<QEvent::Type>(1005);

    NuvikaUdpSocketPacketReceivedEvent() : QEvent(kType) { }

    const char* pData = nullptr;
    qint32 nSize = 0;
    quint16 nFamily = 0;
    quint32 nIPv4 = 0;
    const unsigned char* pIPv6 = nullptr;
    quint16 nPort = 0;
};

class NuvikaUdpReceiverIO : public SocketEngine
{
public:
    // Takes the descriptor.
    NuvikaUdpReceiverIO(NuvikaUdpReceiver* pOuter, int nSocket);

    void startRecv();

private:
    static constexpr int kFirstSize = 1500;
    static constexpr int kLargest = 65536; // no datagram is longer
    static constexpr int kMaxDepth = 10;

    ~NuvikaUdpReceiverIO() override;

    void post();
    void postLater(int nError);
    void grow();
    void deliver(const Nuvika::DatagramBatch::Datagram& datagram);
    void received(Nuvika::Transfer& transfer) override;
    void sent(Nuvika::Transfer& transfer) override;
    void cutOwner() override { m_pOuter = nullptr; }

    NuvikaUdpReceiver* m_pOuter;
    Nuvika::DatagramReceive m_receive;
    int m_nDatagramSize = kFirstSize;
    int m_nDepth = 0; // deliveries on the stack, by nested event loops
    std::unique_ptr<QTimer> m_pRetry; // made by a failed receive, until one succeeds
};
