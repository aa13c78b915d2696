#include "platform/CompletionPort_p.h"

#include "platform/Clock_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/Sockets_p.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>

#include <algorithm>
#include <cstdint>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace Nuvika;

namespace
{
constexpr std::size_t kEventsPerFetch = 256;
constexpr std::size_t kKeptBatches = 4; // of those that nested event loops needed
constexpr std::uint64_t kPassBudgetNs = 3'000'000;
constexpr std::uint64_t kFetchIntervalNs = 50'000; // a short round need not ask the kernel for more
constexpr std::size_t kServedPerClockReading = 16;
} // namespace

// --- Transfer, TransferQueue ---------------------------------------------------------------------------

void Transfer::begin()
{
    m_nBytes = 0;
    m_nLeft = 0;
    for (int i = 0; i < nRanges; ++i)
        m_nLeft += ranges[static_cast<std::size_t>(i)].iov_len;
    m_nFirstRange = 0;
    m_nError = 0;
    m_bDone = false;
    m_bBusy = true;
}

void Transfer::advance(std::size_t bytes)
{
    m_nBytes += bytes;
    m_nLeft -= bytes;
    while (bytes > 0) {
        iovec& range = ranges[static_cast<std::size_t>(m_nFirstRange)];
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
    m_pPort->add(*this, socket);
}

Channel::~Channel()
{
    if (m_nSocket >= 0)
        m_pPort->remove(m_nSocket);
    m_pPort->takeOutOfLine(*this);
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
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0)
        m_bEnding = true;
    if ((events & EPOLLIN) != 0 || m_bEnding)
        m_bReadable = true;
    if ((events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0)
        m_bWritable = true;
    schedule();
}

void Channel::postReceive(Transfer& transfer, void* buffer, std::size_t size)
{
    transfer.ranges[0] = {buffer, size};
    transfer.nRanges = 1;
    transfer.begin();
    m_receives.append(transfer);
    schedule();
}

std::size_t Channel::postSend(Transfer& transfer)
{
    transfer.begin();
    const bool bNextToGo = m_sends.lastIsDone();
    m_sends.append(transfer);
    if (bNextToGo && m_bWritable)
        trySend(transfer);
    schedule();
    return transfer.m_nBytes;
}

bool Channel::trySend(Transfer& transfer)
{
    while (!transfer.m_bDone) {
        if (m_nSendError != 0) {
            transfer.finish(m_nSendError);
            break;
        }
        const auto first = static_cast<std::size_t>(transfer.m_nFirstRange);
        const long sent
            = Sockets::send(m_nSocket, &transfer.ranges[first], transfer.nRanges - transfer.m_nFirstRange);
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
    if (m_sends.firstIsDone() || (m_bWritable && trySend(*m_sends.first())))
        return m_sends.takeFirst();
    return nullptr;
}

Transfer* Channel::nextReceive()
{
    if (m_receives.isEmpty())
        return nullptr;
    if (!m_receives.firstIsDone() && !(m_bReadable && receiveSome(*m_receives.first())))
        return nullptr;
    return m_receives.takeFirst();
}

bool Channel::receiveSome(Transfer& transfer)
{
    const std::size_t size = transfer.m_nLeft;
    const long got = Sockets::receive(m_nSocket, transfer.ranges[0].iov_base, size);
    if (got < 0 && ErrorCodes::lastError() == ErrorCodes::kWouldBlock) {
        m_bReadable = false;
        return false;
    }
    // A short read has emptied the socket: the next byte raises a new edge. Not so behind the peer's end,
    // whose edge has been seen.
    if (static_cast<std::size_t>(std::max(got, 0L)) < size && !m_bEnding)
        m_bReadable = false;
    transfer.m_nBytes = static_cast<std::size_t>(std::max(got, 0L));
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

bool Channel::serveBatch()
{
    if (!m_pBatch && m_bReadable && !m_receives.isEmpty() && !m_receives.firstIsDone())
        receiveBatch();
    const std::shared_ptr<DatagramBatch> batch = m_pBatch; // its memory, until the last handler has returned
    do {
        Transfer* received = nextDatagram();
        if (received == nullptr)
            break;
        if (!m_handler.receiveCompleted(*received))
            return false;
    } while (batch && m_pBatch == batch);
    if (!hasWork())
        m_pPort->takeOutOfLine(*this);
    return true;
}

bool Channel::serveOne()
{
    if (m_kind == eDatagrams)
        return serveBatch();
    Transfer* sent = m_bSendsFirst ? nextSend() : nullptr;
    Transfer* received = sent == nullptr ? nextReceive() : nullptr;
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

void Channel::close()
{
    if (m_nSocket < 0)
        return;
    m_pPort->remove(m_nSocket);
    m_nSocket = -1;
    m_bReadable = false;
    m_bWritable = false;
    m_pBatch.reset();
    m_receives.finishAll(ErrorCodes::kCancelled);
    m_sends.finishAll(ErrorCodes::kCancelled);
    schedule();
}

// --- CompletionPort ------------------------------------------------------------------------------------

// What Qt's dispatcher sees. It also listens for the moments in which the loop may go to sleep.
class CompletionPort::Notifier : public QSocketNotifier
{
public:
    Notifier(CompletionPort& port, int descriptor, QAbstractEventDispatcher* loop)
        : QSocketNotifier(descriptor, QSocketNotifier::Read), m_port(port)
    {
        const auto wake = [&port] { port.wakeBeforePoll(); };
        connect(loop, &QAbstractEventDispatcher::aboutToBlock, this, wake, Qt::DirectConnection);
        connect(loop, &QAbstractEventDispatcher::awake, this, wake, Qt::DirectConnection);
        // The port goes with its thread's loop; a direct call, in the thread that ends.
        connect(
            QThread::currentThread(), &QThread::finished, this, [] { endCurrent(); }, Qt::DirectConnection);
    }

    bool event(QEvent* event) override
    {
        if (event->type() != QEvent::SockAct)
            return QSocketNotifier::event(event);
        m_port.pass();
        return true;
    }

private:
    CompletionPort& m_port;
};

struct CompletionPort::ThreadSlot {
    std::shared_ptr<CompletionPort> pPort;
    ~ThreadSlot()
    {
        if (pPort)
            pPort->end();
    }
    static ThreadSlot& current()
    {
        thread_local ThreadSlot slot;
        return slot;
    }
};

std::shared_ptr<CompletionPort> CompletionPort::current()
{
    ThreadSlot& slot = ThreadSlot::current();
    if (!slot.pPort || slot.pPort->m_bEnded)
        slot.pPort = std::make_shared<CompletionPort>();
    return slot.pPort;
}

void CompletionPort::endCurrent()
{
    const std::shared_ptr<CompletionPort> port = ThreadSlot::current().pPort;
    if (port)
        port->end();
}

CompletionPort::CompletionPort()
    : m_nEpoll(epoll_create1(EPOLL_CLOEXEC)), m_nWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    // Edge-triggered: each write is one wake-up, and nobody needs to read it away.
    epoll_event wake{};
    wake.events = EPOLLIN | EPOLLET;
    epoll_ctl(m_nEpoll, EPOLL_CTL_ADD, m_nWake, &wake);
    attachToLoop();
}

CompletionPort::~CompletionPort()
{
    m_pNotifier.reset();
    ::close(m_nWake);
    ::close(m_nEpoll);
}

void CompletionPort::attachToLoop()
{
    QAbstractEventDispatcher* loop = QAbstractEventDispatcher::instance();
    if (m_pNotifier || m_bEnded || loop == nullptr)
        return;
    m_pNotifier = std::make_unique<Notifier>(*this, m_nEpoll, loop);
    const QCoreApplication* application = QCoreApplication::instance();
    if (application != nullptr && application->thread() == QThread::currentThread())
        qAddPostRoutine(&CompletionPort::endCurrent);
}

void CompletionPort::add(Channel& channel, int socket)
{
    if (!m_pNotifier)
        attachToLoop();
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.ptr = &channel;
    if (epoll_ctl(m_nEpoll, EPOLL_CTL_ADD, socket, &event) != 0) {
        // Served at once: its transfers will report what is wrong with the descriptor.
        channel.m_bReadable = true;
    }
}

void CompletionPort::remove(int socket)
{
    epoll_event unused{};
    epoll_ctl(m_nEpoll, EPOLL_CTL_DEL, socket, &unused);
}

void CompletionPort::schedule(Channel& channel)
{
    if (m_bEnded) {
        const bool bClosed = channel.m_nSocket < 0;
        while (bClosed && channel.hasWork() && channel.serveOne()) { }
        return;
    }
    appendToLine(channel);
    if (!m_pNotifier)
        attachToLoop();
}

void CompletionPort::appendToLine(Channel& channel)
{
    if (channel.m_bInLine || m_bEnded)
        return;
    channel.m_bInLine = true;
    channel.m_pPrevious = m_pLast;
    channel.m_pNext = nullptr;
    (m_pLast == nullptr ? m_pFirst : m_pLast->m_pNext) = &channel;
    m_pLast = &channel;
    ++m_nInLine;
}

void CompletionPort::takeOutOfLine(Channel& channel)
{
    if (!channel.m_bInLine)
        return;
    (channel.m_pPrevious == nullptr ? m_pFirst : channel.m_pPrevious->m_pNext) = channel.m_pNext;
    (channel.m_pNext == nullptr ? m_pLast : channel.m_pNext->m_pPrevious) = channel.m_pPrevious;
    channel.m_bInLine = false;
    --m_nInLine;
}

Channel* CompletionPort::takeFirstInLine()
{
    Channel* channel = m_pFirst;
    takeOutOfLine(*channel);
    return channel;
}

// Channels in line are unknown to the kernel: while there are any, Qt's poll must not sleep.
void CompletionPort::wakeBeforePoll()
{
    if (m_pFirst == nullptr || m_bArmed)
        return;
    const std::uint64_t one = 1;
    m_bArmed = ::write(m_nWake, &one, sizeof one) == sizeof one;
}

// Puts the sockets that the kernel announces in line; true when there may be more of them.
bool CompletionPort::fetch()
{
    std::array<epoll_event, kEventsPerFetch> events;
    const int count = epoll_wait(m_nEpoll, events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.ptr == nullptr)
            m_bArmed = false;
        else
            static_cast<Channel*>(event.data.ptr)->ready(event.events);
    }
    return count == static_cast<int>(events.size());
}

void CompletionPort::pass()
{
    const std::shared_ptr<CompletionPort> self = shared_from_this(); // a handler may end the thread's port
    std::uint64_t now = Clock::monotonicNs();
    const std::uint64_t deadline = now + kPassBudgetNs;
    std::uint64_t nextFetch = now;
    do {
        if (now >= nextFetch) {
            while (fetch()) { }
            nextFetch = now + kFetchIntervalNs;
        }
        serveRound(m_nInLine, deadline);
        now = Clock::monotonicNs();
    } while (m_pFirst != nullptr && now < deadline);
}

std::shared_ptr<DatagramBatch> CompletionPort::takeBatch()
{
    while (m_batches.size() > kKeptBatches && m_batches.back().use_count() == 1)
        m_batches.pop_back();
    for (const std::shared_ptr<DatagramBatch>& batch : m_batches) {
        if (batch.use_count() == 1)
            return batch;
    }
    m_batches.push_back(std::make_shared<DatagramBatch>());
    return m_batches.back();
}

void CompletionPort::serveRound(std::size_t channels, std::uint64_t deadline)
{
    for (std::size_t served = 1; served <= channels && m_pFirst != nullptr; ++served) {
        takeFirstInLine()->serveOne();
        if (served % kServedPerClockReading == 0 && Clock::monotonicNs() >= deadline)
            return;
    }
}

// No loop will run again for this port: closed channels complete now, so that their engines can go. Channels
// that are still open keep what they have posted until they are closed.
void CompletionPort::end()
{
    if (m_bEnded)
        return;
    m_bEnded = true;
    m_pNotifier.reset();
    while (m_pFirst != nullptr)
        schedule(*takeFirstInLine());
}
