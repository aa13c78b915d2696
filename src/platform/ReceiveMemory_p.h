// Private: memory for what a thread is receiving. One buffer for each depth of delivery (a handler that runs
// an event loop of its own needs a second one), kept for reuse, the last used one first: it is in the cache.
#pragma once

#include "platform/Bytes_p.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace Nuvika
{
class ReceiveMemory
{
public:
    // The most that one receive takes. Of a buffer only what receives have filled costs memory.
    static constexpr std::size_t kSize = 2 * 1024 * 1024;

    class Lease
    {
    public:
        Lease() = default;
        ~Lease()
        {
            if (m_pBytes)
                m_pOwner->m_idle.push_back(std::move(m_pBytes));
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        // Null when there is no memory. The owner outlives the lease.
        char* take(ReceiveMemory& owner)
        {
            if (!m_pBytes) {
                m_pOwner = &owner;
                m_pBytes = owner.get();
            }
            return m_pBytes.get();
        }

    private:
        ReceiveMemory* m_pOwner = nullptr;
        Bytes m_pBytes;
    };

private:
    Bytes get()
    {
        if (m_idle.empty())
            return tryAllocate(kSize);
        Bytes bytes = std::move(m_idle.back());
        m_idle.pop_back();
        return bytes;
    }

    std::vector<Bytes> m_idle;
};
} // namespace Nuvika
