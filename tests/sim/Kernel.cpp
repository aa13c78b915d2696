#include "sim/Kernel.h"

#include "sim/Epoll.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <typeinfo>

namespace sim
{
namespace
{
constexpr std::uint64_t kMostCalls = 1'000'000; // of one run: it spins
}

void File::wake(unsigned int events)
{
    for (Epoll* watcher : watchers)
        watcher->notice(*this, events);
    if (onWake)
        onWake();
}

Kernel& Kernel::get()
{
    static Kernel& instance = *std::make_unique<Kernel>().release();
    return instance;
}

void Kernel::enter(const char* call)
{
    Scheduler& scheduler = Scheduler::get();
    if (++m_nCalls > kMostCalls)
        fail("no end after %llu system calls, now in %s", static_cast<unsigned long long>(m_nCalls), call);
    scheduler.pass(chance(weather.slow) ? random().below(5 * kMs) : random().between(100, 1500));
    scheduler.runDueEvents();
    if (chance(weather.preempt))
        scheduler.yield();
}

int Kernel::fault(double probability, std::initializer_list<int> errors)
{
    return chance(probability) ? -*(errors.begin() + random().below(errors.size())) : 0;
}

int Kernel::open(const std::shared_ptr<File>& file)
{
    if (!hasRoom())
        return -EMFILE;
    int fd = kFirstDescriptor;
    for (const auto& [taken, other] : m_files) {
        if (taken != fd)
            break;
        ++fd;
    }
    m_files.emplace(fd, file);
    return fd;
}

int Kernel::close(int fd)
{
    const std::shared_ptr<File> closed = file(fd, "close");
    m_files.erase(fd);
    while (!closed->watchers.empty())
        closed->watchers.back()->remove(*closed);
    closed->released();
    return 0;
}

std::shared_ptr<File> Kernel::file(int fd, const char* call)
{
    const auto found = m_files.find(fd);
    if (found == m_files.end())
        fail("%s(%d): the descriptor is not open", call, fd);
    return found->second;
}

std::string Kernel::describeOpen() const
{
    std::string text;
    for (const auto& [fd, file] : m_files) {
        const File& open = *file;
        text += (text.empty() ? "" : ", ") + std::to_string(fd) + " " + typeid(open).name();
    }
    return text;
}

std::size_t sizeOf(const iovec* ranges, std::size_t count)
{
    std::size_t size = 0;
    for (std::size_t i = 0; i < count; ++i)
        size += ranges[i].iov_len;
    return size;
}

void ByteQueue::append(const iovec* ranges, std::size_t count, std::size_t size)
{
    for (std::size_t i = 0; i < count && size > 0; ++i) {
        const std::size_t step = std::min(size, ranges[i].iov_len);
        append(static_cast<const char*>(ranges[i].iov_base), step);
        size -= step;
    }
}

std::size_t ByteQueue::take(const iovec* ranges, std::size_t count, std::size_t most)
{
    std::size_t taken = 0;
    for (std::size_t i = 0; i < count && taken < most; ++i) {
        const std::size_t step = std::min({most - taken, ranges[i].iov_len, size()});
        if (step > 0)
            std::memcpy(ranges[i].iov_base, data(), step);
        drop(step);
        taken += step;
    }
    return taken;
}

std::string ByteQueue::take(std::size_t most)
{
    std::string bytes(data(), std::min(most, size()));
    drop(bytes.size());
    return bytes;
}

void ByteQueue::drop(std::size_t size)
{
    m_nTaken += size;
    if (m_nTaken * 2 >= m_bytes.size()) {
        m_bytes.erase(0, m_nTaken);
        m_nTaken = 0;
    }
}

void ByteQueue::clear()
{
    m_bytes.clear();
    m_nTaken = 0;
}
} // namespace sim
