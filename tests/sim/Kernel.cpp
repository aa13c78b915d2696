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

// What may go wrong with a call before it has done anything. What goes wrong on the way stands where it does.
const struct Fault {
    std::vector<std::string_view> calls;
    double Weather::*probability;
    std::vector<int> errors;
} kFaults[] = {
    {{"close", "poll", "ppoll", "accept4", "send", "sendmsg", "sendto", "sendmmsg", "recv", "recvmsg",
         "recvmmsg"},
        &Weather::interrupt, {EINTR}},
    {{"socket", "epoll_create1", "eventfd"}, &Weather::noDescriptor, {EMFILE, ENFILE, ENOMEM}},
    {{"accept4"}, &Weather::noDescriptor, {EMFILE, ENFILE}},
    {{"accept4", "setsockopt", "send", "sendmsg", "recv", "recvmsg"}, &Weather::noMemory, {ENOBUFS, ENOMEM}},
    {{"epoll_ctl ADD"}, &Weather::noMemory, {ENOSPC, ENOMEM}},
    {{"bind"}, &Weather::noMemory, {ENOMEM, ENOBUFS, EADDRINUSE}},
    {{"listen"}, &Weather::noMemory, {EADDRINUSE}},
    {{"recvmmsg"}, &Weather::noMemory, {ENOMEM}},
};
} // namespace

void File::wake(unsigned int events)
{
    for (Epoll* watcher : watchers)
        watcher->notice(*this, events);
    if (onWake)
        onWake();
}

int Socket::setOption(int level, int name, const void* value, socklen_t size)
{
    int number = 0;
    std::memcpy(&number, value, std::min<std::size_t>(size, sizeof number));
    const auto doubled = 2 * static_cast<std::size_t>(std::clamp(number, 1152, 1 << 20));
    if (level == SOL_SOCKET && name == SO_RCVBUF)
        m_nReceiveLimit = doubled;
    else if (level == SOL_SOCKET && name == SO_SNDBUF)
        m_nSendLimit = doubled;
    return 0;
}

int Socket::option(int, int, void*, socklen_t*) { return -ENOPROTOOPT; }

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

int Kernel::fault(double probability, const std::vector<int>& errors)
{
    return chance(probability) ? -errors[random().below(errors.size())] : 0;
}

int Kernel::faultOf(const char* call)
{
    int error = 0;
    for (const Fault& row : kFaults) {
        if (error == 0 && std::find(row.calls.begin(), row.calls.end(), call) != row.calls.end())
            error = fault(weather.*row.probability, row.errors);
    }
    return error;
}

int Kernel::open(File& file)
{
    if (!hasRoom())
        return -EMFILE;
    int fd = kFirstDescriptor;
    while (m_files.count(fd) != 0)
        ++fd;
    m_files.emplace(fd, &file);
    return fd;
}

void Kernel::close(int fd)
{
    File& closed = file(fd, "close");
    m_files.erase(fd);
    while (!closed.watchers.empty())
        closed.watchers.back()->remove(closed);
    closed.released();
}

std::string Kernel::describeOpen() const
{
    std::string text;
    for (const auto& [fd, file] : m_files) {
        const File& open = *file;
        text += " " + std::to_string(fd) + " " + typeid(open).name();
    }
    return text;
}

std::size_t sizeOf(const msghdr& message)
{
    std::size_t size = 0;
    for (std::size_t i = 0; i < message.msg_iovlen; ++i)
        size += message.msg_iov[i].iov_len;
    return size;
}

std::string gather(const msghdr& message, std::size_t size)
{
    std::string bytes;
    for (const iovec* range = message.msg_iov; bytes.size() < size; ++range)
        bytes.append(static_cast<char*>(range->iov_base), std::min(range->iov_len, size - bytes.size()));
    return bytes;
}

std::size_t scatter(std::string_view bytes, const msghdr& message)
{
    std::size_t taken = 0;
    for (std::size_t i = 0; i < message.msg_iovlen && taken < bytes.size(); ++i)
        taken
            += bytes.copy(static_cast<char*>(message.msg_iov[i].iov_base), message.msg_iov[i].iov_len, taken);
    return taken;
}
} // namespace sim
