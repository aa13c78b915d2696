// TCP: one end of a connection, or a listener. Names and states as in Linux's tcp.c, of which it keeps what a
// program can see.
//
//     send() -> [wire] --delivery, cut anywhere--> [the other end's received] -> receive()
#pragma once

#include "sim/Kernel.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace sim
{
class StreamSocket : public Socket
{
public:
    using Socket::Socket;

    unsigned int poll() override;
    void released() override;
    int bind(const Address& address) override;
    long receive(msghdr* message, int flags) override;
    long send(const msghdr& message, int flags) override;
    int setOption(int level, int name, const void* value, socklen_t size) override;
    int option(int level, int name, void* value, socklen_t* size) override;

    int listen(int backlog);
    int connect(const Address& address); // never waits
    // With a descriptor for it; no connection is lost where there is none.
    int accept(int flags);
    int shutdownWrite();
    bool isConnecting() const { return m_state == eConnecting; }
    bool isConnected() const { return m_state == eConnected; }

    Address remote;

    // For peers without a descriptor.
    StreamSocket* takeAccepted();
    void reset(); // what lies on the wire may get lost

private:
    enum State { eClosed, eListening, eConnecting, eConnected };
    static constexpr std::size_t kNone = ~std::size_t{0};

    void openConnection(int attempt);
    void connectionFails(int error);
    void connectTo(StreamSocket& listener);
    std::size_t roomToSend() const { return m_nSendLimit - std::min(m_nSendLimit, m_wire.size()); }
    bool isWriteable() const { return roomToSend() > 0 && roomToSend() >= m_wire.size() / 2; }
    int takeError() { return std::exchange(m_nError, 0); }
    void deliverLater();
    void deliver();
    void deliverBytes(std::size_t size);
    void receiveReset();
    void tellRoom();

    State m_state = eClosed;
    StreamSocket* m_pPeer = nullptr;
    int m_nError = 0;
    bool m_bConnectCalled = false; // and its outcome not yet told by a further call
    bool m_bReleased = false;
    bool m_bSendShut = false;
    bool m_bEndReceived = false;
    bool m_bEndSent = false; // it has arrived there
    bool m_bResetBehind = false; // a reset follows what lies on the wire
    bool m_bDelivering = false; // is due
    linger m_linger{};
    std::string m_wire;
    std::string m_received;
    std::size_t m_nUrgent = kNone; // its place in what was received
    std::size_t m_nUrgentOnWire = kNone;
    std::vector<StreamSocket*> m_accepted; // wait in the backlog
    std::size_t m_nBacklog = 0;
};
} // namespace sim
