// Private: keeps ten datagram receives outstanding for its owner, the NuvikaUdpReceiver.
#pragma once

#include "net/SocketEngine_p.h"

#include <QtCore/QEvent>
#include <QtCore/QtGlobal>

#include <array>
#include <memory>

class NuvikaUdpReceiver;

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
    struct ReceiveContext : Nuvika::DatagramReceive {
        std::unique_ptr<char[]> buffer;
        int nSize = 0;
        bool bDelivering = false;
    };
    static constexpr int kFirstSize = 1500;

    ~NuvikaUdpReceiverIO() override;

    void post(ReceiveContext& context);
    void postIdle();
    void grow();
    void deliver(ReceiveContext& context);
    void received(Nuvika::Transfer& transfer) override;
    void sent(Nuvika::Transfer& transfer) override;
    void cutOwner() override { m_pOuter = nullptr; }

    NuvikaUdpReceiver* m_pOuter;
    std::array<ReceiveContext, 10> m_receives;
    int m_nDatagramSize = kFirstSize;
    bool m_bIdle = false; // a failed receive has left its context idle
};
