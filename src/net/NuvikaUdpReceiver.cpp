#include <KepNuvikaUtil/NuvikaUdpReceiver.h>

#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "net/DirectSocketCalls_p.h"
#include "net/InterfaceIndex_p.h"
#include "net/NuvikaUdpReceiverIO_p.h"
#include "net/OwnerThread_p.h"
#include "net/SocketAddress_p.h"
#include "platform/ErrorCodes_p.h"
#include "platform/Sockets_p.h"

#include <algorithm>
#include <utility>

#include <netinet/in.h>

using namespace Nuvika;

namespace
{
constexpr int kReceiveBuffer = 65536;

// A descriptor that is closed again unless it is released.
class SocketGuard
{
public:
    explicit SocketGuard(int s) : m_nSocket(s) { }
    ~SocketGuard()
    {
        if (m_nSocket >= 0)
            Sockets::close(m_nSocket);
    }
    SocketGuard(const SocketGuard&) = delete;
    SocketGuard& operator=(const SocketGuard&) = delete;
    int get() const { return m_nSocket; }
    int release() { return std::exchange(m_nSocket, -1); }

private:
    int m_nSocket;
};

bool setOption(int s, int name, int value)
{
    return DirectCalls::setOption(s, SOL_SOCKET, name, &value, sizeof value) == 0;
}

// The scope id of an IPv6 group is its interface. A group beyond link-local knows none, and the system
// compares the group only: there the socket is bound to the interface itself.
bool chooseInterface(int s, NuvikaLLSock::ADDR_V4_V6& group, const QHostAddress& interfaceAddress)
{
    if (interfaceAddress.isNull() || interfaceAddress == QHostAddress(QHostAddress::AnyIPv6))
        return true; // the system's choice
    group.v6.sin6_scope_id = interfaceIndexOf(interfaceAddress);
    if (group.v6.sin6_scope_id == 0) {
        ErrorCodes::setLastError(ErrorCodes::kNoDevice);
        return false;
    }
    return Sockets::bindToInterface(s, group.v6.sin6_scope_id) == 0;
}

bool prepareMulticast(int s, NuvikaLLSock::ADDR_V4_V6& group, const QHostAddress& interfaceAddress)
{
    if (!setOption(s, SO_REUSEADDR, 1))
        NUVIKA_WARNING(lcNet, "NuvikaUdpReceiver::createMulticast(): setting SO_REUSEADDR failed: %s",
            qUtf8Printable(SocketError::formatLast()));
    Sockets::setOwnGroupsOnly(s, group.sa.sa_family);
    if (group.sa.sa_family == AF_INET6)
        return chooseInterface(s, group, interfaceAddress);
    if (interfaceAddress.protocol() != QAbstractSocket::IPv6Protocol)
        return true;
    ErrorCodes::setLastError(ErrorCodes::kNoDevice); // as 0.0.0.0 it would be the system's choice
    return false;
}

bool join(int s, const NuvikaLLSock::ADDR_V4_V6& group, const QHostAddress& interfaceAddress)
{
    if (group.sa.sa_family == AF_INET6) {
        ipv6_mreq request{};
        request.ipv6mr_multiaddr = group.v6.sin6_addr;
        request.ipv6mr_interface = group.v6.sin6_scope_id;
        return DirectCalls::setOption(s, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &request, sizeof request) == 0;
    }
    ip_mreq request{};
    request.imr_multiaddr = group.v4.sin_addr;
    request.imr_interface.s_addr = htonl(interfaceAddress.toIPv4Address());
    return DirectCalls::setOption(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0;
}
} // namespace

// What differs between the two ways to create, the texts of the log included.
struct NuvikaUdpReceiver::Creation {
    const char* alreadyCreated;
    const char* socketFailed;
    const char* bufferFailed;
    const char* bindFailed;
    bool bMulticast;
    QHostAddress interfaceAddress;
};

NuvikaUdpReceiver::NuvikaUdpReceiver(QObject* parent)
    : QObject(parent), m_currentThreadId(QThread::currentThreadId())
{
}

NuvikaUdpReceiver::~NuvikaUdpReceiver()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    for (Delivery* delivery = m_pDelivery; delivery != nullptr; delivery = delivery->pOuter)
        delivery->bGone = true;
    close();
}

bool NuvikaUdpReceiver::createUnicast(unsigned short& port, const QHostAddress& localAddress)
{
    return create(port, localAddress,
        {"NuvikaUdpReceiver::createUnicast(); already created",
            "NuvikaUdpReceiver::createUnicast(): WSASocket failed: %s",
            "NuvikaUdpReceiver::createUnicast(): setting SO_RCVBUF failed: %s",
            "NuvikaUdpReceiver::createUnicast(): bind failed: %s", false, QHostAddress()});
}

bool NuvikaUdpReceiver::createMulticast(
    unsigned short& port, const QHostAddress& group, const QHostAddress& interfaceAddress)
{
    return create(port, group,
        {"NuvikaUdpReceiver::createMulticast(); already created",
            "NuvikaUdpReceiver::createMulticast(): WSASocket failed: %s",
            "NuvikaUdpReceiver::createMulticast(): setting SO_RCVBUF failed: %s",
            "NuvikaUdpReceiver::createMulticast(): bind failed: %s", true, interfaceAddress});
}

bool NuvikaUdpReceiver::create(unsigned short& port, const QHostAddress& address, const Creation& creation)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    if (m_nSocket >= 0) {
        NUVIKA_WARNING(lcNet, "%s", creation.alreadyCreated);
        return false;
    }
    NuvikaLLSock::ADDR_V4_V6 local;
    NuvikaLLSock::createSockAddr(&local, address, port);
    const int family = local.sa.sa_family == AF_INET6 ? AF_INET6 : AF_INET;
    SocketGuard s(Sockets::openDatagram(family));
    if (s.get() < 0)
        return fail(creation.socketFailed);
    if (!setOption(s.get(), SO_RCVBUF, kReceiveBuffer))
        NUVIKA_WARNING(lcNet, creation.bufferFailed, qUtf8Printable(SocketError::formatLast()));
    if (local.sa.sa_family != family) { // a null address: the system would take it for every address
        ErrorCodes::setLastError(ErrorCodes::kAddressNotAvailable);
        return fail(creation.bindFailed);
    }
    if (family == AF_INET6) {
        Sockets::setIPv6Only(s.get(), true);
        local.v6.sin6_scope_id = scopeIndex(address);
    }
    if (creation.bMulticast && !prepareMulticast(s.get(), local, creation.interfaceAddress))
        return failToJoin();
    if (DirectCalls::bind(s.get(), &local.sa, sizeof local) != 0)
        return fail(creation.bindFailed);
    if (creation.bMulticast && !join(s.get(), local, creation.interfaceAddress))
        return failToJoin();
    m_nSocket = s.release();
    if (port == 0)
        port = localPort();
    m_pIO = new NuvikaUdpReceiverIO(this, m_nSocket); // ends itself after detach()
    m_pIO->startRecv();
    return true;
}

bool NuvikaUdpReceiver::failToJoin()
{
    m_errorString = SocketError::formatLast();
    NUVIKA_WARNING(lcNet, "NuvikaUdpReceiver::createMulticast(): IP_ADD_MEMBERSHIP failed: %s",
        qUtf8Printable(m_errorString));
    return false;
}

bool NuvikaUdpReceiver::fail(const char* format)
{
    m_errorString = SocketError::formatLast();
    NUVIKA_CRITICAL(lcNet, format, qUtf8Printable(m_errorString));
    return false;
}

void NuvikaUdpReceiver::close()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    m_nSocket = -1;
    if (m_pIO != nullptr)
        std::exchange(m_pIO, nullptr)->detach();
}

int NuvikaUdpReceiver::socketDescriptor()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_nSocket;
}

QString NuvikaUdpReceiver::errorString() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return m_errorString;
}

QHostAddress NuvikaUdpReceiver::localAddress()
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return localNameOf(m_nSocket).address;
}

unsigned short NuvikaUdpReceiver::localPort() const
{
    NUVIKA_ASSERT_OWNER_THREAD();
    return localNameOf(m_nSocket).port;
}

bool NuvikaUdpReceiver::setReceiveBufferSize(int bytes)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    if (m_nSocket < 0) {
        NUVIKA_WARNING(lcNet, "NuvikaUdpReceiver::setReceiveBufferSize() failed; no socket created yet");
        return false;
    }
    const bool bSet = setOption(m_nSocket, SO_RCVBUF, bytes);
    if (!bSet)
        m_errorString = SocketError::formatLast();
    return bSet;
}

void NuvikaUdpReceiver::registerCallback(Callback callback, void* context)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    const Registration registration{callback, context};
    if (callback != nullptr
        && std::find(m_callbacks.begin(), m_callbacks.end(), registration) == m_callbacks.end())
        m_callbacks.push_back(registration);
}

void NuvikaUdpReceiver::removeCallback(Callback callback, void* context)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    const auto found = std::find(m_callbacks.begin(), m_callbacks.end(), Registration{callback, context});
    if (found == m_callbacks.end())
        return;
    *found = {nullptr, nullptr}; // a delivery counts on the places of the others
    m_bRemoved = true;
    if (m_pDelivery == nullptr)
        sweep();
}

int NuvikaUdpReceiver::addHandler(std::function<void(const Datagram&)> handler)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    if (!handler)
        return 0;
    Handler& kept = m_handlers[++m_nLastHandler];
    kept = std::make_shared<const std::function<void(const Datagram&)>>(std::move(handler));
    registerCallback(&callHandler, &kept);
    return m_nLastHandler;
}

void NuvikaUdpReceiver::removeHandler(int number)
{
    NUVIKA_ASSERT_OWNER_THREAD();
    const auto found = m_handlers.find(number);
    if (found == m_handlers.end())
        return;
    removeCallback(&callHandler, &found->second);
    const Handler last = std::move(found->second); // what it holds may call back when it goes
    m_handlers.erase(found);
}

// It may remove itself, or delete the receiver, while it runs.
void NuvikaUdpReceiver::callHandler(const Datagram* datagram, void* handler)
{
    const Handler kept = *static_cast<Handler*>(handler);
    (*kept)(*datagram);
}

void NuvikaUdpReceiver::customEvent(QEvent* event)
{
    if (event->type() != NuvikaUdpSocketPacketReceivedEvent::kType)
        return;
    const auto& packet = static_cast<const NuvikaUdpSocketPacketReceivedEvent&>(*event);
    deliver({packet.pData, packet.nSize, packet.nFamily, packet.nIPv4, packet.pIPv6, packet.nPort});
}

void NuvikaUdpReceiver::deliver(const Datagram& datagram)
{
    Delivery delivery{m_pDelivery, false};
    m_pDelivery = &delivery;
    const std::size_t count = m_callbacks.size();
    for (std::size_t i = 0; i < count; ++i) {
        const Registration registration = m_callbacks[i];
        if (registration.callback != nullptr)
            registration.callback(&datagram, registration.context);
        if (delivery.bGone)
            return;
    }
    m_pDelivery = delivery.pOuter;
    if (m_bRemoved && m_pDelivery == nullptr)
        sweep();
}

void NuvikaUdpReceiver::sweep()
{
    m_callbacks.erase(std::remove(m_callbacks.begin(), m_callbacks.end(), Registration{nullptr, nullptr}),
        m_callbacks.end());
    m_bRemoved = false;
}
