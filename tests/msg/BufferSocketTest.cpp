#include "support/CpuTime.h"
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
#include <thread>
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
        socket->connectToHost(QHostAddress(QHostAddress::LocalHost), listener.port());
        ASSERT_TRUE(waitFor([&] { return connections > before; }));
        ASSERT_TRUE(waitFor([&] { return (peer = listener.accept()).isOpen(); }));
    }
    bool waitForCount(std::size_t count, int ms = 10000)
    {
        return waitFor([&] { return got.size() >= count; }, ms);
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
    EXPECT_EQ(c.got, std::vector<QByteArray>{"good"});
    EXPECT_EQ(c.ends + static_cast<int>(c.errors.size()), 0);
    c.socket->close();
    c.connectAgain();
    c.peer.write(frame("fresh"));
    ASSERT_TRUE(c.waitForCount(2)) << "a close forgets the frame that was waited for";
    c.peer.write("FDTC" + number(100) + "half");
    c.peer.close();
    ASSERT_TRUE(waitFor([&] { return c.ends == 1; }));
    c.socket->close();
    c.connectAgain();
    c.peer.write(frame("once more"));
    ASSERT_TRUE(c.waitForCount(3));
    EXPECT_EQ(c.got.back(), QByteArray("once more"));
}

TEST(BufferSocket, TakesManySmallFramesInLinearTime)
{
    const auto measure = [](int count) {
        Connected<BufferSocketQueued> c(false, static_cast<int>(NuvikaTcpSocket::eHeavy));
        c.socket->stallRecv();
        QByteArray stream;
        for (int i = 0; i < count; ++i)
            stream += frame("x");
        // All of them in the buffer at once: behind a first frame that ends last.
        c.peer.write("FDTC" + number(static_cast<quint32>(1 << 20)));
        c.socket->resumeRecv();
        std::thread writer([&] {
            c.peer.write(QByteArray(1 << 20, 'y'));
            c.peer.write(stream);
        });
        const qint64 begin = cpuTimeNs();
        EXPECT_TRUE(c.waitForCount(static_cast<std::size_t>(count) + 1, 60000));
        writer.join();
        return (cpuTimeNs() - begin) / 1000000;
    };
    const qint64 small = measure(20000);
    const qint64 large = measure(200000);
    EXPECT_LT(large, 40 * std::max<qint64>(small, 5)) << small << " ms for a tenth";
}

TEST(BufferSocket, TakesTheLargestMessageThereIs)
{
    LogCapture log;
    Connected<BufferSocketQueued> c(false, static_cast<int>(NuvikaTcpSocket::eHeavy));
    const QByteArray large(100 << 20, 'z'); // 104857600: one too many
    std::thread writer([&] {
        c.peer.write("FDTC" + number(104857599));
        c.peer.write(large.constData(), 104857599);
        c.peer.write(frame("small"));
    });
    ASSERT_TRUE(c.waitForCount(2, 60000));
    writer.join();
    EXPECT_EQ(c.got[0].size(), 104857599);
    EXPECT_EQ(c.got[1], QByteArray("small"));
    EXPECT_EQ(log.count("ASSERT"), 0);
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
        c.socket->close();
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
    // The other end reads them, also one that sends plainly.
    Connected<BufferSocketQueued> reader(false);
    reader.peer.write(wire + "F");
    ASSERT_TRUE(reader.waitForCount(2));
    EXPECT_EQ(reader.got, (std::vector<QByteArray>{"abc", ""}));
}

TEST(BufferSocket, ABadTokenDoesNotSpoilTheConnection)
{
    Connected<BufferSocketFixedFifo> writer(true);
    ASSERT_TRUE(writer.socket->sendBuffer("secret", 6));
    ASSERT_TRUE(waitFor([&] { return writer.peer.received().size() == 56; }));
    const QByteArray good = writer.peer.take();
    const QByteArray token = good.mid(8);
    const auto changed
        = [&](int at, const QByteArray& bytes) { return QByteArray(token).replace(at, bytes.size(), bytes); };
    struct Case {
        QByteArray token;
        const char* text;
    };
    const std::vector<Case> cases = {
        {changed(0, "xxxx"), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {token.left(3), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {token.left(6), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {changed(4, number(16)),
            "BufferSocketDecrypter::decrypt(): crypto token version 16 not supported in this release"},
        {token.left(20), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {changed(8, number(0x7FFFFFFF)), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {changed(8, number(8)), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {token.left(8) + number(8) + token.mid(12, 8) + number(16) + token.mid(32),
            "BufferSocketDecrypter::decrypt(): invalid input data, key size mismatch"},
        {token.left(47), "BufferSocketDecrypter::decrypt(): invalid input data"},
        {changed(28, number(15)), "BufferSocketDecrypter::decrypt(): EVP_DecryptFinal_ex failed"},
        {changed(28, number(0)), "BufferSocketDecrypter::decrypt(): EVP_DecryptFinal_ex failed"},
        // Ten bytes of padding say seventeen, by way of the IV.
        {changed(27, QByteArray(1, static_cast<char>(token.at(27) ^ 10 ^ 17))),
            "BufferSocketDecrypter::decrypt(): EVP_DecryptFinal_ex failed"},
    };
    Connected<BufferSocketQueued> c(false);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        LogCapture log;
        c.got.clear();
        c.peer.write(frame(cases[i].token, "GEUD") + good);
        ASSERT_TRUE(c.waitForCount(2)) << i;
        EXPECT_EQ(c.got, (std::vector<QByteArray>{"", "secret"})) << "case " << i;
        EXPECT_EQ(log.count(cases[i].text, QtWarningMsg), 1) << "case " << i;
    }
}

TEST(BufferSocket, ReportsWhatTheCryptoLibraryRefuses)
{
    Connected<BufferSocketFixedFifo> writer(true);
    const auto sendWith = [&](const char* function) {
        seams::crypto(function).arm(1, 0);
        writer.socket->sendBuffer("abc", 3);
        EXPECT_TRUE(waitFor([&] { return writer.peer.received().size() >= 8; }));
        settle(5);
        return writer.peer.take();
    };
    LogCapture log;
    const QByteArray empty = "GEUD" + number(0);
    EXPECT_EQ(sendWith("EVP_EncryptInit_ex"), empty) << "a failed token goes out as a frame of length 0";
    EXPECT_TRUE(log.has("BufferSocketEncrypter::encrypt(): EVP_EncryptInit_ex failed", QtCriticalMsg));
    EXPECT_EQ(sendWith("no fault").size(), 56) << "the next one does better";
    EXPECT_EQ(sendWith("EVP_EncryptUpdate"), empty);
    EXPECT_TRUE(log.has("BufferSocketEncrypter::encrypt(): EVP_EncryptUpdate failed", QtCriticalMsg));
    EXPECT_EQ(sendWith("no fault"), empty) << "a cipher that failed at work stays silent";
    Connected<BufferSocketFixedFifo> other(true);
    std::swap(writer.socket, other.socket);
    std::swap(writer.peer, other.peer);
    EXPECT_EQ(sendWith("EVP_EncryptFinal_ex"), empty);
    EXPECT_TRUE(log.has("BufferSocketEncrypter::encrypt(): EVP_EncryptFinal_ex failed", QtCriticalMsg));
    for (const auto& [function, text] : {std::pair("EVP_DigestInit_ex", "sha256: EVP_DigestInit_ex failed"),
             std::pair("EVP_DigestUpdate", "sha2561: EVP_DigestUpdate failed"),
             std::pair("EVP_DigestFinal_ex", "sha256: EVP_DigestFinal_ex failed")}) {
        Connected<BufferSocketFixedFifo> keyless(true);
        seams::crypto(function).arm(1, 0);
        keyless.socket->sendBuffer("abc", 3);
        EXPECT_TRUE(waitFor([&] { return keyless.peer.received() == empty; }));
        EXPECT_TRUE(log.has(text, QtCriticalMsg));
    }
    Connected<BufferSocketFixedFifo> source(true);
    source.socket->sendBuffer("abc", 3);
    ASSERT_TRUE(waitFor([&] { return source.peer.received().size() == 56; }));
    Connected<BufferSocketQueued> reader(false);
    for (const char* function : {"EVP_DecryptInit_ex", "EVP_DecryptUpdate", "EVP_DecryptFinal_ex"}) {
        reader.got.clear();
        seams::crypto(function).arm(1, 0);
        reader.peer.write(source.peer.received() + source.peer.received());
        ASSERT_TRUE(reader.waitForCount(2));
        EXPECT_EQ(reader.got, (std::vector<QByteArray>{"", "abc"})) << function;
        EXPECT_TRUE(log.has(qPrintable(
            QStringLiteral("BufferSocketDecrypter::decrypt(): %1 failed").arg(QLatin1String(function)))));
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

struct Echo : NuvikaTcpServer {
    std::vector<std::unique_ptr<BufferSocketQueued>> sockets;
    bool bEncrypted = false;
    void incomingConnection(int descriptor) override
    {
        sockets.push_back(std::make_unique<BufferSocketQueued>(bEncrypted));
        BufferSocketQueued* socket = sockets.back().get();
        connect(socket, &BufferSocketBase::incomingBuffer,
            [socket](const char* data, int size, Marker) { socket->sendBuffer(data, size); });
        socket->setSocketDescriptor(descriptor);
    }
};

// `count` numbered messages to the echo and back, while the receiver stalls now and then.
template <class Socket>
void exchange(bool bEncrypted, int count)
{
    Echo echo;
    echo.bEncrypted = bEncrypted;
    ASSERT_TRUE(echo.listen(QHostAddress(QHostAddress::LocalHost), 0));
    Socket socket(bEncrypted);
    int sent = 0;
    int received = 0;
    bool bOrder = true;
    bool bConnected = false;
    const auto send = [&] {
        for (; sent < count && sent < received + 20000; ++sent) {
            const QByteArray message = messageNumber(sent);
            if (!socket.sendBuffer(message.constData(), message.size()))
                break;
        }
    };
    QObject::connect(&socket, &Socket::connected, [&] { bConnected = true; });
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
        QObject::connect(&socket, &Socket::sigCanSend, [&] { send(); });
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), echo.serverPort());
    ASSERT_TRUE(waitFor([&] { return bConnected; }));
    send();
    ASSERT_TRUE(waitFor([&] { return received == count; }, 110000)) << received << " of " << sent;
    EXPECT_TRUE(bOrder);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kMany = 30000;
#else
constexpr int kMany = 1000000;
#endif
} // namespace

TEST(BufferSocketMillion, PlainQueued) { exchange<BufferSocketQueued>(false, kMany); }
TEST(BufferSocketMillion, EncryptedQueued) { exchange<BufferSocketQueued>(true, kMany); }
TEST(BufferSocketMillion, PlainFixedFifo) { exchange<BufferSocketFixedFifo>(false, kMany); }
TEST(BufferSocketMillion, EncryptedFixedFifo) { exchange<BufferSocketFixedFifo>(true, kMany); }

// A parent is no flag.
static_assert(!std::is_constructible_v<BufferSocketQueued, QObject*>);
static_assert(!std::is_constructible_v<BufferSocketFixedFifo, NuvikaTcpSocket*>);
static_assert(std::is_constructible_v<BufferSocketQueued, bool, QObject*>);
static_assert(std::is_constructible_v<BufferSocketFixedFifo, bool>);
