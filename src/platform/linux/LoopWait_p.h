// Private: where GLib drives Qt's loop, the port waits in the place of GLib's poll, so that a wake-up costs
// one system call instead of two, and work that the kernel does not know of needs no descriptor to announce
// it.
#pragma once

#include "platform/CompletionPort_p.h"

#include <memory>

#include <glib.h>

namespace Nuvika
{
class CompletionPort::LoopWait
{
public:
    // Of the calling thread's loop. Null where GLib does not drive it, or somebody else waits for it already.
    static std::unique_ptr<LoopWait> attach(CompletionPort& port);
    ~LoopWait();
    LoopWait(const LoopWait&) = delete;
    LoopWait& operator=(const LoopWait&) = delete;

private:
    LoopWait(CompletionPort& port, GMainContext* context);
    static int wait(GPollFD* polled, unsigned int count, int timeoutMs);
    int waitFor(GPollFD& port, GPollFD& loop, int timeoutMs);
    GPollFD* portAmong(GPollFD* polled, unsigned int count) const;
    bool watch(int loopWake);

    CompletionPort& m_port;
    GMainContext* const m_pContext;
    int m_nLoopWake = -1; // the descriptor by which other threads wake the loop, once it is in the port's set
    static thread_local LoopWait* s_pCurrent;
};
} // namespace Nuvika
