#include "net/SocketEngine_p.h"

#include "core/Log_p.h"
#include "net/DirectSocketCalls_p.h"

using namespace Nuvika;

SocketEngine::SocketEngine(int nSocket, Channel::Kind kind)
    : m_nSocket(nSocket), m_channel(nSocket, *this, kind)
{
}

SocketEngine::~SocketEngine() = default;

void SocketEngine::postReceive(Transfer& transfer, std::size_t size)
{
    ++m_nBusy;
    m_channel.postReceive(transfer, size);
}

std::size_t SocketEngine::postSend(SendTransfer& transfer)
{
    ++m_nBusy;
    return m_channel.postSend(transfer);
}

bool SocketEngine::receiveCompleted(Transfer& transfer)
{
    --m_nBusy;
    ++m_nInsideCallback;
    if (m_state == eXFer)
        received(transfer);
    --m_nInsideCallback;
    return !endIfDone();
}

bool SocketEngine::sendCompleted(Transfer& transfer)
{
    --m_nBusy;
    ++m_nInsideCallback;
    if (m_state == eXFer)
        sent(transfer);
    --m_nInsideCallback;
    return !endIfDone();
}

void SocketEngine::detach()
{
    cutOwner();
    if (m_state == eXFer) {
        m_state = eShutdownPending;
        ++m_nInsideCallback; // a port that has ended completes inside close()
        m_channel.close();
        DirectCalls::close(m_nSocket);
        --m_nInsideCallback;
    } else {
        NUVIKA_ASSERT(!hasPendingCompletions());
        m_state = eShutdownPending;
    }
    endIfDone();
}

bool SocketEngine::endIfDone()
{
    if (m_state != eShutdownPending || m_nBusy > 0 || m_nInsideCallback > 0)
        return false;
    m_state = eClosed;
    delete this;
    return true;
}
