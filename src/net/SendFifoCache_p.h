// Private: the send queues of a thread's connections. A connection holds one only while bytes wait in it;
// drained ones serve the next connection that sends, warm in the cache.
#pragma once

#include <KepNuvikaUtil/DynamicByteFifo.h>

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

// With the ranges of the one send that may be under way, which lasts no longer than its bytes.
class SendFifo : public DynamicByteFifo
{
public:
    using DynamicByteFifo::DynamicByteFifo;

    std::array<iovec, 16> ranges{};
};

class SendFifoCache
{
public:
    static SendFifoCache& ofThisThread()
    {
        thread_local SendFifoCache cache;
        return cache;
    }

    std::unique_ptr<SendFifo> take(std::size_t profile, unsigned int chunkSize, unsigned int chunks)
    {
        auto& idle = m_idle[profile];
        if (idle.empty())
            return std::make_unique<SendFifo>(chunkSize, chunks);
        std::unique_ptr<SendFifo> fifo = std::move(idle.back());
        idle.pop_back();
        return fifo;
    }
    // An empty one, of that profile's own size.
    void give(std::size_t profile, std::unique_ptr<SendFifo> fifo)
    {
        if (m_idle[profile].size() < kKept)
            m_idle[profile].push_back(std::move(fifo));
    }

private:
    static constexpr std::size_t kKept = 4; // drained queues keep their memory: 3 MiB each at most

    std::array<std::vector<std::unique_ptr<SendFifo>>, 3> m_idle;
};
