// What waits behind a socket, and a bound for it. The limits lie below the socket's own queue, and beyond it.
#include "net/SslTalkers.h"

#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
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
    EXPECT_EQ(socket.bytesToSend(), 0);
    socket.setSendLimit(limit);
    int nTaken = 0;
    while (nTaken < 1000 && sendTo(socket))
        ++nTaken;
    settle(20); // what the system takes late
    while (nTaken < 1000 && sendTo(socket))
        ++nTaken;
    EXPECT_TRUE(socket.isSendLimitReached()) << limit;
    EXPECT_FALSE(socket.canSend()) << limit;
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
        socket.setSendLimit(1);
        EXPECT_FALSE(sendTo(socket));
        EXPECT_FALSE(socket.isSendLimitReached()) << "not connected is another reason";
        socket.connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
        settle(10);
        const int nTaken = sendToTheLimit(socket, limit, [&] { peer.received(); });
        EXPECT_TRUE(waitFor([&] { return peer.received().size() == nTaken * perBlock; })) << "bytes are lost";
        for (int i = 0; i < 200; ++i)
            EXPECT_TRUE(sendTo(socket)) << "without a limit all is taken";
        socket.close();
        EXPECT_EQ(socket.bytesToSend(), 0);
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
        const int nTaken = sendToTheLimit(*client.socket, limit, [&] { server.last().socket->resumeRecv(); });
        EXPECT_TRUE(waitFor([&] { return server.last().got.size() == nTaken * kBlock.size(); }));
        server.last().socket->stallRecv();
        client.socket->setSendLimit(limit);
        for (int i = 0; i < 200; ++i)
            sendTo(*client.socket);
        EXPECT_TRUE(client.socket->isSendLimitReached());
        client.socket->sendEndOfData();
        server.last().socket->resumeRecv();
        ASSERT_TRUE(waitFor([&] { return server.last().isOver(); }));
        EXPECT_EQ(server.last().ends, std::vector<unsigned long>{0}) << "the goodbye was refused";
    }
}

TEST(BytesToSend, AreWhatTheSystemHasNotTaken)
{
    RawListener listener;
    RawSocket peer;
    NuvikaTcpSocket socket;
    BufferSocketFixedFifo messages(false);
    const QByteArray data(8 << 20, 'x');
    const auto expectCount = [&](auto& sender, const auto& send, int size) {
        EXPECT_EQ(sender.bytesToSend(), 0);
        sender.connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
        settle(10);
        EXPECT_TRUE(send());
        settle(20);
        EXPECT_GT(sender.bytesToSend(), size - (4 << 20)) << "the system holds far less";
        EXPECT_LT(sender.bytesToSend(), size);
        const qint64 before = sender.bytesToSend();
        EXPECT_FALSE(send());
        EXPECT_EQ(sender.bytesToSend(), before) << "nothing of a refused block counts";
        EXPECT_TRUE(waitFor([&] { return peer.received().size() == size; }));
        EXPECT_TRUE(waitFor([&] { return sender.bytesToSend() == 0; })) << sender.bytesToSend();
    };
    expectCount(
        socket, [&] { return socket.sendData(data.constData(), data.size()); }, data.size());
    expectCount(
        messages, [&] { return messages.sendBuffer(data.constData(), data.size()); }, data.size() + 8);
}
