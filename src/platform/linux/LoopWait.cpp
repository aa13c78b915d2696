#include "platform/linux/LoopWait_p.h"

#include <QtCore/QAbstractEventDispatcher>

#include <sys/epoll.h>

using namespace Nuvika;

thread_local CompletionPort::LoopWait* CompletionPort::LoopWait::s_pCurrent = nullptr;

std::unique_ptr<CompletionPort::LoopWait> CompletionPort::LoopWait::attach(CompletionPort& port)
{
    const QAbstractEventDispatcher* loop = QAbstractEventDispatcher::instance();
    if (loop == nullptr || !loop->inherits("QEventDispatcherGlib") || s_pCurrent != nullptr)
        return nullptr;
    GMainContext* context = g_main_context_ref_thread_default();
    if (g_main_context_get_poll_func(context) != &g_poll) {
        g_main_context_unref(context);
        return nullptr;
    }
    return std::unique_ptr<LoopWait>(new LoopWait(port, context));
}

CompletionPort::LoopWait::LoopWait(CompletionPort& port, GMainContext* context)
    : m_port(port), m_pContext(context)
{
    s_pCurrent = this;
    g_main_context_set_poll_func(m_pContext, &LoopWait::wait);
}

CompletionPort::LoopWait::~LoopWait()
{
    if (g_main_context_get_poll_func(m_pContext) == &LoopWait::wait)
        g_main_context_set_poll_func(m_pContext, nullptr);
    g_main_context_unref(m_pContext);
    if (m_nLoopWake >= 0)
        m_port.remove(m_nLoopWake);
    s_pCurrent = nullptr;
}

// In the place of poll, with its contract.
int CompletionPort::LoopWait::wait(GPollFD* polled, unsigned int count, int timeoutMs)
{
    LoopWait* self = s_pCurrent;
    if (self == nullptr)
        return g_poll(polled, count, timeoutMs);
    GPollFD* port = self->portAmong(polled, count);
    GPollFD* loop = port == polled ? polled + 1 : polled;
    if (port != nullptr && self->watch(loop->fd))
        return self->waitFor(*port, *loop, timeoutMs);
    self->m_port.wakeBeforePoll();
    return g_poll(polled, count, timeoutMs);
}

// Null where others wait as well: a descriptor that came back with the same number could not be told from the
// one before, and would be missing in the port's set. Of two, the other one is the loop's own, as old as it.
GPollFD* CompletionPort::LoopWait::portAmong(GPollFD* polled, unsigned int count) const
{
    if (count != 2)
        return nullptr;
    for (unsigned int i = 0; i < count; ++i) {
        if (polled[i].fd == m_port.m_nEpoll)
            return &polled[i];
    }
    return nullptr;
}

bool CompletionPort::LoopWait::watch(int loopWake)
{
    if (m_nLoopWake >= 0)
        return m_nLoopWake == loopWake;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &m_port.m_bLoopWoken;
    if (epoll_ctl(m_port.m_nEpoll, EPOLL_CTL_ADD, loopWake, &event) != 0)
        return false;
    m_nLoopWake = loopWake;
    return true;
}

int CompletionPort::LoopWait::waitFor(GPollFD& port, GPollFD& loop, int timeoutMs)
{
    m_port.completeQuietSends();
    const bool bHasWork = m_port.m_pFirst != nullptr;
    m_port.m_bLoopWoken = false;
    if (m_port.fetch(bHasWork ? 0 : timeoutMs) < 0 && !bHasWork)
        return -1;
    port.revents = m_port.m_pFirst != nullptr ? G_IO_IN : 0;
    loop.revents = m_port.m_bLoopWoken ? G_IO_IN : 0;
    return (port.revents != 0 ? 1 : 0) + (loop.revents != 0 ? 1 : 0);
}
