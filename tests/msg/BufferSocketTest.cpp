#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/MemoryLimit.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include "msg/BufferSocketCrypto_p.h"

#include <QtCore/QtEndian>

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <type_traits>
#include <vector>

namespace
{
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

QByteArray number(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian<quint32>(value, bytes.data());
    return bytes;
}

QByteArray frame(const QByteArray& payload, const char* magic = "FDTC")
{
    return QByteArray(magic) + number(static_cast<quint32>(payload.size())) + payload;
}

// A message socket whose other end is plain.
template <class Socket>
struct Connected {
    RawListener listener;
    std::unique_ptr<Socket> socket;
    RawSocket peer;
    std::vector<QByteArray> got;
    int connections = 0, ends = 0;
    std::vector<int> errors;

    template <class... Arguments>
    explicit Connected(Arguments... arguments) : socket(new Socket(arguments...))
    {
        QObject::connect(socket.get(), &Socket::incomingBuffer,
            [this](const char* data, int size, Marker) { got.push_back(QByteArray(data, size)); });
        QObject::connect(socket.get(), &Socket::connected, [this] { ++connections; });
        QObject::connect(socket.get(), &Socket::disconnected, [this] { ++ends; });
        QObject::connect(socket.get(), &Socket::error, [this](int code) { errors.push_back(code); });
        connectAgain();
    }
    void connectAgain()
    {
        const int before = connections;
        socket->close();
        socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        ASSERT_TRUE(waitFor([&] { return connections > before; }));
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
    }
    bool waitForCount(std::size_t count)
    {
        return waitFor([&] { return got.size() >= count; });
    }
};
} // namespace

TEST(BufferSocket, SeesAFrameOnlyWithAByteBehindItsHead)
{
    Connected<BufferSocketQueued> c(false);
    c.peer.write(frame(""));
    settle(30);
    EXPECT_TRUE(c.got.empty()) << "an empty message waits";
    c.peer.write("F");
    ASSERT_TRUE(c.waitForCount(1));
    EXPECT_EQ(c.got[0], QByteArray());
    c.peer.write(frame("abc").mid(1));
    ASSERT_TRUE(c.waitForCount(2));
    EXPECT_EQ(c.got[1], QByteArray("abc")) << "eleven bytes alone are enough";
}

TEST(BufferSocket, DiscardsWhatIsNoFrameAndStaysConnected)
{
    LogCapture log;
    Connected<BufferSocketQueued> c(false);
    c.peer.write("GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(waitFor([&] { return log.has("BufferSocket: Invalid MAGIC_KEY", QtWarningMsg); }));
    c.peer.write(frame("good"));
    ASSERT_TRUE(c.waitForCount(1));
    c.peer.write("FDTC" + number(104857600) + "x");
    ASSERT_TRUE(waitFor([&] { return log.has("BufferSocket: Invalid datagram size", QtWarningMsg); }));
    c.peer.write("FDTC" + number(104857599) + "x");
    settle(30);
    EXPECT_EQ(log.count("Invalid datagram size"), 1) << "one byte less is waited for";
    EXPECT_EQ(c.ends + static_cast<int>(c.errors.size()), 0);
    for (const bool bByPeer : {false, true}) {
        if (bByPeer) {
            c.peer.write("FDTC" + number(100) + "half");
            c.peer.close();
            ASSERT_TRUE(waitFor([&] { return c.ends == 1; }));
        }
        c.connectAgain();
        c.peer.write(frame("fresh"));
        EXPECT_TRUE(waitFor([&] { return c.got.back() == "fresh"; }))
            << "the end forgets what was waited for";
        c.got.back() = "good";
    }
    EXPECT_EQ(c.got, (std::vector<QByteArray>{"good", "good", "good"}));
}

TEST(BufferSocket, EndsTheConnectionWhenThereIsNoMemoryForAFrame)
{
    LogCapture log;
    for (const QByteArray& first : {QByteArray(), frame("whole")}) { // alone, and behind one read in place
        Connected<BufferSocketQueued> c(false);
        seams::growing.arm(1, ENOMEM);
        c.peer.write(first + frame("cut").left(10));
        ASSERT_TRUE(waitFor([&] { return !c.errors.empty(); })) << "lost in silence, and out of step";
        EXPECT_EQ(c.errors, std::vector<int>{10040});
        EXPECT_TRUE(log.has("Received tcp data token too long, aborting connection", QtWarningMsg));
        c.connectAgain();
        c.peer.write(frame("again"));
        ASSERT_TRUE(waitFor([&] { return !c.got.empty() && c.got.back() == "again"; }));
    }
}

TEST(BufferSocket, ATokenWithoutMemoryIsARefusedOne)
{
    if (!MemoryLimit::kWorks)
        GTEST_SKIP() << "the sanitizers take what they need";
    BufferSocketEncrypter encrypter;
    BufferSocketDecrypter decrypter;
    QByteArray plain;
    const QByteArray text(64 << 20, 't');
    const QByteArray token = encrypter.encrypt(text.constData(), text.size());
    LogCapture log;
    {
        const MemoryLimit limit;
        EXPECT_TRUE(encrypter.encrypt(text.constData(), text.size()).isEmpty());
        EXPECT_FALSE(decrypter.decrypt(token.constData(), token.size(), &plain));
        EXPECT_TRUE(plain.isEmpty());
    }
    EXPECT_TRUE(log.has("BufferSocketEncrypter::encrypt(): EVP_EncryptUpdate failed", QtCriticalMsg));
    EXPECT_TRUE(log.has("BufferSocketDecrypter::decrypt(): EVP_DecryptUpdate failed", QtWarningMsg));
    EXPECT_TRUE(decrypter.decrypt(token.constData(), token.size(), &plain) && plain == text);
}

TEST(BufferSocket, EncryptsWithACountingIv)
{
    Connected<BufferSocketFixedFifo> c(true);
    seams::crypto("EVP_EncryptInit_ex").arm(1, 0);
    ASSERT_TRUE(c.socket->sendBuffer("lost", 4));
    EXPECT_TRUE(waitFor([&] { return c.peer.received() == "GEUD" + number(0); })) << "an empty token";
    c.peer.take();
    ASSERT_TRUE(c.socket->sendBuffer("abc", 3));
    ASSERT_TRUE(c.socket->sendBuffer("", 0));
    ASSERT_TRUE(waitFor([&] { return c.peer.received().size() == 2 * (8 + 32 + 16); }));
    const QByteArray wire = c.peer.take();
    EXPECT_EQ(wire.left(8), "GEUD" + number(48));
    EXPECT_EQ(wire.mid(8, 12), "cVfX" + number(17) + number(16));
    EXPECT_EQ(wire.mid(36, 4), number(16));
    const char* first = wire.constData() + 20;
    const char* second = first + 56;
    EXPECT_EQ(qFromLittleEndian<quint64>(second) - qFromLittleEndian<quint64>(first), 1U);
    EXPECT_EQ(QByteArray(first + 8, 8), QByteArray(second + 8, 8));
    EXPECT_NE(QByteArray(first, 16), QByteArray(16, '\0'));
    // The other end reads them, also one that sends plainly, and behind a token that is none.
    Connected<BufferSocketQueued> reader(false);
    reader.peer.write(frame("bad", "GEUD") + wire + "F");
    ASSERT_TRUE(reader.waitForCount(3));
    EXPECT_EQ(reader.got, (std::vector<QByteArray>{"", "abc", ""}));
}

TEST(BufferSocketCrypto, RefusesABadTokenAndReadsOn)
{
    const QByteArray token = BufferSocketEncrypter().encrypt("secret", 6);
    const auto changed
        = [&](int at, const QByteArray& bytes) { return QByteArray(token).replace(at, bytes.size(), bytes); };
    const char invalid[] = "BufferSocketDecrypter::decrypt(): invalid input data";
    const char undecipherable[] = "BufferSocketDecrypter::decrypt(): EVP_DecryptFinal_ex failed";
    const std::pair<QByteArray, const char*> cases[] = {
        {changed(0, "xxxx"), invalid},
        {token.left(3), invalid},
        {token.left(6), invalid},
        {changed(4, number(16)),
            "BufferSocketDecrypter::decrypt(): crypto token version 16 not supported in this release"},
        {token.left(20), invalid},
        {changed(8, number(0x7FFFFFFF)), invalid},
        {changed(8, number(8)), invalid},
        {token.left(8) + number(8) + token.mid(12, 8) + number(16) + token.mid(32),
            "BufferSocketDecrypter::decrypt(): invalid input data, key size mismatch"},
        {token.left(47), invalid},
        {changed(28, number(15)), undecipherable},
        {changed(28, number(0)), undecipherable},
        // Ten bytes of padding say seventeen, by way of the IV.
        {changed(27, QByteArray(1, static_cast<char>(token.at(27) ^ 10 ^ 17))), undecipherable},
    };
    BufferSocketDecrypter decrypter;
    QByteArray plain;
    for (const auto& [bad, text] : cases) {
        LogCapture log;
        EXPECT_FALSE(decrypter.decrypt(bad.constData(), bad.size(), &plain)) << bad.toHex().constData();
        EXPECT_TRUE(plain.isEmpty()) << bad.toHex().constData();
        EXPECT_EQ(log.count(text, QtWarningMsg), 1) << bad.toHex().constData();
        EXPECT_TRUE(decrypter.decrypt(token.constData(), token.size(), &plain) && plain == "secret");
    }
}

TEST(BufferSocketCrypto, ReportsWhatTheCryptoLibraryRefuses)
{
    LogCapture log;
    const struct {
        const char* function;
        const char* text;
        bool bLasting = false; // a cipher that failed at work stays silent
    } cases[] = {
        {"EVP_EncryptInit_ex", "BufferSocketEncrypter::encrypt(): EVP_EncryptInit_ex failed"},
        {"EVP_EncryptUpdate", "BufferSocketEncrypter::encrypt(): EVP_EncryptUpdate failed", true},
        {"EVP_EncryptFinal_ex", "BufferSocketEncrypter::encrypt(): EVP_EncryptFinal_ex failed", true},
        {"EVP_DigestInit_ex", "sha256: EVP_DigestInit_ex failed", true},
        {"EVP_DigestUpdate", "sha2561: EVP_DigestUpdate failed", true},
        {"EVP_DigestFinal_ex", "sha256: EVP_DigestFinal_ex failed", true},
    };
    for (const auto& c : cases) {
        seams::crypto(c.function).arm(1, 0);
        BufferSocketEncrypter encrypter; // which makes its key
        EXPECT_TRUE(encrypter.encrypt("abc", 3).isEmpty()) << c.function;
        EXPECT_TRUE(log.has(c.text, QtCriticalMsg)) << c.function;
        EXPECT_EQ(encrypter.encrypt("abc", 3).isEmpty(), c.bLasting) << c.function;
    }
    const QByteArray token = BufferSocketEncrypter().encrypt("abc", 3);
    BufferSocketDecrypter decrypter;
    QByteArray plain;
    for (const char* function : {"EVP_DecryptInit_ex", "EVP_DecryptUpdate", "EVP_DecryptFinal_ex"}) {
        seams::crypto(function).arm(1, 0);
        EXPECT_FALSE(decrypter.decrypt(token.constData(), token.size(), &plain)) << function;
        EXPECT_TRUE(log.has(qPrintable(
            QStringLiteral("BufferSocketDecrypter::decrypt(): %1 failed").arg(QLatin1String(function)))));
        EXPECT_TRUE(decrypter.decrypt(token.constData(), token.size(), &plain) && plain == "abc");
    }
}

TEST(BufferSocket, TakesNothingUnconnectedNorOfANegativeSize)
{
    BufferSocketQueued queued(false);
    BufferSocketFixedFifo fifo(true);
    EXPECT_FALSE(queued.sendBuffer("x", 1) || fifo.sendBuffer("x", 1) || fifo.canSend());
    EXPECT_FALSE(Connected<BufferSocketQueued>(false).socket->sendBuffer("x", -1));
    EXPECT_FALSE(Connected<BufferSocketFixedFifo>(false).socket->sendBuffer("x", -1));
}

namespace
{
QByteArray messageNumber(int i) { return "message " + QByteArray::number(i); }

// `count` numbered messages to an echo and back, while the receiver stalls now and then.
template <class Socket>
void exchange(bool bEncrypted, int count)
{
    NuvikaTcpServer server;
    BufferSocketQueued echo(bEncrypted);
    QObject::connect(
        &server, &NuvikaTcpServer::newConnectionDesc, [&](int s) { echo.setSocketDescriptor(s); });
    QObject::connect(&echo, &BufferSocketBase::incomingBuffer,
        [&](const char* data, int size, Marker) { echo.sendBuffer(data, size); });
    ASSERT_TRUE(server.listen(QHostAddress(QHostAddress::LocalHost), 0));
    Socket socket(bEncrypted);
    int sent = 0, received = 0;
    bool bOrder = true;
    const auto send = [&] {
        for (; sent < count && sent < received + 20000; ++sent) {
            const QByteArray message = messageNumber(sent);
            if (!socket.sendBuffer(message.constData(), message.size()))
                break;
        }
    };
    QObject::connect(&socket, &Socket::connected, send);
    QObject::connect(&socket, &Socket::incomingBuffer, [&](const char* data, int size, Marker) {
        bOrder = bOrder && QByteArray::fromRawData(data, size) == messageNumber(received);
        if (++received % 20000 == 0) {
            socket.stallRecv();
            QTimer::singleShot(2, &socket, [&] { socket.resumeRecv(); });
        }
        if (received % 100 == 0)
            send();
    });
    if constexpr (std::is_same_v<Socket, BufferSocketFixedFifo>)
        QObject::connect(&socket, &Socket::sigCanSend, send);
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), server.serverPort());
    ASSERT_TRUE(waitFor([&] { return received == count; }, 110000)) << received << " of " << sent;
    EXPECT_TRUE(bOrder);
}

constexpr int kMany = MemoryLimit::kWorks ? 1000000 : 30000; // the sanitizers are slow
} // namespace

TEST(BufferSocketMillion, PlainQueued) { exchange<BufferSocketQueued>(false, kMany); }
TEST(BufferSocketMillion, EncryptedQueued) { exchange<BufferSocketQueued>(true, kMany); }
TEST(BufferSocketMillion, PlainFixedFifo) { exchange<BufferSocketFixedFifo>(false, kMany); }
TEST(BufferSocketMillion, EncryptedFixedFifo) { exchange<BufferSocketFixedFifo>(true, kMany); }

// A parent is no flag.
static_assert(!std::is_constructible_v<BufferSocketQueued, QObject*>);
static_assert(!std::is_constructible_v<BufferSocketFixedFifo, NuvikaTcpSocket*>);
static_assert(std::is_constructible_v<BufferSocketQueued, bool, QObject*>);
