#include "platform/WaitableEvent_p.h"

#include "platform/Clock_p.h"
#include "platform/Process_p.h"

#include <climits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{
constexpr std::uint32_t kClear = 0;
constexpr std::uint32_t kSet = 1;
constexpr std::uint32_t kSleeping = 2;

void futex(std::atomic<std::uint32_t>* word, int operation, std::uint32_t value)
{
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), operation, value, nullptr, nullptr, 0);
}
} // namespace

bool Nuvika::WaitableEvent::spinTimeIsOver(std::uint64_t* deadline)
{
    static const bool bOneCpu = Process::usableCpus() < 2;
    if (bOneCpu)
        return true;
    const std::uint64_t now = Clock::monotonicNs();
    if (*deadline == 0)
        *deadline = now + kSpinNs;
    for (int i = 0; i < 8; ++i)
        __builtin_ia32_pause();
    return now >= *deadline;
}

void Nuvika::WaitableEvent::set()
{
    if (m_nSet.exchange(kSet, std::memory_order_acq_rel) == kSleeping)
        futex(&m_nSet, FUTEX_WAKE_PRIVATE, INT_MAX);
}

void Nuvika::WaitableEvent::wait(bool bSpin)
{
    const auto isSet = [this] { return m_nSet.load(std::memory_order_acquire) == kSet; };
    if (bSpin && spinUntil(isSet))
        return;
    std::uint32_t expected = kClear;
    m_nSet.compare_exchange_strong(expected, kSleeping, std::memory_order_acq_rel);
    while (!isSet())
        futex(&m_nSet, FUTEX_WAIT_PRIVATE, kSleeping);
}
