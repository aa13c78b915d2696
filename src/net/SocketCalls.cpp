#include <KepNuvikaUtil/SocketCalls.h>

#include "net/DirectSocketCalls_p.h"
#include "net/HandOver_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/WorkerPool_p.h"

#include <QtNetwork/QAbstractSocket>

#include <cstring>

using namespace Nuvika;

namespace
{
template <class Call>
int onWorker(const char* function, bool bMayBlock, const Call& call)
{
    WorkerPool& pool = bMayBlock ? WorkerPool::blockingCalls() : WorkerPool::promptCalls();
    return handOver(function, pool, call).value_or(ErrorCodes::kCallFailure);
}
} // namespace

int NuvikaLLSock::bind(int s, const sockaddr* addr, int len)
{
    return onWorker("bind", false, [=] { return Sockets::bind(s, addr, len); });
}

int NuvikaLLSock::closesocket(int s)
{
    return onWorker("closesocket", Sockets::lingers(s), [=] { return Sockets::close(s); });
}

int NuvikaLLSock::shutdownWrite(int s)
{
    return onWorker("shutdownWrite", false, [=] { return Sockets::shutdownWrite(s); });
}

int NuvikaLLSock::sendto(int s, const void* data, unsigned int len, int flags, const sockaddr* to, int tolen)
{
    return onWorker(
        "sendto", Sockets::isBlocking(s), [=] { return Sockets::sendTo(s, data, len, flags, to, tolen); });
}

int NuvikaLLSock::sendmany(
    int s, const KepNuvikaUtil::BUFFER* datagrams, int count, const sockaddr* to, int tolen)
{
    return onWorker("sendmany", false, [=] { return DirectCalls::sendMany(s, datagrams, count, to, tolen); });
}

int NuvikaLLSock::setsockopt(int s, int level, int optname, const void* optval, int optlen)
{
    return onWorker(
        "setsockopt", false, [=] { return Sockets::setOption(s, level, optname, optval, optlen); });
}

int NuvikaLLSock::getsockname(int s, const void* name, int* namelen)
{
    return onWorker(
        "getsockname", false, [=] { return Sockets::localName(s, const_cast<void*>(name), namelen); });
}

int NuvikaLLSock::WSAConnect(int s, const sockaddr* addr, int len)
{
    return onWorker("WSAConnect", Sockets::isBlocking(s), [=] { return Sockets::connect(s, addr, len); });
}

bool NuvikaLLSock::setNonBlocking(int s, bool nonBlocking)
{
    return Sockets::setNonBlocking(s, nonBlocking) != -1;
}

void NuvikaLLSock::createSockAddr(ADDR_V4_V6* out, const QHostAddress& address, unsigned short port)
{
    std::memset(out, 0, sizeof *out);
    switch (address.protocol()) {
    case QAbstractSocket::IPv4Protocol:
    case QAbstractSocket::AnyIPProtocol:
        out->v4.sin_family = AF_INET;
        out->v4.sin_port = htons(port);
        out->v4.sin_addr.s_addr = htonl(address.toIPv4Address());
        break;
    case QAbstractSocket::IPv6Protocol: {
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        out->v6.sin6_family = AF_INET6;
        out->v6.sin6_port = htons(port);
        std::memcpy(&out->v6.sin6_addr, &bytes, sizeof bytes);
        break;
    }
    default:
        break;
    }
}

void NuvikaLLSock::getPortAndAddress(const ADDR_V4_V6* in, QHostAddress* address, unsigned short* port)
{
    switch (in->sa.sa_family) {
    case AF_INET:
        address->setAddress(&in->sa);
        *port = ntohs(in->v4.sin_port);
        break;
    case AF_INET6:
        address->setAddress(&in->sa);
        *port = ntohs(in->v6.sin6_port);
        break;
    default:
        address->clear();
        break;
    }
}
