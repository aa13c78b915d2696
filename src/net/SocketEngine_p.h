// Private: what every I/O engine does, whatever it transfers: counts its busy transfers, notices that it is
// inside a callback, is let go by its owner, and ends itself after its last completion.
#pragma once

#include "platform/CompletionPort_p.h"

class SocketEngine : private Nuvika::TransferHandler
{
public:
    // The owner lets go and forgets the engine: the connection ends now, the engine when nothing of it is
    // outstanding and no handler of it is on the stack.
    void detach();

    SocketEngine(const SocketEngine&) = delete;
    SocketEngine& operator=(const SocketEngine&) = delete;

protected:
    enum State { eIdle = 0, eXFer = 1, eShutdownPending = 2, eClosed = 3 };

    // Takes the descriptor.
    explicit SocketEngine(int nSocket, Nuvika::Channel::Kind kind = Nuvika::Channel::eStream);
    virtual ~SocketEngine();

    void postReceive(Nuvika::Transfer& transfer, std::size_t size);
    std::size_t postSend(Nuvika::SendTransfer& transfer);
    void cancelReceives() { m_channel.cancelReceives(); }
    bool hasPendingCompletions() const { return m_nBusy > 0; }

    virtual void received(Nuvika::Transfer& transfer) = 0;
    virtual void sent(Nuvika::Transfer& transfer) = 0;
    virtual void cutOwner() = 0;

    State m_state = eIdle;
    const int m_nSocket;
    Nuvika::Channel m_channel;

private:
    bool receiveCompleted(Nuvika::Transfer& transfer) final;
    bool sendCompleted(Nuvika::Transfer& transfer) final;
    bool endIfDone();

    int m_nBusy = 0;
    int m_nInsideCallback = 0; // nested event loops may stack callbacks
};
