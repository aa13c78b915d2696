// Private: moves the bytes of one connected TCP socket for its owner, the NuvikaTcpSocket.
//
//   receiving: two receives are posted; what one brought is delivered where the port put it, inside the
//              completion, and the receive is posted again when the handler has returned.
//   sending:   bytes are copied once, into the FIFO; up to two sends describe its front and go out of it in
//              place. What the system took leaves the FIFO at once. A send that is not complete waits for the
//              loop, and what is queued meanwhile leaves with the next one. There is a FIFO only while bytes
//              wait in it. A send that left whole, and of which nobody must hear, wakes nobody.
#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include "net/SendFifoCache_p.h"
#include "net/SocketEngine_p.h"
#include "platform/Sockets_p.h"

#include <array>
#include <memory>

class QEvent;

class NuvikaTcpSocketIO : public SocketEngine
{
public:
    using LOAD_PROFILE = NuvikaTcpSocket::LOAD_PROFILE;

    // A hint below 1 leaves the profile's own bound of the FIFO.
    NuvikaTcpSocketIO(NuvikaTcpSocket* pOuter, int nSocket, LOAD_PROFILE sendProfile,
        LOAD_PROFILE recvProfile, NuvikaTcpSocket::SYSTEM_BUFFERS buffers, int nSendQueueHint,
        bool bSingleReceive, bool bStalled);

    bool sendData(const char* data, int size);
    bool sendData(const KepNuvikaUtil::BUFFER* buffers, int count);
    bool sendEndOfData();
    bool isFull() const { return m_pFifo && m_pFifo->isFull(); }
    bool isAllSent() const;
    quint64 bytesSent() const;
    qint64 bytesToSend() const { return static_cast<qint64>(m_nHandedOver - bytesSent()); }
    bool hasPendingInput() const { return Nuvika::Sockets::hasInput(m_nSocket); }
    void tellWhenAllSent();
    // The owner is told once, as of room in a full queue, that fewer bytes are to be sent.
    void tellWhenBelow(qint64 bytes) { m_nTellBelow = bytes; }
    int descriptor() const { return m_nSocket; }
    void stallRecv() { m_bRecvStalled = true; }
    void resumeRecv();

    // The segment limit that keeps a profile's small buffers from stalling, set before the connection is
    // made; 0 for none.
    static int segmentLimit(LOAD_PROFILE sendProfile, LOAD_PROFILE recvProfile, bool bLoopback);

private:
    struct ReceiveContext {
        Nuvika::Transfer transfer;
        bool bDelivering = false;
    };
    struct SendContext {
        Nuvika::SendTransfer transfer;
        unsigned int nInFifo = 0; // bytes of this send that still lie in the FIFO
    };
    enum EndOfData { eNone = 0, eRequested = 1, eDone = 2 };

    ~NuvikaTcpSocketIO() override;

    void disableNonBlocking();
    void setLoadProfile(
        LOAD_PROFILE send, LOAD_PROFILE recv, int nHint, NuvikaTcpSocket::SYSTEM_BUFFERS buffers);
    void setSystemBuffers(int nReceive, int nSend);
    void postReceives();
    void queue(const KepNuvikaUtil::BUFFER* buffers, int count);
    void releaseFifoIfEmpty();
    void fillAndSend(SendContext& context);
    void startSends();
    bool hasBusySend() const;
    bool hasFallenBelow();
    bool acceptsData() const;
    void finishEndOfData();
    void notifyOwner(QEvent& event);

    void deliver(const Nuvika::Transfer& transfer);
    void received(Nuvika::Transfer& transfer) override;
    iovec receiveTarget() override;
    void sent(Nuvika::Transfer& transfer) override;
    void cutOwner() override { m_pOuter = nullptr; }

    std::array<SendContext, 2> m_sends;
    std::array<ReceiveContext, 2> m_receives;
    EndOfData m_endOfData = eNone;
    NuvikaTcpSocket* m_pOuter;
    Nuvika::ReceivePlacer* const m_pPlacer;
    std::unique_ptr<SendFifo> m_pFifo;
    LOAD_PROFILE m_sendProfile;
    unsigned int m_nFifoChunks = 0;
    unsigned int m_nSendSize = 0;
    std::size_t m_nReceiveSize = 0;
    bool m_bSingleReceive;
    bool m_bRecvStalled;
    bool m_bTellAllSent = false;
    qint64 m_nTellBelow = 0; // 0: nobody asks
    quint64 m_nHandedOver = 0;
    quint64 m_nCompleted = 0; // bytes of sends that are complete
};
