#include "platform/CompletionPort_p.h"

#include "platform/ErrorCodes_p.h"
#include "platform/PassBudget_p.h"
#include "platform/Sockets_p.h"

#include <algorithm>

#include <sys/epoll.h>

using namespace Nuvika;

// --- Transfer, TransferQueue ---------------------------------------------------------------------------

void Transfer::begin(std::size_t size)
{
    m_nBytes = 0;
    m_nLeft = size;
    m_nError = 0;
    m_bDone = false;
    m_bBusy = true;
}

void SendTransfer::advance(std::size_t bytes)
{
    m_nBytes += bytes;
    m_nLeft -= bytes;
    while (bytes > 0) {
        iovec& range = pRanges[m_nFirstRange];
        const std::size_t step = std::min(bytes, range.iov_len);
        range.iov_base = static_cast<char*>(range.iov_base) + step;
        range.iov_len -= step;
        bytes -= step;
        if (range.iov_len == 0)
            ++m_nFirstRange;
    }
}

void TransferQueue::append(Transfer& transfer)
{
    transfer.m_pNext = nullptr;
    (m_pFirst == nullptr ? m_pFirst : m_pLast->m_pNext) = &transfer;
    m_pLast = &transfer;
}

Transfer* TransferQueue::takeFirst()
{
    Transfer* transfer = m_pFirst;
    m_pFirst = transfer->m_pNext;
    transfer->m_bBusy = false;
    return transfer;
}

void TransferQueue::finishAll(int nError)
{
    for (Transfer* transfer = m_pFirst; transfer != nullptr; transfer = transfer->m_pNext) {
        if (!transfer->m_bDone)
            transfer->finish(nError);
    }
}

// --- Channel -------------------------------------------------------------------------------------------

Channel::Channel(int socket, TransferHandler& handler, Kind kind)
    : m_pPort(CompletionPort::current()), m_handler(handler), m_nSocket(socket), m_kind(kind)
{
    if (kind == eDatagrams)
        DatagramBatch::acceptRuns(socket);
    enterPort();
}

Channel::~Channel()
{
    leavePort();
    m_pPort->takeOutOfLine(*this);
    m_pPort->forgetQuiet(*this);
}

// What fails is tried again with the next receive. Until then the channel is served at once, so that every
// transfer reports it.
void Channel::enterPort()
{
    m_nAddError = m_pPort->add(*this, m_nSocket);
    m_bReadable = m_nAddError != 0;
}

void Channel::leavePort()
{
    if (m_nSocket >= 0 && m_nAddError == 0)
        m_pPort->remove(m_nSocket);
    m_nSocket = -1;
}

bool Channel::hasWork() const
{
    return (!m_receives.isEmpty() && (m_bReadable || m_receives.firstIsDone() || m_pBatch))
        || (!m_sends.isEmpty() && (m_bWritable || m_sends.firstIsDone()));
}

void Channel::schedule()
{
    if (hasWork())
        m_pPort->schedule(*this);
}

void Channel::ready(unsigned int events)
{
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR | EPOLLPRI)) != 0)
        m_bReadOn = true;
    if ((events & EPOLLIN) != 0 || m_bReadOn)
        m_bReadable = true;
    if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0)
        m_bWritable = true;
    schedule();
}

void Channel::postReceive(Transfer& transfer, std::size_t size)
{
    transfer.begin(size);
    m_receives.append(transfer);
    if (m_nAddError != 0 && m_nSocket >= 0)
        enterPort();
    schedule();
}

std::size_t Channel::postSend(SendTransfer& transfer)
{
    std::size_t size = 0;
    for (int i = 0; i < transfer.nRanges; ++i)
        size += transfer.pRanges[i].iov_len;
    transfer.begin(size);
    transfer.m_nFirstRange = 0;
    const bool bNextToGo = m_sends.lastIsDone();
    m_sends.append(transfer);
    if (bNextToGo && m_bWritable)
        trySend(transfer);
    if (transfer.bQuiet && transfer.m_bDone && transfer.m_nError == 0)
        m_pPort->noteQuiet(*this);
    else
        schedule();
    return transfer.m_nBytes;
}

bool Channel::trySend(SendTransfer& transfer)
{
    while (!transfer.m_bDone) {
        if (m_nAddError != 0 || m_nSendError != 0) {
            transfer.finish(m_nAddError != 0 ? m_nAddError : m_nSendError);
            break;
        }
        const int first = transfer.m_nFirstRange;
        const long sent = Sockets::send(m_nSocket, transfer.pRanges + first, transfer.nRanges - first);
        if (sent >= 0) {
            transfer.advance(static_cast<std::size_t>(sent));
            if (transfer.m_nLeft == 0)
                transfer.finish(0);
        } else if (ErrorCodes::lastError() == ErrorCodes::kWouldBlock) {
            m_bWritable = false;
            return false;
        } else {
            // The call has consumed the socket's pending error: a later receive would see a plain end.
            m_nSendError = ErrorCodes::lastError();
        }
    }
    return true;
}

Transfer* Channel::nextSend()
{
    if (m_sends.isEmpty())
        return nullptr;
    if (m_sends.firstIsDone() || (m_bWritable && trySend(static_cast<SendTransfer&>(*m_sends.first()))))
        return m_sends.takeFirst();
    return nullptr;
}

Transfer* Channel::nextReceive(ReceiveMemory::Lease& memory)
{
    if (m_receives.isEmpty())
        return nullptr;
    if (!m_receives.firstIsDone()) {
        if (m_nAddError != 0)
            m_receives.first()->finish(m_nAddError);
        else if (!m_bReadable || !receiveSome(*m_receives.first(), memory))
            return nullptr;
    }
    return m_receives.takeFirst();
}

bool Channel::receiveSome(Transfer& transfer, ReceiveMemory::Lease& memory)
{
    const std::size_t size = transfer.m_nLeft;
    char* rest = memory.take(m_pPort->m_receiveMemory);
    if (rest == nullptr) {
        transfer.finish(ErrorCodes::kNoBuffers);
        return true;
    }
    iovec target = m_handler.receiveTarget();
    target.iov_len = std::min(target.iov_len, size);
    const long got = Sockets::receive(m_nSocket, target, {rest, size - target.iov_len});
    if (got < 0 && ErrorCodes::lastError() == ErrorCodes::kWouldBlock) {
        m_bReadable = false;
        return false;
    }
    const auto bytes = static_cast<std::size_t>(std::max(got, 0L));
    // A short read has emptied the socket: the next byte raises a new edge. Not so behind the peer's end,
    // whose edge has been seen, nor at an urgent byte, where a read stops.
    if (bytes < size && !m_bReadOn)
        m_bReadable = false;
    transfer.m_nBytes = bytes;
    transfer.m_nInTarget = std::min(bytes, target.iov_len);
    transfer.m_pRest = rest;
    transfer.finish(got < 0 ? ErrorCodes::lastError() : got == 0 ? m_nSendError : 0);
    return true;
}

void Channel::receiveBatch()
{
    const std::shared_ptr<DatagramBatch> batch = m_pPort->takeBatch();
    if (batch->receive(m_nSocket)) {
        m_bReadable = !batch->hasEmptiedSocket(); // the next one raises a new edge
        m_pBatch = batch;
    } else if (ErrorCodes::lastError() == ErrorCodes::kWouldBlock) {
        m_bReadable = false;
    } else {
        m_receives.first()->finish(ErrorCodes::lastError());
    }
}

Transfer* Channel::nextDatagram()
{
    if (m_receives.isEmpty())
        return nullptr;
    if (!m_receives.firstIsDone()) {
        if (!m_pBatch)
            return nullptr;
        auto& receive = static_cast<DatagramReceive&>(*m_receives.first());
        receive.m_datagram = m_pBatch->takeNext();
        if (m_pBatch->isEmpty())
            m_pBatch.reset();
    }
    return m_receives.takeFirst();
}

void Channel::cancelReceives()
{
    m_pBatch.reset();
    m_receives.finishAll(ErrorCodes::kCancelled);
    schedule();
}

bool Channel::serveBatch(PassBudget& budget)
{
    if (m_nAddError != 0 && !m_receives.isEmpty() && !m_receives.firstIsDone())
        m_receives.first()->finish(m_nAddError);
    else if (!m_pBatch && m_bReadable && !m_receives.isEmpty() && !m_receives.firstIsDone())
        receiveBatch();
    const std::shared_ptr<DatagramBatch> batch = m_pBatch; // its memory, until the last handler has returned
    do {
        Transfer* received = nextDatagram();
        if (received == nullptr)
            break;
        if (!m_handler.receiveCompleted(*received))
            return false;
    } while (batch && m_pBatch == batch && !budget.isSpent());
    if (hasWork())
        m_pPort->appendToLine(*this);
    else
        m_pPort->takeOutOfLine(*this);
    return true;
}

bool Channel::serveOne(PassBudget& budget)
{
    if (m_kind == eDatagrams)
        return serveBatch(budget);
    Transfer* sent = m_bSendsFirst ? nextSend() : nullptr;
    ReceiveMemory::Lease memory; // of what is received, until the handler has returned
    Transfer* received = sent == nullptr ? nextReceive(memory) : nullptr;
    if (sent == nullptr && received == nullptr && !m_bSendsFirst)
        sent = nextSend();
    m_bSendsFirst = received != nullptr;
    if (hasWork())
        m_pPort->appendToLine(*this);
    if (received == nullptr)
        return sent == nullptr || m_handler.sendCompleted(*sent);
    if (!m_handler.receiveCompleted(*received))
        return false;
    // An answer that the handler sent has usually left already: it completes while its memory is at hand.
    if (m_sends.firstIsDone() && m_nSocket >= 0) {
        if (!m_handler.sendCompleted(*m_sends.takeFirst()))
            return false;
        if (!hasWork())
            m_pPort->takeOutOfLine(*this);
    }
    return true;
}

void Channel::wakeForSends()
{
    m_pPort->forgetQuiet(*this);
    schedule();
}

void Channel::completeQuietSends()
{
    while (m_sends.firstIsDone()) {
        if (!m_handler.sendCompleted(*m_sends.takeFirst()))
            return;
    }
    if (!hasWork())
        m_pPort->takeOutOfLine(*this);
}

void Channel::close()
{
    if (m_nSocket < 0)
        return;
    leavePort();
    m_pPort->forgetQuiet(*this);
    m_bReadable = false;
    m_bWritable = false;
    m_pBatch.reset();
    m_receives.finishAll(ErrorCodes::kCancelled);
    m_sends.finishAll(ErrorCodes::kCancelled);
    schedule();
}
