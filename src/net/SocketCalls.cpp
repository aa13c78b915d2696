#include <KepNuvikaUtil/SocketCalls.h>

#include "core/Log_p.h"
#include "platform/Datagrams_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/Sockets_p.h"
#include "platform/WaitableEvent_p.h"
#include "platform/WorkerPool_p.h"

#include <QtCore/QRunnable>
#include <QtNetwork/QAbstractSocket>

#include <cstring>
#include <memory>
#include <vector>

#include <sys/uio.h>

using namespace Nuvika;

namespace
{
// One wrapped call. Lives on the caller's stack while the caller waits. The event is shared, because the
// worker may still be inside set() when the caller has already returned.
class SocketCall : public QRunnable
{
public:
    SocketCall() : m_pDone(std::make_shared<WaitableEvent>()) { setAutoDelete(false); }

    void run() final
    {
        const std::shared_ptr<WaitableEvent> done = m_pDone;
        m_nResult = call();
        if (failed(m_nResult))
            m_nError = ErrorCodes::lastError();
        done->set();
    }

    int execute(const char* refusedText)
    {
        const auto trampoline = [](void* item) { static_cast<QRunnable*>(item)->run(); };
        if (!WorkerPool::socketCalls().submit(trampoline, static_cast<QRunnable*>(this))) {
            NUVIKA_CRITICAL(lcNet, "%s", refusedText);
            return ErrorCodes::kCallFailure;
        }
        m_pDone->wait();
        if (failed(m_nResult))
            ErrorCodes::setLastError(m_nError);
        return m_nResult;
    }

private:
    virtual int call() = 0;
    virtual bool failed(int result) const { return result == -1; }

    std::shared_ptr<WaitableEvent> m_pDone;
    int m_nResult = 0;
    int m_nError = 0;
};

struct DoBind final : SocketCall {
    int s;
    const sockaddr* addr;
    int len;
    DoBind(int s_, const sockaddr* addr_, int len_) : s(s_), addr(addr_), len(len_) { }
    int call() override { return Sockets::bind(s, addr, len); }
};

struct DoClose final : SocketCall {
    int s;
    explicit DoClose(int s_) : s(s_) { }
    int call() override { return Sockets::close(s); }
};

struct DoWriteShutdown final : SocketCall {
    int s;
    explicit DoWriteShutdown(int s_) : s(s_) { }
    int call() override { return Sockets::shutdownWrite(s); }
};

struct DoSendTo final : SocketCall {
    int s;
    const void* data;
    unsigned int len;
    int flags;
    const sockaddr* to;
    int tolen;
    DoSendTo(int s_, const void* data_, unsigned int len_, int flags_, const sockaddr* to_, int tolen_)
        : s(s_), data(data_), len(len_), flags(flags_), to(to_), tolen(tolen_)
    {
    }
    int call() override { return Sockets::sendTo(s, data, len, flags, to, tolen); }
};

struct DoSendMany final : SocketCall {
    int s;
    const KepNuvikaUtil::BUFFER* datagrams;
    int count;
    const sockaddr* to;
    int tolen;
    DoSendMany(int s_, const KepNuvikaUtil::BUFFER* datagrams_, int count_, const sockaddr* to_, int tolen_)
        : s(s_), datagrams(datagrams_), count(count_), to(to_), tolen(tolen_)
    {
    }
    int call() override
    {
        m_ranges.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i)
            m_ranges.push_back(
                {const_cast<char*>(datagrams[i].pData), static_cast<std::size_t>(datagrams[i].nLen)});
        Datagrams::Runs runs = Datagrams::Runs::eNever;
        return Datagrams::send(s, m_ranges.data(), 1, count, to, tolen, &runs);
    }
    bool failed(int result) const override { return result < count; }

private:
    std::vector<iovec> m_ranges;
};

struct DoSetSockOpt final : SocketCall {
    int s;
    int level;
    int optname;
    const void* optval;
    int optlen;
    DoSetSockOpt(int s_, int level_, int optname_, const void* optval_, int optlen_)
        : s(s_), level(level_), optname(optname_), optval(optval_), optlen(optlen_)
    {
    }
    int call() override { return Sockets::setOption(s, level, optname, optval, optlen); }
};

struct DoGetSockName final : SocketCall {
    int s;
    const void* name;
    int* namelen;
    DoGetSockName(int s_, const void* name_, int* namelen_) : s(s_), name(name_), namelen(namelen_) { }
    int call() override { return Sockets::localName(s, const_cast<void*>(name), namelen); }
};

struct DoWSAConnect final : SocketCall {
    int s;
    const sockaddr* addr;
    int len;
    DoWSAConnect(int s_, const sockaddr* addr_, int len_) : s(s_), addr(addr_), len(len_) { }
    int call() override { return Sockets::connect(s, addr, len); }
};
} // namespace

int NuvikaLLSock::bind(int s, const sockaddr* addr, int len)
{
    return DoBind(s, addr, len).execute("NuvikaLLSock::bind(): QueueUserWorkItem failed");
}

int NuvikaLLSock::closesocket(int s)
{
    return DoClose(s).execute("NuvikaLLSock::closesocket(): QueueUserWorkItem failed");
}

int NuvikaLLSock::shutdownWrite(int s)
{
    return DoWriteShutdown(s).execute("NuvikaLLSock::shutdownWrite(): QueueUserWorkItem failed");
}

int NuvikaLLSock::sendto(int s, const void* data, unsigned int len, int flags, const sockaddr* to, int tolen)
{
    return DoSendTo(s, data, len, flags, to, tolen)
        .execute("NuvikaLLSock::sendto(): QueueUserWorkItem failed");
}

int NuvikaLLSock::sendmany(
    int s, const KepNuvikaUtil::BUFFER* datagrams, int count, const sockaddr* to, int tolen)
{
    return DoSendMany(s, datagrams, count, to, tolen)
        .execute("NuvikaLLSock::sendmany(): QueueUserWorkItem failed");
}

int NuvikaLLSock::setsockopt(int s, int level, int optname, const void* optval, int optlen)
{
    return DoSetSockOpt(s, level, optname, optval, optlen)
        .execute("NuvikaLLSock::setsockopt(): QueueUserWorkItem failed");
}

int NuvikaLLSock::getsockname(int s, const void* name, int* namelen)
{
    return DoGetSockName(s, name, namelen).execute("NuvikaLLSock::getsockname(): QueueUserWorkItem failed");
}

int NuvikaLLSock::WSAConnect(int s, const sockaddr* addr, int len)
{
    return DoWSAConnect(s, addr, len).execute("NuvikaLLSock::WSAConnect(): QueueUserWorkItem failed");
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
