// Message sockets of both kinds, plain and encrypted, whose handlers do what they like: every message comes
// once, whole and in order, or not at all. And a peer that lies about lengths and talks nonsense.
#include "sim/scenarios/Bytes.h"

#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QTimer>
#include <QtCore/QtEndian>

#include <memory>
#include <vector>

namespace
{
constexpr int kHostNotFound = 11001;
constexpr qint64 kMostSent = 12 << 20; // bytes of a run
constexpr const char* kLiar = "10.0.0.8";
constexpr quint16 kLiarPort = 7;

// What one end says: the first message holds its number, and the bytes of all follow from it.
struct Speech {
    quint32 nId = 0;
    std::vector<int> sizes; // of the messages that were taken
    bool bCut = false; // what was not sent yet is lost

    QByteArray message(std::size_t index) const
    {
        QByteArray bytes(sizes[index], '\0');
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(
                (static_cast<quint32>(i) * 2654435761U + nId * 40503U + index * 97) >> 13);
        if (index == 0)
            qToBigEndian(nId, bytes.data());
        return bytes;
    }
    // An empty one is seen with the byte that follows it.
    std::size_t due() const
    {
        std::size_t count = sizes.size();
        while (count > 0 && sizes[count - 1] == 0)
            --count;
        return count;
    }
};

class End;

struct Talk {
    Talk(sim::World& w, const sim::Weather& bad) : world(w), weather(bad) { }
    bool isFine() const
    {
        return !weather.mayReset() && !weather.mayFail() && weather.refuse == 0 && weather.lose == 0
            && nCuts == 0;
    }

    sim::World& world;
    const sim::Weather weather; // while it is bad
    std::deque<Speech> speeches;
    std::vector<std::unique_ptr<End>> ends;
    quint16 nPort = 0;
    int nDepth = 0;
    int nCuts = 0; // connections that a handler has ended
    qint64 nSent = 0;
    bool bFinishing = false; // handlers do nothing of their own any more
};

class End
{
public:
    explicit End(Talk& talk) : m_talk(talk)
    {
        m_stallEnds.setSingleShot(true);
        QObject::connect(&m_stallEnds, &QTimer::timeout, [this] { resume(); });
        makeSocket();
    }
    void connectOut();
    void accept(int descriptor);
    void act(); // something at random
    void close();
    void resume()
    {
        if (m_pSocket)
            m_pSocket->resumeRecv();
    }
    bool isActive() const { return m_bActive; }
    bool isOutgoing() const { return m_bOutgoing; }
    bool waits() const
    {
        return m_bActive
            && (!m_bConnected || m_bRefused
                || (m_pIn != nullptr && !m_pIn->bCut && m_nReceived < m_pIn->due()));
    }
    std::string text() const
    {
        return std::string(m_bOutgoing ? "outgoing " : "accepted ") + std::to_string(m_pOut->nId)
            + (m_bConnected ? "" : " unconnected") + (m_bRefused ? " refused" : "") + " received "
            + std::to_string(m_nReceived) + " of "
            + std::to_string(m_pIn == nullptr ? 0 : m_pIn->sizes.size());
    }

private:
    sim::Random& random() { return m_talk.world.random(); }
    void makeSocket();
    void begin();
    void over();
    void send();
    bool sendMessage(const QByteArray& bytes);
    void stall();
    void destroy();
    void received(const char* data, int size);
    void ended(int code);

    Talk& m_talk;
    std::unique_ptr<BufferSocketBase> m_pSocket;
    BufferSocketFixedFifo* m_pFixed = nullptr; // the same, when it is one
    QTimer m_stallEnds;
    int m_nSession = 0;
    bool m_bOutgoing = false;
    bool m_bActive = false;
    bool m_bConnected = false;
    bool m_bReading = false; // a handler of incomingBuffer() is on the stack
    bool m_bRefused = false; // sendBuffer() said no: sigCanSend() follows
    Speech* m_pOut = nullptr;
    const Speech* m_pIn = nullptr;
    std::size_t m_nReceived = 0;
};

// --- signals ---------------------------------------------------------------------------------------------

void End::makeSocket()
{
    const bool bEncrypted = random().chance(0.5);
    const auto profile = static_cast<int>(random().below(3));
    if (random().chance(0.5)) {
        m_pSocket = std::make_unique<BufferSocketQueued>(bEncrypted, profile);
        m_pFixed = nullptr;
    } else {
        auto fixed = std::make_unique<BufferSocketFixedFifo>(bEncrypted, profile);
        m_pFixed = fixed.get();
        m_pSocket = std::move(fixed);
        QObject::connect(m_pFixed, &BufferSocketFixedFifo::sigCanSend, [this] {
            m_talk.world.expect(
                m_bActive && m_pFixed->canSend(), "sigCanSend() comes, and nothing can be sent");
            m_bRefused = false;
            act();
        });
    }
    BufferSocketBase* socket = m_pSocket.get();
    QObject::connect(socket, &BufferSocketBase::connected, [this] {
        m_talk.world.expect(m_bActive && m_bOutgoing && !m_bConnected, "connected() comes unasked, or twice");
        m_bConnected = true;
        send();
        act();
    });
    QObject::connect(socket, &BufferSocketBase::incomingBuffer,
        [this](const char* data, int size) { received(data, size); });
    QObject::connect(socket, &BufferSocketBase::disconnected, [this] { ended(0); });
    QObject::connect(socket, &BufferSocketBase::error, [this](int code) { ended(code); });
}

void End::received(const char* data, int size)
{
    sim::World& world = m_talk.world;
    world.expect(m_bActive && m_bConnected, "incomingBuffer() comes without a connection");
    world.expect(!std::exchange(m_bReading, true), "incomingBuffer() nests");
    if (m_pIn == nullptr) {
        const quint32 id = size < 4 ? 0 : qFromBigEndian<quint32>(data);
        world.expect(
            id >= 1 && id <= m_talk.speeches.size(), "a first message of %d bytes, from %u", size, id);
        m_pIn = &m_talk.speeches[id - 1];
    }
    world.expect(m_nReceived < m_pIn->sizes.size(), "more is received than was sent");
    world.expect(QByteArray::fromRawData(data, size) == m_pIn->message(m_nReceived),
        "message %zu of %u has %d bytes, and not its %d", m_nReceived, m_pIn->nId, size,
        m_pIn->sizes[m_nReceived]);
    ++m_nReceived;
    const int session = m_nSession;
    sim::expectKept(world, data, size, [this] { act(); });
    if (session == m_nSession)
        m_bReading = false;
}

void End::ended(int code)
{
    sim::World& world = m_talk.world;
    world.expect(m_bActive, "the end comes behind the end, with code %d", code);
    world.expect(!m_bReading, "the end comes while a handler of incomingBuffer() runs");
    world.expect(code != 0 || m_bConnected, "disconnected() comes before connected()");
    world.expect(code == 0 || !m_talk.isFine() || code == kHostNotFound, "error %d without a reason", code);
    world.expect(code != 0 || m_pIn == nullptr || m_pIn->bCut || m_talk.weather.mayReset()
            || m_talk.weather.mayFail(), // whose handler still runs
        "disconnected() comes, and the peer is there");
    over();
    if (code != 0)
        m_pSocket->close();
    act();
}

// --- what is done ----------------------------------------------------------------------------------------

void End::begin()
{
    ++m_nSession;
    m_talk.speeches.emplace_back();
    m_pOut = &m_talk.speeches.back();
    m_pOut->nId = static_cast<quint32>(m_talk.speeches.size());
    m_bActive = true;
    m_bConnected = m_bReading = false;
    m_pIn = nullptr;
    m_nReceived = 0;
    m_pSocket->resumeRecv();
}

void End::over()
{
    m_bActive = m_bConnected = m_bReading = m_bRefused = false;
    m_pOut->bCut = true;
}

void End::connectOut()
{
    if (!m_pSocket)
        makeSocket();
    begin();
    m_bOutgoing = true;
    if (random().chance(0.8))
        m_pSocket->connectToHost(QHostAddress(QHostAddress::LocalHost), m_talk.nPort);
    else
        m_pSocket->connectToHost(
            random().chance(0.8) ? QStringLiteral("here") : QStringLiteral("nowhere"), m_talk.nPort);
    m_talk.world.expect(!sendMessage("early"), "a message is taken before there is a connection");
}

void End::accept(int descriptor)
{
    begin();
    m_bConnected = true;
    m_pSocket->setSocketDescriptor(descriptor);
    send();
}

void End::close()
{
    ++m_talk.nCuts;
    over();
    m_pSocket->close();
    m_talk.world.expect(!sendMessage("late"), "a message is taken behind the end");
}

bool End::sendMessage(const QByteArray& bytes)
{
    return m_pFixed != nullptr
        ? m_pFixed->sendBuffer(bytes.constData(), bytes.size())
        : static_cast<BufferSocketQueued&>(*m_pSocket).sendBuffer(bytes.constData(), bytes.size());
}

// Small ones in crowds, large ones alone.
void End::send()
{
    sim::World& world = m_talk.world;
    const bool bCrowd = random().chance(0.3);
    for (std::uint64_t left = bCrowd ? random().size(200) : random().size(8); left > 0; --left) {
        if (!m_bConnected || m_bRefused || m_talk.nSent > kMostSent)
            return;
        const bool bFirst = m_pOut->sizes.empty();
        const auto size
            = static_cast<int>(bCrowd ? random().below(30) : random().size(2000000)) + (bFirst ? 4 : 0);
        m_pOut->sizes.push_back(size);
        const bool bCould = m_pFixed == nullptr || m_pFixed->canSend();
        const bool bTaken = sendMessage(m_pOut->message(m_pOut->sizes.size() - 1));
        m_talk.nSent += size;
        if (bTaken)
            continue;
        m_pOut->sizes.pop_back();
        // While a handler runs, the connection's end is not told yet.
        world.expect(!bCould || m_bReading, "a message is refused though it can be sent");
        m_bRefused = !m_bReading || m_pFixed != nullptr;
    }
}

void End::stall()
{
    m_pSocket->stallRecv();
    m_stallEnds.start(static_cast<int>(random().size(5000)));
}

void End::destroy()
{
    ++m_talk.nCuts;
    if (m_bActive)
        over();
    m_pSocket->disconnect(); // one that lives on until the loop deletes it may say something
    m_pFixed = nullptr;
    if (random().chance(0.5))
        m_pSocket.release()->deleteLater();
    else
        m_pSocket.reset();
}

void End::act()
{
    if (m_talk.bFinishing || !m_pSocket || random().chance(0.4))
        return;
    switch (random().below(20)) {
    case 0:
        if (m_bActive)
            close();
        break;
    case 1:
        destroy();
        break;
    case 2:
    case 3:
        sim::runNestedLoop(m_talk.world, m_talk.nDepth);
        break;
    case 4:
    case 5:
        if (m_bActive)
            stall();
        break;
    case 6:
        m_talk.world.work(random().size(5000));
        break;
    case 7: // at once again
        if (m_bOutgoing && m_bActive && random().chance(0.3))
            close();
        if (m_bOutgoing && !m_bActive)
            connectOut();
        break;
    default:
        send();
    }
}

// --- the run ---------------------------------------------------------------------------------------------

void talkAWhile(Talk& talk)
{
    sim::Random& random = talk.world.random();
    for (std::uint64_t left = random.size(8); left > 0; --left) {
        talk.ends.push_back(std::make_unique<End>(talk));
        talk.ends.back()->connectOut();
        talk.world.run(random.below(20));
    }
    for (std::uint64_t left = random.size(60); left > 0; --left) {
        End& end = *random.pick(talk.ends);
        if (!end.isActive() && end.isOutgoing() && random.chance(0.7))
            end.connectOut();
        else
            end.act();
        talk.world.run(random.size(100));
    }
}

template <class Condition>
void waitFor(Talk& talk, const char* text, Condition condition)
{
    const auto any = [&] {
        return std::any_of(
            talk.ends.begin(), talk.ends.end(), [&](const auto& end) { return condition(*end); });
    };
    talk.world.runUntil([&] { return !any(); }, 900000);
    for (const auto& end : talk.ends)
        talk.world.expect(!condition(*end), "%s: %s", text, end->text().c_str());
}

// In fine weather everything that was taken arrives, and every connection ends.
void finish(Talk& talk)
{
    talk.bFinishing = true;
    talk.world.weather() = sim::Weather();
    for (std::size_t i = 0; i < talk.ends.size(); ++i)
        talk.ends[i]->resume();
    waitFor(talk, "waits in vain", [](const End& end) { return end.waits(); });
    for (std::size_t i = 0; i < talk.ends.size(); ++i) {
        if (talk.ends[i]->isActive() && (talk.ends[i]->isOutgoing() || talk.world.random().chance(0.2)))
            talk.ends[i]->close();
    }
    waitFor(talk, "does not end", [](const End& end) { return end.isActive(); });
}

// --- a liar ----------------------------------------------------------------------------------------------

QByteArray frame(const char* magic, quint32 length, const QByteArray& payload)
{
    QByteArray bytes(magic);
    bytes.resize(8);
    qToBigEndian(length, bytes.data() + 4);
    return bytes + payload;
}

// Without a byte with which a frame may begin.
QByteArray nonsense(sim::Random& random, std::uint64_t size)
{
    QByteArray bytes(static_cast<int>(size), '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random.below(0x40));
    return bytes;
}

// Some are what they say; an encrypted one that cannot be read is an empty one.
QByteArray truths(sim::Random& random, std::vector<QByteArray>* heard)
{
    QByteArray bytes;
    for (std::uint64_t left = random.size(20); left > 0; --left) {
        const bool bToken = random.chance(0.3);
        const QByteArray payload = nonsense(random, random.size(30000));
        heard->push_back(bToken ? QByteArray() : payload);
        bytes += frame(bToken ? "GEUD" : "FDTC", static_cast<quint32>(payload.size()), payload);
    }
    return bytes;
}

QByteArray lie(sim::Random& random)
{
    const QByteArray rest = nonsense(random, 9 + random.size(3000));
    switch (random.below(3)) {
    case 0:
        return rest; // no frame at all
    case 1:
        return frame("FDTC", static_cast<quint32>(0x6400000 + random.below(0x90000000)), rest);
    default: // the message goes on behind its end
        return frame("FDTC", 3, "abc" + rest);
    }
}

struct Hearing {
    explicit Hearing(sim::World& w) : world(w) { }
    sim::World& world;
    BufferSocketQueued socket{false, static_cast<int>(world.random().below(3))};
    sim::Peer* pLiar = nullptr;
    std::vector<QByteArray> due;
    std::size_t nHeard = 0;
    bool bLied = false; // what is due then comes, or does not
    bool bOver = false;

    void hear(const QByteArray& message)
    {
        world.expect(!bOver, "a message behind the end");
        while (bLied && nHeard < due.size() && due[nHeard] != message)
            ++nHeard;
        world.expect(nHeard < due.size() && due[nHeard] == message, "message %zu: %d bytes that nobody sent",
            nHeard, message.size());
        nHeard += bLied ? 0 : 1; // a lie may be repeated
        bLied = bLied && message != due.back();
    }
};
} // namespace

SCENARIO(messages)
{
    const sim::Weather weather = world.weather();
    world.weather() = sim::Weather();
    NuvikaTcpServer server;
    Talk talk(world, weather);
    world.setName("here", {"127.0.0.1"});
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&](int descriptor) {
        talk.ends.push_back(std::make_unique<End>(talk));
        talk.ends.back()->accept(descriptor);
    });
    world.expect(server.listen(QHostAddress(QHostAddress::LocalHost), 0), "the server does not listen");
    talk.nPort = server.serverPort();
    world.weather() = weather;
    talkAWhile(talk);
    finish(talk);
    talk.ends.clear();
}

// The truth is heard to the letter; and behind each lie again, once there was a pause.
SCENARIO(liars)
{
    sim::Weather& weather = world.weather();
    weather.reset = weather.refuse = weather.lose = weather.noDescriptor = weather.noMemory = 0;
    Hearing hearing(world);
    world.listen(kLiar, kLiarPort, [&](sim::Peer& peer) { hearing.pLiar = &peer; });
    QObject::connect(&hearing.socket, &BufferSocketBase::incomingBuffer,
        [&](const char* data, int size) { hearing.hear(QByteArray(data, size)); });
    QObject::connect(&hearing.socket, &BufferSocketBase::disconnected, [&] { hearing.bOver = true; });
    QObject::connect(&hearing.socket, &BufferSocketBase::error,
        [&](int code) { world.expect(false, "error %d without a reason", code); });
    hearing.socket.connectToHost(QHostAddress(QString::fromLatin1(kLiar)), kLiarPort);
    world.expect(world.runUntil([&] { return hearing.pLiar != nullptr; }, 10000), "nobody connects");
    sim::Random& random = world.random();
    for (std::uint64_t left = random.size(10); left > 0; --left) {
        hearing.due.clear();
        hearing.nHeard = 0;
        const QByteArray bytes = truths(random, &hearing.due);
        hearing.pLiar->write(bytes);
        const auto isHeard = [&] { return hearing.nHeard == hearing.due.size(); };
        world.expect(
            world.runUntil(isHeard, 300000), "%zu of %zu messages", hearing.nHeard, hearing.due.size());
        const QByteArray lies = lie(random);
        hearing.due = {"abc", "the truth"};
        hearing.nHeard = lies.startsWith("FDTC") ? 0 : 1;
        hearing.bLied = true;
        hearing.pLiar->write(lies);
        for (int tries = 0; tries < 100 && hearing.bLied; ++tries) {
            world.run(20000); // longer than any stall
            if (hearing.bLied)
                hearing.pLiar->write(frame("FDTC", 9, "the truth"));
        }
        world.expect(!hearing.bLied, "nothing is heard any more");
        world.run(20000);
    }
    hearing.pLiar->write(frame("FDTC", static_cast<quint32>(random.size(0x63fffff)), ""));
    hearing.pLiar->end();
    world.expect(world.runUntil([&] { return hearing.bOver; }, 60000), "it does not end");
}
