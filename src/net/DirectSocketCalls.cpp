#include "net/DirectSocketCalls_p.h"

#include "net/HandOver_p.h"
#include "platform/Datagrams_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/WorkerPool_p.h"

#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

using namespace Nuvika;

namespace
{
template <class Call>
int mayBlock(const char* function, const Call& call)
{
    const std::optional<int> result = handOver(function, WorkerPool::blockingCalls(), call);
    if (!result)
        ErrorCodes::setLastError(ErrorCodes::kCallFailure);
    return result.value_or(-1);
}
} // namespace

int DirectCalls::connect(int s, const sockaddr* address, int length)
{
    const auto call = [=] { return Sockets::connect(s, address, length); };
    return Sockets::isBlocking(s) ? mayBlock("WSAConnect", call) : call();
}

int DirectCalls::sendTo(int s, const void* data, std::size_t size, int flags, const sockaddr* to, int length)
{
    const int sent = Sockets::sendTo(s, data, size, flags | MSG_DONTWAIT, to, length);
    if (sent >= 0 || ErrorCodes::lastError() != ErrorCodes::kWouldBlock || !Sockets::isBlocking(s))
        return sent;
    return mayBlock("sendto", [=] { return Sockets::sendTo(s, data, size, flags, to, length); });
}

int DirectCalls::sendMany(
    int s, const KepNuvikaUtil::BUFFER* datagrams, int count, const sockaddr* to, int length)
{
    std::vector<iovec> ranges;
    ranges.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        ranges.push_back(
            {const_cast<char*>(datagrams[i].pData), static_cast<std::size_t>(datagrams[i].nLen)});
    Datagrams::Runs runs = Datagrams::Runs::eNever;
    return Datagrams::send(s, ranges.data(), 1, count, to, length, &runs);
}

int DirectCalls::close(int s)
{
    const auto call = [=] { return Sockets::close(s); };
    if (!Sockets::lingers(s))
        return call();
    const std::optional<int> result = handOver("closesocket", WorkerPool::blockingCalls(), call);
    return result ? *result : call();
}
