// The system calls of the library, which the linker routes here (--wrap; the list stands in CMakeLists.txt).
// Descriptors that are not ours are the real system's.
#include "sim/DatagramSockets.h"
#include "sim/Epoll.h"
#include "sim/StreamSockets.h"

#include "platform/Bytes_p.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>

using namespace sim;

extern "C" int __real_poll(pollfd* set, nfds_t count, int milliseconds);

namespace
{
constexpr unsigned int kReadable = EPOLLIN | EPOLLERR | EPOLLHUP;
constexpr unsigned int kWriteable = EPOLLOUT | EPOLLERR | EPOLLHUP;

// Ends a call: what it returns and errno, and a line of the trace.
template <class Result>
Result told(Result result, const char* call, int fd)
{
    if (result < 0)
        trace("%s(%d) = %s", call, fd, strerrorname_np(static_cast<int>(-result)));
    else
        trace("%s(%d) = %ld", call, fd, static_cast<long>(result));
    if (result >= 0)
        return result;
    errno = static_cast<int>(-result);
    return -1;
}

// A call of a descriptor of that kind. Where nothing can be done yet, and it may wait, it waits for those
// events.
template <class Kind, class Operation>
auto call(const char* name, int fd, Operation operation, unsigned int events = 0)
{
    Kernel& kernel = Kernel::get();
    kernel.enter(name);
    auto& file = kernel.file<Kind>(fd, name);
    decltype(operation(file)) result = kernel.faultOf(name);
    if (result == 0)
        result = operation(file);
    while (result == -EAGAIN && events != 0 && !file.bNonBlocking) {
        Scheduler::get().wait(name, [&] { return (file.poll() & events) != 0; });
        result = operation(file);
    }
    return told(result, name, fd);
}

template <class Kind, class Result, class... Parameters, class... Arguments>
Result call(const char* name, int fd, Result (Kind::*operation)(Parameters...), Arguments... arguments)
{
    return call<Kind>(name, fd, [=](Kind& file) { return (file.*operation)(arguments...); });
}

template <class Kind, class... Arguments>
int make(const char* name, Arguments... arguments)
{
    Kernel& kernel = Kernel::get();
    kernel.enter(name);
    const int error = kernel.faultOf(name);
    return told(error != 0 ? error : kernel.open(kernel.make<Kind>(arguments...)), name, 0);
}

ssize_t sendOne(const char* name, int fd, const msghdr& message, int flags)
{
    const auto operation = [&](Socket& socket) { return socket.send(message, flags); };
    return call<Socket>(name, fd, operation, (flags & MSG_DONTWAIT) != 0 ? 0 : kWriteable);
}

ssize_t receiveOne(const char* name, int fd, msghdr* message, int flags)
{
    const auto operation = [=](Socket& socket) { return socket.receive(message, flags); };
    return call<StreamSocket>(name, fd, operation, (flags & MSG_DONTWAIT) != 0 ? 0 : kReadable);
}

// As many as there is one after the other; an error is told where it is the first.
template <class Operation>
int forEach(mmsghdr* messages, unsigned int count, Operation operation)
{
    for (unsigned int i = 0; i < count; ++i) {
        const long size = operation(messages[i].msg_hdr);
        if (size < 0)
            return i > 0 ? static_cast<int>(i) : static_cast<int>(size);
        messages[i].msg_len = static_cast<unsigned int>(size);
    }
    return static_cast<int>(count);
}

// Besides ours there is the descriptor by which an event loop is woken: one of the real system's.
int readyOf(pollfd* set, nfds_t count)
{
    int ready = 0;
    for (pollfd* entry = set; entry != set + count; ++entry) {
        entry->revents = 0;
        if (Kernel::isOurs(entry->fd))
            entry->revents = static_cast<short>(Kernel::get().file(entry->fd, "poll").poll()
                & (static_cast<unsigned short>(entry->events) | POLLERR | POLLHUP));
        else if (entry->fd >= 0)
            __real_poll(entry, 1, 0);
        ready += entry->revents != 0 ? 1 : 0;
    }
    return ready;
}

int pollAll(const char* name, pollfd* set, nfds_t count, Time limit)
{
    Kernel& kernel = Kernel::get();
    kernel.enter(name);
    if (const int error = kernel.faultOf(name))
        return told(error, name, 0);
    Scheduler& scheduler = Scheduler::get();
    const Time deadline = limit == kNever ? kNever : scheduler.now() + limit;
    scheduler.wait(
        name, [=] { return readyOf(set, count) > 0; }, deadline);
    kernel.bPolledEndlessly = limit == kNever;
    return told(readyOf(set, count), name, set[0].fd);
}
} // namespace

extern "C" {
// --- descriptors ---------------------------------------------------------------------------------------

int __wrap_socket(int family, int type, int)
{
    return (type & SOCK_DGRAM) != 0 ? make<DatagramSocket>("socket", family)
                                    : make<StreamSocket>("socket", family);
}

int __wrap_epoll_create1(int) { return make<Epoll>("epoll_create1"); }

int __wrap_eventfd(unsigned int, int) { return make<EventFd>("eventfd"); }

int __real_close(int fd);
int __wrap_close(int fd)
{
    if (!Kernel::isOurs(fd))
        return __real_close(fd);
    Kernel& kernel = Kernel::get();
    kernel.enter("close");
    kernel.close(fd);
    return told(kernel.faultOf("close"), "close", fd); // closed all the same
}

ssize_t __real_read(int fd, void* data, std::size_t size);
ssize_t __wrap_read(int fd, void* data, std::size_t size)
{
    return Kernel::isOurs(fd) ? call("read", fd, &EventFd::read, static_cast<std::uint64_t*>(data))
                              : __real_read(fd, data, size);
}

ssize_t __real_write(int fd, const void* data, std::size_t size);
ssize_t __wrap_write(int fd, const void* data, std::size_t size)
{
    return Kernel::isOurs(fd) ? call("write", fd, &EventFd::write, static_cast<const std::uint64_t*>(data))
                              : __real_write(fd, data, size);
}

int __real_fcntl(int fd, int command, long argument);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (!Kernel::isOurs(fd))
        return __real_fcntl(fd, command, argument);
    return call<File>("fcntl", fd, [=](const File& file) {
        return command == F_GETFL ? O_RDWR | (file.bNonBlocking ? O_NONBLOCK : 0) : 0;
    });
}

int __wrap_ioctl(int fd, unsigned long request, const int* value)
{
    return call<File>("ioctl", fd, [=](File& file) {
        if (request != FIONBIO)
            return -EINVAL;
        file.bNonBlocking = *value != 0;
        return 0;
    });
}

// --- readiness -----------------------------------------------------------------------------------------

int __wrap_epoll_ctl(int port, int operation, int fd, const epoll_event* event)
{
    const bool bAdd = operation == EPOLL_CTL_ADD;
    return call<Epoll>(bAdd ? "epoll_ctl ADD" : "epoll_ctl DEL", port, [=](Epoll& epoll) {
        File& file = Kernel::get().file(fd, "epoll_ctl");
        return bAdd ? epoll.add(file, *event) : epoll.remove(file);
    });
}

int __wrap_epoll_wait(int port, epoll_event* events, int most, int)
{
    return call("epoll_wait", port, &Epoll::wait, events, most);
}

int __wrap_poll(pollfd* set, nfds_t count, int milliseconds)
{
    return pollAll("poll", set, count, milliseconds < 0 ? kNever : static_cast<Time>(milliseconds) * kMs);
}

// Of Qt's event loops.
int ppoll(pollfd* set, nfds_t count, const timespec* time, const sigset_t*)
{
    return pollAll("ppoll", set, count, time == nullptr ? kNever : timeOf(*time));
}

// --- sockets -------------------------------------------------------------------------------------------

int __wrap_bind(int fd, const sockaddr* address, socklen_t length)
{
    return call("bind", fd, &Socket::bind, Address::of(address, length));
}

int __wrap_listen(int fd, int backlog) { return call("listen", fd, &StreamSocket::listen, backlog); }

int __wrap_connect(int fd, const sockaddr* address, socklen_t length)
{
    return call<StreamSocket>("connect", fd, [=](StreamSocket& stream) {
        const int result = stream.connect(Address::of(address, length));
        if (result != -EINPROGRESS || stream.bNonBlocking)
            return result;
        Scheduler::get().wait("connect", [&] { return !stream.isConnecting(); });
        return stream.connect(Address::of(address, length));
    });
}

int __wrap_accept4(int fd, sockaddr*, socklen_t*, int flags)
{
    return call<StreamSocket>(
        "accept4", fd, [=](StreamSocket& listener) { return listener.accept(flags); }, kReadable);
}

int __wrap_shutdown(int fd, int) { return call("shutdown", fd, &StreamSocket::shutdownWrite); }

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size)
{
    trace("option %d of level %d", name, level);
    return call("setsockopt", fd, &Socket::setOption, level, name, value, size);
}

int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* size)
{
    return call("getsockopt", fd, &Socket::option, level, name, value, size);
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* length)
{
    return call<Socket>(
        "getsockname", fd, [=](const Socket& socket) { return socket.local.copyTo(address, length); });
}

int __wrap_getpeername(int fd, sockaddr* address, socklen_t* length)
{
    return call<StreamSocket>("getpeername", fd, [=](const StreamSocket& stream) {
        return stream.isConnected() ? stream.remote.copyTo(address, length) : -ENOTCONN;
    });
}

// --- bytes ---------------------------------------------------------------------------------------------

ssize_t __wrap_send(int fd, const void* data, std::size_t size, int flags)
{
    return sendOne("send", fd, Message(data, size), flags);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags)
{
    return sendOne("sendmsg", fd, *message, flags);
}

ssize_t __wrap_sendto(
    int fd, const void* data, std::size_t size, int flags, const sockaddr* to, socklen_t length)
{
    Message message(data, size);
    message.msg_name = const_cast<sockaddr*>(to);
    message.msg_namelen = length;
    return sendOne("sendto", fd, message, flags);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags)
{
    return call<DatagramSocket>(
        "sendmmsg", fd,
        [=](DatagramSocket& socket) {
            return forEach(
                messages, count, [&](const msghdr& message) { return socket.send(message, flags); });
        },
        (flags & MSG_DONTWAIT) != 0 ? 0 : kWriteable);
}

ssize_t __wrap_recv(int fd, void* data, std::size_t size, int flags)
{
    Message message(data, size);
    return receiveOne("recv", fd, &message, flags);
}

ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags)
{
    return receiveOne("recvmsg", fd, message, flags);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec*)
{
    return call<DatagramSocket>("recvmmsg", fd, [=](DatagramSocket& socket) {
        return forEach(messages, count, [&](msghdr& message) { return socket.receive(&message, flags); });
    });
}

// --- names and memory ----------------------------------------------------------------------------------

int __real_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list)
{
    Kernel& kernel = Kernel::get();
    kernel.enter("getaddrinfo");
    Scheduler& scheduler = Scheduler::get();
    const Time answer = scheduler.now()
        + (kernel.chance(kernel.weather.stall * 10) ? kernel.random().below(60000 * kMs) : kernel.delay());
    scheduler.wait(
        "getaddrinfo", [] { return false; }, answer);
    const auto known = kernel.names.find(name);
    int result = known == kernel.names.end() || known->second.empty() ? EAI_NONAME : 0;
    if (kernel.chance(kernel.weather.lose + kernel.weather.noMemory))
        result = kernel.chance(0.5) ? EAI_AGAIN : EAI_MEMORY;
    *list = nullptr;
    addrinfo** tail = list;
    for (std::size_t i = 0; result == 0 && i < known->second.size(); ++i) {
        if (__real_getaddrinfo(known->second[i].c_str(), service, hints, tail) == 0)
            tail = &(*tail)->ai_next;
    }
    trace("getaddrinfo(%s) = %d", name, result);
    return result;
}

unsigned int __wrap_if_nametoindex(const char*) { return 0; }

void* __real_realloc(void* block, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size)
{
    Kernel& kernel = Kernel::get();
    if (!Scheduler::isActive() || !kernel.chance(kernel.weather.noMemory))
        return __real_realloc(block, size);
    trace("realloc(%zu) = 0", size);
    return nullptr;
}
}

// Names given by hand: no function of C returns such a value.
Nuvika::Bytes realTryAllocate(std::size_t size) __asm__("__real__ZN6Nuvika11tryAllocateEm");
Nuvika::Bytes wrapTryAllocate(std::size_t size) __asm__("__wrap__ZN6Nuvika11tryAllocateEm");
Nuvika::Bytes wrapTryAllocate(std::size_t size)
{
    Kernel& kernel = Kernel::get();
    if (!kernel.chance(kernel.weather.noMemory))
        return realTryAllocate(size);
    trace("malloc(%zu) = 0", size);
    return {};
}
