#include <KepNuvikaUtil/NuvikaUdpSender.h>

#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/InterfaceIndex_p.h"
#include "net/SocketAddress_p.h"
#include "platform/Datagrams_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/Sockets_p.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include <netinet/in.h>

using namespace Nuvika;

namespace
{
constexpr int kSendBuffer = 65536;
constexpr std::size_t kRangesPerCall = 1024;
constexpr char kInterfaceFailure6[]
    = "NuvikaUdpSender::setMulticastOptions(): Failed setting IPV6_MULTICAST_IF; %s";

iovec rangeOf(const KepNuvikaUtil::BUFFER& buffer)
{
    return {const_cast<char*>(buffer.pData), static_cast<std::size_t>(buffer.nLen)};
}

bool arePackets(const KepNuvikaUtil::BUFFER* parts, int partsEach, int count)
{
    const auto bNegative = [](const KepNuvikaUtil::BUFFER& part) { return part.nLen < 0; };
    return partsEach >= 1 && partsEach <= Datagrams::kMaxParts
        && std::none_of(parts, parts + static_cast<std::ptrdiff_t>(count) * partsEach, bNegative);
}
} // namespace

struct NuvikaUdpSender::Socket {
    explicit Socket(int nSocket) : s(nSocket) { }
    ~Socket() { DirectCalls::close(s); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    const int s;
    bool bBound = false;
    Datagrams::Runs runs = Datagrams::Runs::eUnknown;
};

NuvikaUdpSender::NuvikaUdpSender() : NuvikaUdpSender(QAbstractSocket::IPv4Protocol) { }

NuvikaUdpSender::NuvikaUdpSender(QAbstractSocket::NetworkLayerProtocol family)
    : m_bIPv6(family == QAbstractSocket::IPv6Protocol)
{
    if (!openSocket("NuvikaUdpSender::NuvikaUdpSender() socket creation failed: %s"))
        return;
    setOption(SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer,
        "NuvikaUdpSender::NuvikaUdpSender(): SO_SNDBUF failed: %s");
    if (DirectCalls::setNonBlocking(m_pSocket->s, true) != 0) {
        m_errorString = SocketError::formatLast();
        NUVIKA_WARNING(
            lcNet, "NuvikaUdpSender::NuvikaUdpSender(): FIONBIO failed: %s", qUtf8Printable(m_errorString));
    }
}

int NuvikaUdpSender::descriptor() const { return m_pSocket ? m_pSocket->s : -1; }

bool NuvikaUdpSender::openSocket(const char* failureText)
{
    const int s = Sockets::openDatagram(m_bIPv6 ? AF_INET6 : AF_INET);
    if (s >= 0)
        m_pSocket = std::make_shared<Socket>(s);
    if (s >= 0 && (!m_bIPv6 || Sockets::setIPv6Only(s, true) == 0))
        return true;
    m_errorString = SocketError::formatLast();
    NUVIKA_CRITICAL(lcNet, failureText, qUtf8Printable(m_errorString));
    m_pSocket.reset();
    return false;
}

bool NuvikaUdpSender::checkSock()
{
    return m_pSocket || openSocket("NuvikaUdpSender::checkSock() socket creation failed: %s");
}

bool NuvikaUdpSender::bind(const NuvikaLLSock::ADDR_V4_V6& address)
{
    if (!checkSock())
        return false;
    // An address of no family would be taken by the system for every address.
    const bool bFamily = address.sa.sa_family != AF_UNSPEC;
    if (!bFamily)
        ErrorCodes::setLastError(ErrorCodes::kFamilyNotSupported);
    if (!bFamily || DirectCalls::bind(m_pSocket->s, &address.sa, sizeof address) != 0) {
        m_errorString = SocketError::formatLast();
        NUVIKA_WARNING(lcNet, "NuvikaUdpSender::bind() failed; %s", qUtf8Printable(m_errorString));
        return false;
    }
    m_pSocket->bBound = true;
    return true;
}

bool NuvikaUdpSender::bind(unsigned short port, const QHostAddress& address)
{
    NuvikaLLSock::ADDR_V4_V6 local;
    NuvikaLLSock::createSockAddr(&local, address, port);
    if (local.sa.sa_family == AF_INET6)
        local.v6.sin6_scope_id = scopeIndex(address);
    return bind(local);
}

bool NuvikaUdpSender::checkBound()
{
    return (m_pSocket && m_pSocket->bBound)
        || bind(0, QHostAddress(m_bIPv6 ? QHostAddress::AnyIPv6 : QHostAddress::AnyIPv4));
}

bool NuvikaUdpSender::sendTo(const void* data, int size, const NuvikaLLSock::ADDR_V4_V6& destination)
{
    if (!checkBound())
        return false;
    if (size < 0)
        ErrorCodes::setLastError(ErrorCodes::kInvalidArgument);
    else if (DirectCalls::sendTo(
                 m_pSocket->s, data, static_cast<std::size_t>(size), 0, &destination.sa, sizeof destination)
        == size)
        return true;
    m_errorString = SocketError::formatLast();
    return false;
}

int NuvikaUdpSender::sendMany(
    const KepNuvikaUtil::BUFFER* datagrams, int count, const NuvikaLLSock::ADDR_V4_V6& destination)
{
    return sendPackets(datagrams, 1, count, destination);
}

int NuvikaUdpSender::sendPackets(
    const KepNuvikaUtil::BUFFER* parts, int partsEach, int count, const NuvikaLLSock::ADDR_V4_V6& destination)
{
    if (count <= 0 || !checkBound())
        return 0;
    if (!arePackets(parts, partsEach, count)) {
        m_errorString = SocketError::format(ErrorCodes::kInvalidArgument);
        return 0;
    }
    std::array<iovec, kRangesPerCall> ranges;
    int sent = 0;
    while (sent < count) {
        const int step = std::min(count - sent, static_cast<int>(kRangesPerCall) / partsEach);
        const auto used = static_cast<std::ptrdiff_t>(step) * partsEach;
        std::transform(parts, parts + used, ranges.begin(), rangeOf);
        parts += used;
        const int went = Datagrams::send(m_pSocket->s, ranges.data(), partsEach, step, &destination.sa,
            sizeof destination, &m_pSocket->runs);
        sent += std::max(went, 0);
        if (went < step) {
            m_errorString = SocketError::formatLast();
            break;
        }
    }
    return sent;
}

bool NuvikaUdpSender::setOption(int level, int name, const void* value, int size, const char* failureText)
{
    if (!checkSock())
        return false;
    if (DirectCalls::setOption(m_pSocket->s, level, name, value, size) == 0)
        return true;
    m_errorString = SocketError::formatLast();
    NUVIKA_WARNING(lcNet, failureText, qUtf8Printable(m_errorString));
    return false;
}

bool NuvikaUdpSender::setMulticastInterface(const QHostAddress& interfaceAddress)
{
    if (interfaceAddress.isNull())
        return true;
    if (m_bIPv6)
        return setMulticastInterface6(interfaceAddress);
    // The whole 16-byte record, not the bare address: the system finds the address where ip_mreqn has it.
    NuvikaLLSock::ADDR_V4_V6 record;
    NuvikaLLSock::createSockAddr(&record, interfaceAddress, 0);
    return setOption(IPPROTO_IP, IP_MULTICAST_IF, &record, sizeof record.v4,
        "NuvikaUdpSender::setMulticastOptions(): Failed setting IP_MULTICAST_IF; %s");
}

bool NuvikaUdpSender::setMulticastInterface6(const QHostAddress& interfaceAddress)
{
    const unsigned int index = interfaceIndexOf(interfaceAddress);
    if (index == 0 && interfaceAddress != QHostAddress(QHostAddress::AnyIPv6)) { // the system's choice
        m_errorString = SocketError::format(ErrorCodes::kNoDevice);
        NUVIKA_WARNING(lcNet, kInterfaceFailure6, qUtf8Printable(m_errorString));
        return false;
    }
    return setOption(IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index, kInterfaceFailure6);
}

bool NuvikaUdpSender::setMulticastTtl(unsigned int ttl)
{
    if (m_bIPv6)
        return setOption(IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ttl, sizeof ttl,
            "NuvikaUdpSender::setMulticastOptions(): Failed setting IPV6_MULTICAST_HOPS; %s");
    return setOption(IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl,
        "NuvikaUdpSender::setMulticastOptions(): Failed setting IP_MULTICAST_TTL; %s");
}

bool NuvikaUdpSender::setTosBits(unsigned int tos)
{
    if (m_bIPv6)
        return setOption(IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof tos,
            "NuvikaUdpSender::setMulticastOptions(): Failed setting IPV6_TCLASS; %s");
    return setOption(IPPROTO_IP, IP_TOS, &tos, sizeof tos,
        "NuvikaUdpSender::setMulticastOptions(): Failed setting IP_TOS; %s");
}

bool NuvikaUdpSender::setSendBufferSize(int bytes)
{
    return setOption(SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes,
        "NuvikaUdpSender::setSendBufferSize(): Failed setting SO_SNDBUF; %s");
}

void NuvikaUdpSender::close() { m_pSocket.reset(); }

const QString& NuvikaUdpSender::errorString() { return m_errorString; }

QHostAddress NuvikaUdpSender::localAddress() { return localNameOf(descriptor()).address; }

unsigned short NuvikaUdpSender::localPort() const { return localNameOf(descriptor()).port; }
