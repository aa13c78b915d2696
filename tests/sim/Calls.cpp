// The system calls of the library, which the linker routes here (--wrap; the list stands in CMakeLists.txt).
// Descriptors that are not ours are the real system's.
#include "sim/DatagramSockets.h"
#include "sim/Epoll.h"
#include "sim/Kernel.h"
#include "sim/StreamSockets.h"

#include "platform/Bytes_p.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>

using namespace sim;

extern "C" int __real_poll(pollfd* set, nfds_t count, int milliseconds);

namespace
{
// Ends a call: what it returns and errno, and a line of the trace.
template <class Result>
Result told(Result result, const char* call, int fd, const char* more = "")
{
    if (result < 0)
        trace("%s(%d%s) = %s", call, fd, more, strerrorname_np(static_cast<int>(-result)));
    else
        trace("%s(%d%s) = %ld", call, fd, more, static_cast<long>(result));
    if (result >= 0)
        return result;
    errno = static_cast<int>(-result);
    return -1;
}

Kernel& entered(const char* call)
{
    Kernel::get().enter(call);
    return Kernel::get();
}

template <class Kind>
int openFile(const char* call, const std::shared_ptr<Kind>& file)
{
    Kernel& kernel = entered(call);
    int result = kernel.fault(kernel.weather.noDescriptor, {EMFILE, ENFILE, ENOMEM});
    if (result == 0)
        result = kernel.open(file);
    return told(result, call, 0);
}

std::shared_ptr<StreamSocket> streamOf(int fd, const char* call)
{
    return Kernel::get().fileOf<StreamSocket>(fd, call);
}

bool mayWait(const File& file, int flags) { return !file.bNonBlocking && (flags & MSG_DONTWAIT) == 0; }

// Where nothing can be done yet, and the call may wait, it waits for those events.
template <class Kind, class Operation>
long retried(Kind& file, const char* call, int flags, unsigned int events, Operation operation)
{
    long result = operation();
    while (result == -EAGAIN && mayWait(file, flags)) {
        Scheduler::get().wait(call, [&] { return (file.poll() & events) != 0; });
        result = operation();
    }
    return result;
}

template <class Operation>
long transferred(int fd, const char* call, int flags, unsigned int events, Operation operation)
{
    Kernel& kernel = entered(call);
    const auto stream = streamOf(fd, call);
    long result = kernel.interrupted();
    if (result == 0)
        result = kernel.outOfMemory();
    if (result == 0)
        result = retried(*stream, call, flags, events, [&] { return operation(*stream); });
    return told(result, call, fd);
}

long sendStream(int fd, const char* call, const iovec* ranges, std::size_t count, int flags)
{
    return transferred(
        fd, call, flags, ~0U, [=](StreamSocket& stream) { return stream.send(ranges, count, flags); });
}

long receiveStream(int fd, const char* call, const iovec* ranges, std::size_t count, int flags)
{
    return transferred(fd, call, flags, EPOLLIN | EPOLLERR | EPOLLHUP,
        [=](StreamSocket& stream) { return stream.receive(ranges, count, flags); });
}

long sendDatagram(int fd, const msghdr& message, int flags)
{
    const auto socket = Kernel::get().fileOf<DatagramSocket>(fd, "sendto");
    return retried(*socket, "sendto", flags, EPOLLOUT, [&] { return socket->send(message, flags); });
}

// Besides ours there is the descriptor by which an event loop is woken: one of the real system's.
int readyOf(pollfd* set, nfds_t count)
{
    int ready = 0;
    for (pollfd* entry = set; entry != set + count; ++entry) {
        entry->revents = 0;
        if (Kernel::isOurs(entry->fd))
            entry->revents = static_cast<short>(Kernel::get().file(entry->fd, "poll")->poll()
                & (static_cast<unsigned short>(entry->events) | POLLERR | POLLHUP));
        else if (entry->fd >= 0)
            __real_poll(entry, 1, 0);
        ready += entry->revents != 0 ? 1 : 0;
    }
    return ready;
}

int pollAll(const char* call, pollfd* set, nfds_t count, Time limit)
{
    Kernel& kernel = entered(call);
    if (const int error = kernel.interrupted())
        return told(error, call, 0);
    Scheduler& scheduler = Scheduler::get();
    const Time deadline = limit == kNever ? kNever : scheduler.now() + limit;
    scheduler.wait(
        call, [&] { return readyOf(set, count) > 0; }, deadline);
    kernel.bPolledEndlessly = limit == kNever;
    return told(readyOf(set, count), call, set[0].fd);
}
} // namespace

extern "C" {
// --- descriptors ---------------------------------------------------------------------------------------

int __wrap_socket(int family, int type, int)
{
    if ((type & SOCK_DGRAM) != 0)
        return openFile("socket", std::make_shared<DatagramSocket>(family));
    return openFile("socket", std::make_shared<StreamSocket>(family));
}

int __wrap_epoll_create1(int) { return openFile("epoll_create1", std::make_shared<Epoll>()); }

int __wrap_eventfd(unsigned int, int) { return openFile("eventfd", std::make_shared<EventFd>()); }

int __real_close(int fd);
int __wrap_close(int fd)
{
    if (!Kernel::isOurs(fd))
        return __real_close(fd);
    Kernel& kernel = entered("close");
    const int interrupted = kernel.interrupted(); // and closed all the same
    kernel.close(fd);
    return told(interrupted, "close", fd);
}

ssize_t __real_read(int fd, void* data, std::size_t size);
ssize_t __wrap_read(int fd, void* data, std::size_t size)
{
    if (!Kernel::isOurs(fd))
        return __real_read(fd, data, size);
    Kernel& kernel = entered("read");
    return told(kernel.fileOf<EventFd>(fd, "read")->read(static_cast<std::uint64_t*>(data)), "read", fd);
}

ssize_t __real_write(int fd, const void* data, std::size_t size);
ssize_t __wrap_write(int fd, const void* data, std::size_t size)
{
    if (!Kernel::isOurs(fd))
        return __real_write(fd, data, size);
    Kernel& kernel = entered("write");
    std::uint64_t value = 0;
    std::memcpy(&value, data, sizeof value);
    return told(kernel.fileOf<EventFd>(fd, "write")->write(value), "write", fd);
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
    const auto file = entered("fcntl").file(fd, "fcntl");
    return told(command == F_GETFL ? O_RDWR | (file->bNonBlocking ? O_NONBLOCK : 0) : 0, "fcntl", fd);
}

int __wrap_ioctl(int fd, unsigned long request, int* value)
{
    const auto file = entered("ioctl").file(fd, "ioctl");
    if (request != FIONBIO)
        return told(-EINVAL, "ioctl", fd);
    file->bNonBlocking = *value != 0;
    return told(0, "ioctl", fd);
}

// --- readiness -----------------------------------------------------------------------------------------

int __wrap_epoll_ctl(int port, int operation, int fd, epoll_event* event)
{
    Kernel& kernel = entered("epoll_ctl");
    const auto epoll = kernel.fileOf<Epoll>(port, "epoll_ctl");
    const auto file = kernel.file(fd, "epoll_ctl");
    if (operation == EPOLL_CTL_DEL)
        return told(epoll->remove(*file), "epoll_ctl", port, " DEL");
    int result = kernel.fault(kernel.weather.noMemory, {ENOSPC, ENOMEM});
    if (result == 0)
        result = epoll->add(file, *event);
    return told(result, "epoll_ctl", fd, " ADD");
}

int __wrap_epoll_wait(int port, epoll_event* events, int most, int)
{
    Kernel& kernel = entered("epoll_wait");
    return told(kernel.fileOf<Epoll>(port, "epoll_wait")->wait(events, most), "epoll_wait", port);
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
    Kernel& kernel = entered("bind");
    const Address name = Address::of(address, length);
    const auto datagrams = std::dynamic_pointer_cast<DatagramSocket>(kernel.file(fd, "bind"));
    return told(datagrams ? datagrams->bind(name) : streamOf(fd, "bind")->bind(name), "bind", fd);
}

int __wrap_listen(int fd, int backlog)
{
    Kernel& kernel = entered("listen");
    int result = kernel.fault(kernel.weather.noMemory, {EADDRINUSE});
    if (result == 0)
        result = streamOf(fd, "listen")->listen(backlog);
    return told(result, "listen", fd);
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t length)
{
    entered("connect");
    const auto stream = streamOf(fd, "connect");
    int result = stream->connect(Address::of(address, length));
    if (result == -EINPROGRESS && !stream->bNonBlocking) {
        Scheduler::get().wait("connect", [&] { return !stream->isConnecting(); });
        result = stream->connect(Address::of(address, length));
    }
    return told(result, "connect", fd);
}

int __wrap_accept4(int fd, sockaddr*, socklen_t*, int flags)
{
    Kernel& kernel = entered("accept4");
    const auto listener = streamOf(fd, "accept4");
    long result = kernel.interrupted();
    if (result == 0)
        result = retried(*listener, "accept4", 0, ~0U, [&] { return listener->accept(flags); });
    return told(static_cast<int>(result), "accept4", fd);
}

int __wrap_shutdown(int fd, int)
{
    entered("shutdown");
    return told(streamOf(fd, "shutdown")->shutdownWrite(), "shutdown", fd);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size)
{
    Kernel& kernel = entered("setsockopt");
    const auto datagrams = std::dynamic_pointer_cast<DatagramSocket>(kernel.file(fd, "setsockopt"));
    int result = kernel.outOfMemory();
    if (result == 0)
        result = datagrams ? datagrams->setOption(level, name, value, size)
                           : streamOf(fd, "setsockopt")->setOption(level, name, value, size);
    return told(result, "setsockopt", fd, (" " + std::to_string(level) + " " + std::to_string(name)).c_str());
}

int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* size)
{
    Kernel& kernel = entered("getsockopt");
    if (std::dynamic_pointer_cast<DatagramSocket>(kernel.file(fd, "getsockopt")))
        return told(-ENOPROTOOPT, "getsockopt", fd);
    return told(streamOf(fd, "getsockopt")->option(level, name, value, size), "getsockopt", fd);
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* length)
{
    Kernel& kernel = entered("getsockname");
    const auto datagrams = std::dynamic_pointer_cast<DatagramSocket>(kernel.file(fd, "getsockname"));
    (datagrams ? datagrams->local : streamOf(fd, "getsockname")->local).copyTo(address, length);
    return told(0, "getsockname", fd);
}

int __wrap_getpeername(int fd, sockaddr* address, socklen_t* length)
{
    entered("getpeername");
    const auto stream = streamOf(fd, "getpeername");
    if (!stream->isConnected())
        return told(-ENOTCONN, "getpeername", fd);
    stream->remote.copyTo(address, length);
    return told(0, "getpeername", fd);
}

// --- bytes ---------------------------------------------------------------------------------------------

ssize_t __wrap_send(int fd, const void* data, std::size_t size, int flags)
{
    const iovec range{const_cast<void*>(data), size};
    return sendStream(fd, "send", &range, 1, flags);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags)
{
    return sendStream(fd, "sendmsg", message->msg_iov, message->msg_iovlen, flags);
}

ssize_t __wrap_recv(int fd, void* data, std::size_t size, int flags)
{
    const iovec range{data, size};
    return receiveStream(fd, "recv", &range, 1, flags);
}

ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags)
{
    return receiveStream(fd, "recvmsg", message->msg_iov, message->msg_iovlen, flags);
}

ssize_t __wrap_sendto(
    int fd, const void* data, std::size_t size, int flags, const sockaddr* to, socklen_t length)
{
    Kernel& kernel = entered("sendto");
    iovec range{const_cast<void*>(data), size};
    msghdr message{};
    message.msg_name = const_cast<sockaddr*>(to);
    message.msg_namelen = length;
    message.msg_iov = &range;
    message.msg_iovlen = 1;
    const long interrupted = kernel.interrupted();
    return told(interrupted != 0 ? interrupted : sendDatagram(fd, message, flags), "sendto", fd);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned int count, int flags)
{
    Kernel& kernel = entered("sendmmsg");
    if (const int error = kernel.interrupted())
        return told(error, "sendmmsg", fd);
    for (unsigned int i = 0; i < count; ++i) {
        const long sent = sendDatagram(fd, messages[i].msg_hdr, flags);
        if (sent < 0)
            return told(i > 0 ? static_cast<int>(i) : static_cast<int>(sent), "sendmmsg", fd);
        messages[i].msg_len = static_cast<unsigned int>(sent);
    }
    return told(static_cast<int>(count), "sendmmsg", fd);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned int count, int flags, timespec*)
{
    Kernel& kernel = entered("recvmmsg");
    const auto socket = kernel.fileOf<DatagramSocket>(fd, "recvmmsg");
    int result = kernel.interrupted();
    if (result == 0)
        result = kernel.fault(kernel.weather.noMemory, {ENOMEM});
    for (unsigned int i = 0; i < count && result == static_cast<int>(i); ++i) {
        const long got = socket->receive(&messages[i].msg_hdr, flags);
        if (got >= 0)
            messages[i].msg_len = static_cast<unsigned int>(got);
        result = got >= 0 ? result + 1 : i > 0 ? result : static_cast<int>(got);
    }
    return told(result, "recvmmsg", fd);
}

// --- names and memory ----------------------------------------------------------------------------------

int __real_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list);
int __wrap_getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list)
{
    Kernel& kernel = entered("getaddrinfo");
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
