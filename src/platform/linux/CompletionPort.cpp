#include "platform/CompletionPort_p.h"

#include "platform/ErrorCodes_p.h"
#include "platform/PassBudget_p.h"
#include "platform/linux/LoopWait_p.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>

#include <cerrno>
#include <cstdint>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace Nuvika;

namespace
{
constexpr std::size_t kEventsPerFetch = 256;
constexpr std::size_t kKeptBatches = 4; // of those that nested event loops needed
constexpr std::uint64_t kFetchIntervalNs = 50'000; // a short round need not ask the kernel for more
} // namespace

// What Qt's dispatcher sees. Where the port does not wait by itself, it listens for the moments in which the
// loop may go to sleep.
class CompletionPort::Notifier : public QSocketNotifier
{
public:
    Notifier(CompletionPort& port, int descriptor, QAbstractEventDispatcher* loop)
        : QSocketNotifier(descriptor, QSocketNotifier::Read), m_port(port), m_pWait(LoopWait::attach(port))
    {
        if (!m_pWait) {
            const auto wake = [&port] { port.wakeBeforePoll(); };
            connect(loop, &QAbstractEventDispatcher::aboutToBlock, this, wake, Qt::DirectConnection);
            connect(loop, &QAbstractEventDispatcher::awake, this, wake, Qt::DirectConnection);
        }
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
    const std::unique_ptr<LoopWait> m_pWait;
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

CompletionPort::CompletionPort() = default;

CompletionPort::~CompletionPort()
{
    m_pNotifier.reset();
    closeDescriptors();
}

// With the first channel. Returns 0 or a code: descriptors may be short, and the next channel tries again.
int CompletionPort::open()
{
    if (m_nEpoll >= 0)
        return 0;
    m_nEpoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_nEpoll >= 0)
        m_nWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // Edge-triggered: each write is one wake-up, and nobody needs to read it away.
    epoll_event wake{};
    wake.events = EPOLLIN | EPOLLET;
    if (m_nWake < 0 || epoll_ctl(m_nEpoll, EPOLL_CTL_ADD, m_nWake, &wake) != 0) {
        const int code = ErrorCodes::fromErrno(errno);
        closeDescriptors();
        return code;
    }
    attachToLoop();
    return 0;
}

void CompletionPort::closeDescriptors()
{
    for (int* descriptor : {&m_nWake, &m_nEpoll}) {
        if (*descriptor >= 0)
            ::close(*descriptor);
        *descriptor = -1;
    }
}

void CompletionPort::attachToLoop()
{
    if (m_pNotifier || m_bEnded || m_nEpoll < 0)
        return;
    QAbstractEventDispatcher* loop = QAbstractEventDispatcher::instance();
    if (loop == nullptr)
        return;
    m_pNotifier = std::make_unique<Notifier>(*this, m_nEpoll, loop);
    const QCoreApplication* application = QCoreApplication::instance();
    if (application != nullptr && application->thread() == QThread::currentThread())
        qAddPostRoutine(&CompletionPort::endCurrent);
}

// Returns 0 or a code.
int CompletionPort::add(Channel& channel, int socket)
{
    const int code = open();
    if (code != 0)
        return code;
    attachToLoop();
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLPRI | EPOLLET;
    event.data.ptr = &channel;
    return epoll_ctl(m_nEpoll, EPOLL_CTL_ADD, socket, &event) == 0 ? 0 : ErrorCodes::fromErrno(errno);
}

void CompletionPort::remove(int socket)
{
    epoll_event unused{};
    epoll_ctl(m_nEpoll, EPOLL_CTL_DEL, socket, &unused);
}

void CompletionPort::schedule(Channel& channel)
{
    if (m_bEnded) {
        completeIfClosed(channel);
        return;
    }
    appendToLine(channel);
    if (m_nEpoll < 0)
        passWithoutDescriptors();
    else
        attachToLoop();
}

void CompletionPort::completeIfClosed(Channel& channel)
{
    PassBudget budget;
    const bool bClosed = channel.m_nSocket < 0;
    while (bClosed && channel.hasWork() && channel.serveOne(budget)) { }
}

// What a port that could not be opened has to report comes by way of a posted event.
void CompletionPort::passWithoutDescriptors()
{
    if (m_pPassLater)
        return;
    m_pPassLater = std::make_unique<QObject>();
    const auto passNow = [this] {
        const std::shared_ptr<CompletionPort> self = shared_from_this();
        m_pPassLater.release()->deleteLater();
        pass();
        if (m_pFirst != nullptr && !m_bEnded)
            passWithoutDescriptors();
    };
    QMetaObject::invokeMethod(m_pPassLater.get(), passNow, Qt::QueuedConnection);
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

void CompletionPort::noteQuiet(Channel& channel)
{
    if (channel.m_nQuiet != Channel::kNotQuiet || m_bEnded)
        return;
    channel.m_nQuiet = m_quiet.size();
    m_quiet.push_back(&channel);
}

void CompletionPort::forgetQuiet(Channel& channel)
{
    const std::size_t place = channel.m_nQuiet;
    if (place == Channel::kNotQuiet)
        return;
    m_quiet[place] = m_quiet.back();
    m_quiet[place]->m_nQuiet = place;
    m_quiet.pop_back();
    channel.m_nQuiet = Channel::kNotQuiet;
}

// Their handlers free what the sends occupied, and call nobody.
void CompletionPort::completeQuietSends()
{
    while (!m_quiet.empty()) {
        Channel* channel = m_quiet.back();
        forgetQuiet(*channel);
        channel->completeQuietSends();
    }
}

// Channels in line are unknown to the kernel: while there are any, Qt's poll must not sleep.
void CompletionPort::wakeBeforePoll()
{
    completeQuietSends();
    if (m_pFirst == nullptr || m_bArmed)
        return;
    const std::uint64_t one = 1;
    m_bArmed = ::write(m_nWake, &one, sizeof one) == sizeof one;
}

// Puts the sockets that the kernel announces in line. Returns what epoll_wait did.
int CompletionPort::fetch(int timeoutMs)
{
    m_bFetched = true;
    if (m_nEpoll < 0)
        return 0;
    std::array<epoll_event, kEventsPerFetch> events;
    const int count = epoll_wait(m_nEpoll, events.data(), static_cast<int>(events.size()), timeoutMs);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.ptr == nullptr)
            m_bArmed = false;
        else if (event.data.ptr == &m_bLoopWoken)
            m_bLoopWoken = true;
        else
            static_cast<Channel*>(event.data.ptr)->ready(event.events);
    }
    m_bFetched = count < static_cast<int>(events.size());
    return count;
}

void CompletionPort::pass()
{
    const std::shared_ptr<CompletionPort> self = shared_from_this(); // a handler may end the thread's port
    completeQuietSends();
    PassBudget budget;
    std::uint64_t nextFetch = budget.now() + (m_bFetched ? kFetchIntervalNs : 0);
    do {
        if (budget.now() >= nextFetch) {
            do
                fetch(0);
            while (!m_bFetched);
            nextFetch = budget.now() + kFetchIntervalNs;
        }
        m_bFetched = false;
        serveRound(m_nInLine, budget);
        if (m_pFirst == nullptr)
            return;
        budget.readClock();
    } while (!budget.isSpent());
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

void CompletionPort::serveRound(std::size_t channels, PassBudget& budget)
{
    for (std::size_t served = 0; served < channels && m_pFirst != nullptr; ++served) {
        takeFirstInLine()->serveOne(budget);
        if (budget.isSpent())
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
    m_pPassLater.reset();
    while (m_pFirst != nullptr)
        completeIfClosed(*takeFirstInLine());
}
