// What waits behind a socket, and a bound for it. The limits lie below the socket's own queue, and beyond it.
#include "net/SslTalkers.h"

#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

namespace
{
const QByteArray kBlock(60000, 'x');
constexpr qint64 kLimits[] = {100000, 4000000};

bool sendTo(BufferSocketQueued& socket) { return socket.sendBuffer(kBlock.constData(), kBlock.size()); }
template <class Socket>
bool sendTo(Socket& socket)
{
    return socket.sendData(kBlock.constData(), kBlock.size());
}

// Fills the socket to its limit, then lets the peer read. Returns how many blocks were taken.
template <class Socket>
int sendToTheLimit(Socket& socket, qint64 limit, const std::function<void()>& letPeerRead)
{
    settle(10); // the sigCanSend of the new connection
    socket.setSendLimit(limit);
    int nTaken = 0;
    for (int i = 0; i < 200; ++i) {
        nTaken += sendTo(socket) ? 1 : 0;
        if (i == 100)
            settle(20); // the system takes some late
    }
    EXPECT_TRUE(socket.isSendLimitReached() && !socket.canSend()) << limit;
    EXPECT_GE(socket.bytesToSend(), limit);
    EXPECT_LT(socket.bytesToSend(), limit + kBlock.size() * 21 / 20) << "a refused block was taken";
    int nRooms = 0;
    QObject::connect(&socket, &Socket::sigCanSend, [&] {
        EXPECT_TRUE(socket.canSend() && !socket.isSendLimitReached()) << limit;
        nTaken += nRooms++ == 0 && sendTo(socket) ? 1 : 0;
    });
    EXPECT_TRUE(waitFor([&] {
        letPeerRead();
        return nRooms > 0 && socket.bytesToSend() == 0;
    })) << limit
        << ": told of room " << nRooms << " times, still to send " << socket.bytesToSend();
    QObject::disconnect(&socket, &Socket::sigCanSend, nullptr, nullptr);
    socket.setSendLimit(0);
    return nTaken;
}

template <class Socket>
void expectLimits(int perBlock)
{
    for (const qint64 limit : kLimits) {
        RawListener listener;
        RawSocket peer;
        Socket socket(false);
        EXPECT_TRUE(!sendTo(socket) && !socket.isSendLimitReached()) << "not connected is another reason";
        socket.connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
        settle(10);
        const int nTaken = sendToTheLimit(socket, limit, [&] { peer.received(); });
        EXPECT_TRUE(waitFor([&] { return peer.received().size() == nTaken * perBlock; })) << "bytes are lost";
    }
}
} // namespace

TEST(SendLimit, RefusesWholeBlocksAndTellsOfRoom)
{
    expectLimits<NuvikaTcpSocketQueued>(kBlock.size());
    expectLimits<BufferSocketQueued>(kBlock.size() + 8);
}

TEST(SendLimit, RefusesNothingThatTlsItselfSends)
{
    for (const qint64 limit : kLimits) {
        Server server;
        Client client;
        client.meet(server);
        server.last().socket->stallRecv();
        int nTaken = sendToTheLimit(*client.socket, limit, [&] { server.last().socket->resumeRecv(); });
        EXPECT_TRUE(waitFor([&] { return server.last().got.size() == nTaken * kBlock.size(); }));
        server.last().socket->stallRecv();
        client.socket->setSendLimit(limit);
        for (int i = 0; i < 200; ++i)
            nTaken += sendTo(*client.socket) ? 1 : 0;
        EXPECT_TRUE(client.socket->isSendLimitReached());
        client.socket->sendEndOfData();
        client.socket->setSendLimit(0);
        EXPECT_FALSE(sendTo(*client.socket)) << "behind the end";
        client.socket->setSendLimit(limit);
        server.last().socket->resumeRecv();
        ASSERT_TRUE(waitFor([&] { return server.last().isOver() && client.isOver(); }));
        EXPECT_EQ(server.last().got.size(), nTaken * kBlock.size());
        EXPECT_EQ(server.last().ends, std::vector<unsigned long>{0}) << "the goodbye was refused";
        EXPECT_EQ(client.ends, std::vector<unsigned long>{0});
    }
}
