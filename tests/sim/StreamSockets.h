// TCP: one end of a connection, or a listener. Names and states as in Linux's tcp.c, of which it keeps what a
// program can see.
//
//     send() -> [wire] --delivery, cut anywhere--> [the other end's received] -> receive()
#pragma once

#include "sim/Address.h"
#include "sim/Kernel.h"

#include <deque>
#include <map>
#include <utility>

namespace sim
{
class StreamSocket : public File
{
public:
    explicit StreamSocket(int family) { local.nFamily = family; }

    unsigned int poll() override;
    void released() override;

    int bind(const Address& address);
    int listen(int backlog);
    int connect(const Address& address); // never waits
    // With a descriptor for it; no connection is lost where there is none.
    int accept(int flags);
    long receive(const iovec* ranges, std::size_t count, int flags); // never waits
    long send(const iovec* ranges, std::size_t count, int flags); // never waits
    int shutdownWrite();
    int setOption(int level, int name, const void* value, socklen_t size);
    int option(int level, int name, void* value, socklen_t* size);
    int takeError() { return std::exchange(m_nError, 0); }
    bool isConnecting() const { return m_state == eConnecting; }
    bool isConnected() const { return m_state == eConnected; }
    bool hasUrgent() const { return m_nUrgent != kNone; }

    Address local;
    Address remote;

    // For peers without a descriptor.
    static std::shared_ptr<StreamSocket> listenerAt(const Address& address);
    std::shared_ptr<StreamSocket> takeAccepted();
    void reset(); // what lies on the wire may get lost

private:
    enum State { eClosed, eListening, eConnecting, eConnected };
    static constexpr std::size_t kNone = ~std::size_t{0};

    void openConnection(int attempt);
    void connectionFails(int error);
    void connectTo(StreamSocket& listener);
    std::size_t roomToSend() const;
    bool isWriteable() const;
    void deliverLater();
    void deliver();
    void deliverTo(StreamSocket& peer);
    void receiveReset();
    void tellRoom();
    void makeRoomLater();

    State m_state = eClosed;
    std::weak_ptr<StreamSocket> m_pPeer;
    int m_nError = 0;
    bool m_bConnectCalled = false; // and its outcome not yet told by a further call
    bool m_bReleased = false;
    bool m_bSendShut = false;
    bool m_bEndReceived = false;
    bool m_bEndSent = false; // it has arrived there
    bool m_bResetBehind = false; // a reset follows what lies on the wire
    bool m_bDelivering = false; // is due
    bool m_bNoSpace = false; // somebody was refused room, and is told when there is some
    linger m_linger{};
    ByteQueue m_wire;
    ByteQueue m_received;
    std::size_t m_nUrgent = kNone; // its place in what was received
    std::size_t m_nUrgentOnWire = kNone;
    std::size_t m_nReceiveLimit = 131072;
    std::size_t m_nSendLimit = 65536;
    std::deque<std::shared_ptr<StreamSocket>> m_accepted; // wait in the backlog
    std::size_t m_nBacklog = 0;
};
} // namespace sim
