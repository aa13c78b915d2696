// Plain and queued sockets that talk to each other through a server, with handlers that do what they like:
// send, end, close, reuse, delete, stall, and run event loops of their own. Every byte is checked, and every
// signal against the state in which it may come.
#include "sim/World.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <QtCore/QTimer>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <memory>
#include <type_traits>

#include <unistd.h>

namespace
{
constexpr int kHostNotFound = 11001;
constexpr int kMostDepth = 3; // of nested event loops
const std::array<QString, 4> kNames{
    QStringLiteral("here"), QStringLiteral("at last"), QStringLiteral("nobody"), QStringLiteral("127.0.0.1")};
constexpr int kMostSent = 8 << 20; // bytes of a run

// One direction of one connection. Its bytes begin with its number, and follow from that.
struct Stream {
    quint32 nId = 0;
    qint64 nSent = 0; // handed over and taken
    bool bEnded = false; // the sender has announced the end,
    bool bCut = false; // or let go: what was not sent yet is lost,
    bool bBroken = false; // or was told of the connection's failure: so must the receiver be

    char at(qint64 i) const
    {
        if (i < 4)
            return static_cast<char>(nId >> (8 * i));
        return static_cast<char>((static_cast<quint64>(i) * 2654435761U + nId * 40503U) >> 13);
    }
};

class End;

struct Talk {
    Talk(sim::World& w, const sim::Weather& bad) : world(w), weather(bad) { }

    sim::World& world;
    const sim::Weather weather; // while it is bad
    std::deque<Stream> streams;
    std::vector<std::unique_ptr<End>> ends;
    quint16 nPort = 0;
    int nDepth = 0;
    int nCuts = 0; // connections that a handler has ended
    qint64 nSent = 0;
    bool bFinishing = false; // handlers do nothing of their own any more

    Stream& newStream()
    {
        streams.emplace_back();
        streams.back().nId = static_cast<quint32>(streams.size());
        return streams.back();
    }
};

class End
{
public:
    explicit End(Talk& talk) : m_talk(talk) { }
    virtual ~End() = default;
    virtual void act() = 0; // something at random
    virtual void connectOut() = 0;
    virtual void resume() = 0;
    virtual void finish() = 0;
    bool isActive() const { return m_bActive; }
    bool isOutgoing() const { return m_bOutgoing; }
    bool waits() const
    {
        const bool bBytes = m_pIn != nullptr && !m_pIn->bCut && m_nReceived < m_pIn->nSent;
        return m_bActive && (!m_bConnected || m_bRefused || m_bAllSentDue || bBytes);
    }
    std::string text() const
    {
        return std::string(m_bOutgoing ? "outgoing" : "accepted") + " " + std::to_string(m_pOut->nId)
            + (m_bConnected ? "" : " unconnected") + (m_bRefused ? " refused" : "")
            + (m_bAllSentDue ? " not all sent" : "") + " received " + std::to_string(m_nReceived) + " of "
            + std::to_string(m_pIn == nullptr ? 0 : m_pIn->nSent);
    }

protected:
    Talk& m_talk;
    bool m_bOutgoing = false;
    bool m_bActive = false; // a connection is there or in the making, and signals may come
    bool m_bConnected = false;
    bool m_bRefused = false; // sendData() said no: sigCanSend() follows
    bool m_bAllSentDue = false;
    int m_nAfterStall = -1; // deliveries since then
    int m_nPosted = 2; // receives at a time
    int m_nSession = 0;
    Stream* m_pOut = nullptr;
    Stream* m_pIn = nullptr;
    QByteArray m_head;
    qint64 m_nReceived = 0;
};

template <class Socket>
class EndOf : public End
{
public:
    explicit EndOf(Talk& talk) : End(talk) { makeSocket(); }

    void connectOut() override
    {
        if (!m_pSocket)
            makeSocket();
        begin();
        m_bOutgoing = true;
        if (m_talk.world.random().chance(0.7))
            m_pSocket->connectToHost(QHostAddress(QHostAddress::LocalHost), m_talk.nPort);
        else
            m_pSocket->connectToHost(m_talk.world.random().pick(kNames), m_talk.nPort);
    }
    void accept(int descriptor)
    {
        begin();
        m_bConnected = true;
        m_pSocket->setSocketDescriptor(descriptor);
        send();
    }
    void resume() override
    {
        m_nAfterStall = -1;
        if (m_pSocket)
            m_pSocket->resumeRecv();
    }
    void finish() override
    {
        if (m_bConnected)
            sendEnd();
        else
            close();
    }
    void act() override;

private:
    void makeSocket();
    void begin();
    void over();
    void close();
    void send();
    void sendBlock();
    void sendEnd();
    void stall();
    void runLoop();
    void destroy();
    void receive(const char* data, int size);
    void read(const char* data, int size);
    void ended(int code);
    void canSend();
    void checkSignal(const char* name, NuvikaTcpSocket::STATE state);

    std::unique_ptr<Socket> m_pSocket;
};

template <class Socket>
void EndOf<Socket>::makeSocket()
{
    sim::Random& random = m_talk.world.random();
    const bool bSingle = random.chance(0.3);
    const int hint = random.chance(0.5) ? 0 : static_cast<int>(random.size(200000));
    if constexpr (std::is_same_v<Socket, NuvikaTcpSocketQueued>) {
        m_pSocket = std::make_unique<Socket>(hint, bSingle);
    } else {
        const auto send = static_cast<NuvikaTcpSocket::LOAD_PROFILE>(random.below(3));
        const auto receive = static_cast<NuvikaTcpSocket::LOAD_PROFILE>(random.below(3));
        m_pSocket = std::make_unique<Socket>(send, receive, hint, bSingle);
    }
    m_nPosted = bSingle ? 1 : 2;
    Socket* socket = m_pSocket.get();
    QObject::connect(socket, &Socket::connected, [this] {
        checkSignal("connected", NuvikaTcpSocket::eConnected);
        m_talk.world.expect(m_bOutgoing && !m_bConnected, "connected() comes a second time");
        m_bConnected = true;
        send();
        act();
    });
    QObject::connect(
        socket, &Socket::dataReceived, [this](const char* data, int size) { receive(data, size); });
    QObject::connect(socket, &Socket::disconnected, [this] { ended(0); });
    QObject::connect(socket, &Socket::error, [this](int code) { ended(code); });
    QObject::connect(socket, &Socket::sigCanSend, [this] { canSend(); });
    QObject::connect(socket, &Socket::sigAllSent, [this] {
        checkSignal("sigAllSent", NuvikaTcpSocket::eConnected);
        m_talk.world.expect(std::exchange(m_bAllSentDue, false), "sigAllSent() comes unasked");
        if constexpr (std::is_same_v<Socket, NuvikaTcpSocketQueued>)
            m_talk.world.expect(
                m_pSocket->isDynamicDataQueueEmpty(), "sigAllSent() comes before all is sent");
        act();
    });
}

template <class Socket>
void EndOf<Socket>::checkSignal(const char* name, NuvikaTcpSocket::STATE state)
{
    m_talk.world.expect(m_bActive, "%s() comes after the connection's end", name);
    m_talk.world.expect(m_pSocket->getState() == state, "%s() comes in state %d", name,
        static_cast<int>(m_pSocket->getState()));
}

template <class Socket>
void EndOf<Socket>::begin()
{
    ++m_nSession;
    m_bActive = true;
    m_bConnected = false;
    m_pOut = &m_talk.newStream();
    m_pIn = nullptr;
    m_head.clear();
    m_nReceived = 0;
    m_nAfterStall = -1;
    m_pSocket->resumeRecv();
}

template <class Socket>
void EndOf<Socket>::over()
{
    m_bActive = m_bConnected = m_bRefused = m_bAllSentDue = false;
    m_pOut->bCut = true;
}

template <class Socket>
void EndOf<Socket>::close()
{
    ++m_talk.nCuts;
    over();
    m_pSocket->close();
}

// --- what is received ----------------------------------------------------------------------------------

template <class Socket>
void EndOf<Socket>::receive(const char* data, int size)
{
    checkSignal("dataReceived", NuvikaTcpSocket::eConnected);
    m_talk.world.expect(m_bConnected, "dataReceived() comes before connected()");
    m_talk.world.expect(size > 0, "dataReceived() brings %d bytes", size);
    if (m_nAfterStall >= 0)
        m_talk.world.expect(
            ++m_nAfterStall <= m_nPosted, "more is delivered than the receives that were posted");
    read(data, size);
    act();
}

template <class Socket>
void EndOf<Socket>::read(const char* data, int size)
{
    for (int i = 0; i < size; ++i) {
        if (m_nReceived < 4) {
            m_head.append(data[i]);
            if (++m_nReceived < 4)
                continue;
            quint32 id = 0;
            std::memcpy(&id, m_head.constData(), sizeof id);
            m_talk.world.expect(id >= 1 && id <= m_talk.streams.size(), "a stream begins with %08x", id);
            m_pIn = &m_talk.streams[id - 1];
            continue;
        }
        if (data[i] != m_pIn->at(m_nReceived))
            m_talk.world.expect(false, "stream %u: byte %lld is another", m_pIn->nId, m_nReceived);
        ++m_nReceived;
    }
    m_talk.world.expect(m_pIn == nullptr || m_nReceived <= m_pIn->nSent, "more is received than was sent");
}

template <class Socket>
void EndOf<Socket>::ended(int code)
{
    const bool bWasConnected = m_bConnected;
    checkSignal(code == 0 ? "disconnected" : "error",
        code == 0 ? NuvikaTcpSocket::eUnconnected : NuvikaTcpSocket::eError);
    const bool bFine = !m_talk.weather.mayReset() && !m_talk.weather.mayFail() && m_talk.weather.refuse == 0
        && m_talk.weather.lose == 0;
    m_talk.world.expect(
        code == 0 || !bFine || m_talk.nCuts > 0 || code == kHostNotFound, "error %d without a reason", code);
    if (code == 0 && m_pIn != nullptr && (!m_pIn->bCut || m_pIn->bBroken)) {
        m_talk.world.expect(m_pIn->bEnded, "stream %u ends, and its sender has not ended it", m_pIn->nId);
        m_talk.world.expect(m_nReceived == m_pIn->nSent, "stream %u ends after %lld of %lld bytes",
            m_pIn->nId, m_nReceived, m_pIn->nSent);
    }
    m_talk.world.expect(code != 0 || bWasConnected, "disconnected() comes before connected()");
    over();
    m_pOut->bBroken = code != 0 && bWasConnected && !m_talk.weather.mayFail();
    if (code != 0)
        m_pSocket->close();
    act();
}

// --- what is done --------------------------------------------------------------------------------------

template <class Socket>
void EndOf<Socket>::canSend()
{
    checkSignal("sigCanSend", NuvikaTcpSocket::eConnected);
    m_talk.world.expect(m_pSocket->canSend(), "sigCanSend() comes, and nothing can be sent");
    m_bRefused = false;
    act();
}

template <class Socket>
void EndOf<Socket>::send()
{
    sim::Random& random = m_talk.world.random();
    for (std::uint64_t left = random.chance(0.2) ? random.below(8) : 1; left > 0; --left)
        sendBlock();
}

template <class Socket>
void EndOf<Socket>::sendBlock()
{
    sim::Random& random = m_talk.world.random();
    if (!m_bConnected || m_pOut->bEnded || m_talk.nSent > kMostSent)
        return;
    QByteArray bytes(static_cast<int>(random.size(300000)) + (m_pOut->nSent == 0 ? 4 : 0), '\0');
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = m_pOut->at(m_pOut->nSent + i);
    const bool bCould = m_pSocket->canSend();
    const bool bTaken = m_pSocket->sendData(bytes.constData(), bytes.size());
    m_talk.world.expect(bTaken || !bCould, "bytes are refused though they can be sent");
    m_talk.world.expect(bTaken || !std::is_same_v<Socket, NuvikaTcpSocketQueued>, "a queued socket refuses");
    m_pOut->nSent += bTaken ? bytes.size() : 0;
    m_talk.nSent += bTaken ? bytes.size() : 0;
    m_bRefused = m_bRefused || !bTaken;
}

template <class Socket>
void EndOf<Socket>::sendEnd()
{
    if (!m_bConnected || m_pOut->bEnded)
        return;
    m_pOut->bEnded = true;
    if constexpr (std::is_same_v<Socket, NuvikaTcpSocketQueued>)
        m_pSocket->finishSending();
    else
        m_talk.world.expect(m_pSocket->sendEndOfData(), "the end of data is refused");
}

template <class Socket>
void EndOf<Socket>::stall()
{
    m_pSocket->stallRecv();
    m_nAfterStall = 0;
    const int session = m_nSession;
    QTimer::singleShot(static_cast<int>(m_talk.world.random().below(300)), m_pSocket.get(), [this, session] {
        if (session == m_nSession)
            resume();
    });
}

template <class Socket>
void EndOf<Socket>::runLoop()
{
    if (m_talk.nDepth >= kMostDepth)
        return;
    ++m_talk.nDepth;
    m_talk.world.run(m_talk.world.random().size(50));
    --m_talk.nDepth;
}

template <class Socket>
void EndOf<Socket>::destroy()
{
    if (m_bActive)
        close();
    if (m_talk.world.random().chance(0.5))
        m_pSocket.release()->deleteLater();
    else
        m_pSocket.reset();
}

template <class Socket>
void EndOf<Socket>::act()
{
    sim::Random& random = m_talk.world.random();
    if (m_talk.bFinishing || !m_pSocket || random.chance(0.4))
        return;
    switch (random.below(24)) {
    case 0:
        if (m_bActive)
            close();
        break;
    case 1:
        destroy();
        break;
    case 2:
    case 3:
        runLoop();
        break;
    case 4:
        sendEnd();
        break;
    case 5:
    case 6:
        if (m_bConnected)
            stall();
        break;
    case 7:
        m_talk.world.work(random.size(5000));
        break;
    case 8:
        if (m_bConnected && m_pSocket->notifyWhenAllSent())
            m_bAllSentDue = true;
        break;
    case 9: // at once again
        if (m_bOutgoing && m_bActive && random.chance(0.3))
            close();
        if (m_bOutgoing && !m_bActive)
            connectOut();
        break;
    default:
        send();
    }
}

// A descriptor, too, may be let go.
void takeConnection(Talk& talk, int descriptor)
{
    sim::Random& random = talk.world.random();
    const auto take = [&](auto end) {
        auto* taking = end.get();
        talk.ends.push_back(std::move(end));
        taking->accept(descriptor);
    };
    if (random.chance(0.03)) {
        ++talk.nCuts;
        ::close(descriptor);
    } else if (random.chance(0.5)) {
        take(std::make_unique<EndOf<NuvikaTcpSocket>>(talk));
    } else {
        take(std::make_unique<EndOf<NuvikaTcpSocketQueued>>(talk));
    }
}

bool anyWaits(const Talk& talk)
{
    return std::any_of(talk.ends.begin(), talk.ends.end(), [](const auto& end) { return end->waits(); });
}

void expectNobodyWaits(Talk& talk, const char* what)
{
    for (const auto& end : talk.ends)
        talk.world.expect(!end->waits(), "%s: %s", what, end->text().c_str());
}

void talkAWhile(Talk& talk)
{
    sim::Random& random = talk.world.random();
    for (std::uint64_t left = random.size(12); left > 0; --left) {
        if (random.chance(0.5))
            talk.ends.push_back(std::make_unique<EndOf<NuvikaTcpSocket>>(talk));
        else
            talk.ends.push_back(std::make_unique<EndOf<NuvikaTcpSocketQueued>>(talk));
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

// In fine weather everything that was taken arrives, and every connection ends.
void finish(Talk& talk)
{
    talk.bFinishing = true;
    talk.world.weather() = sim::Weather();
    for (std::size_t i = 0; i < talk.ends.size(); ++i)
        talk.ends[i]->resume();
    talk.world.runUntil([&] { return !anyWaits(talk); }, 200000);
    expectNobodyWaits(talk, "waits in vain");
    for (std::size_t i = 0; i < talk.ends.size(); ++i) {
        if (talk.ends[i]->isActive())
            talk.ends[i]->finish();
    }
    const auto allOver = [&] {
        return std::none_of(
            talk.ends.begin(), talk.ends.end(), [](const auto& end) { return end->isActive(); });
    };
    talk.world.runUntil(allOver, 200000);
    for (const auto& end : talk.ends)
        talk.world.expect(!end->isActive(), "does not end: %s", end->text().c_str());
}
} // namespace

SCENARIO(streams)
{
    const sim::Weather weather = world.weather();
    world.weather() = sim::Weather();
    NuvikaTcpServer server;
    Talk talk(world, weather);
    world.setName("here", {"127.0.0.1"});
    world.setName("at last", {"10.7.7.7", "fd00::1", "10.0.0.1", "127.0.0.1"}); // no answer, then refusals
    world.setName("nobody", {});
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&](int s) { takeConnection(talk, s); });
    world.expect(server.listen(QHostAddress(QHostAddress::LocalHost), 0), "the server does not listen");
    talk.nPort = server.serverPort();
    world.weather() = weather;
    talkAWhile(talk);
    finish(talk);
    talk.ends.clear();
}
