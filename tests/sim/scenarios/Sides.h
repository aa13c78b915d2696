// What scenarios of talking sockets share: sides of connections, whose handlers do what they like (send, end,
// close, call again, delete, stall, run event loops of their own). Every byte is checked, and every signal
// against the state in which it may come.
#pragma once

#include "sim/scenarios/Bytes.h"

#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <limits>
#include <type_traits>

#include <unistd.h>

namespace sim
{
constexpr int kHostNotFound = 11001;

class Side;

struct Talk {
    // At most so many bytes, and so many at a time. The weather is fine until the talk begins.
    Talk(World& w, qint64 mostSent, std::uint64_t largest)
        : world(w), random(w.random()), weather(w.weather()), bCalm(random.chance(0.3)), nMostSent(mostSent),
          nLargest(largest)
    {
        world.weather() = Weather();
    }
    bool isFine() const // no connection fails
    {
        return !weather.mayReset() && !weather.mayFail() && weather.refuse == 0 && weather.lose == 0
            && nCuts == 0;
    }

    World& world;
    Random& random;
    const Weather weather; // while it is bad
    const bool bCalm; // handlers end nothing
    const qint64 nMostSent;
    const std::uint64_t nLargest;
    std::uint64_t nLongestStallMs = 5000;
    std::vector<QString> hosts; // where sides connect to
    quint16 nPort = 0;
    Streams streams;
    std::vector<Side*> sides; // on all threads
    int nDepth = 0; // of nested event loops
    int nCuts = 0; // connections that somebody has ended
    qint64 nSent = 0;
    bool bFinishing = false; // handlers do nothing of their own any more
    std::vector<std::unique_ptr<Side>> own; // those of the first thread
};

// An event loop of a handler's own, up to some depth.
inline void runNestedLoop(Talk& talk)
{
    if (talk.nDepth >= 3)
        return;
    ++talk.nDepth;
    talk.world.run(talk.random.size(50));
    --talk.nDepth;
}

class Side
{
public:
    explicit Side(Talk& talk) : m_talk(talk)
    {
        talk.sides.push_back(this);
        m_stallEnds.setSingleShot(true);
        QObject::connect(&m_stallEnds, &QTimer::timeout, [this] { resume(); });
    }
    virtual ~Side()
    {
        if (m_bActive)
            over(1);
        m_talk.sides.erase(std::find(m_talk.sides.begin(), m_talk.sides.end(), this));
    }
    Side(const Side&) = delete;
    Side& operator=(const Side&) = delete;
    virtual void connectOut() = 0;
    virtual void accept(int descriptor) = 0;
    virtual void act() = 0; // something at random
    virtual void resume() = 0;
    virtual void finish() = 0;
    bool isActive() const { return m_bActive; }
    bool isOutgoing() const { return m_bOutgoing; }
    bool waits() const { return m_bActive && (!m_bConnected || m_bRefused || m_bAllSentDue || m_in.isDue()); }
    std::string text() const
    {
        return std::string(m_bOutgoing ? "outgoing" : "accepted") + " stream " + std::to_string(m_pOut->nId)
            + (m_bConnected ? "" : " unconnected") + (m_bRefused ? " cannot send" : "")
            + (m_bAllSentDue ? " not all sent" : "") + ", received " + std::to_string(m_in.nReceived) + " of "
            + std::to_string(m_in.pStream == nullptr ? 0 : m_in.pStream->nSent);
    }

protected:
    void over(int cuts)
    {
        m_talk.nCuts += cuts;
        m_bActive = m_bConnected = m_bReading = m_bRefused = m_bAllSentDue = false;
        m_pOut->bCut = true;
    }

    Talk& m_talk;
    World& m_world = m_talk.world;
    Random& m_random = m_talk.random;
    const Qt::HANDLE m_thread = QThread::currentThreadId();
    QTimer m_stallEnds;
    int m_nSession = 0;
    quint64 m_nBegin = 0; // of it, or of a server's handshake
    bool m_bOutgoing = false;
    bool m_bActive = false; // a connection is there or in the making, and signals may come
    bool m_bConnected = false;
    bool m_bReading = false; // the handler of received bytes is on the stack
    bool m_bRefused = false; // sigCanSend() follows
    bool m_bAllSentDue = false;
    int m_nAfterStall = -1; // deliveries since then
    int m_nPosted = 0; // receives at a time
    Stream* m_pOut = nullptr;
    Reception m_in;
};

template <class Socket>
class SideOf : public Side
{
public:
    using Side::Side;
    void connectOut() override
    {
        begin();
        m_bOutgoing = true;
        const auto [host, port] = target();
        const QHostAddress address(host);
        m_bActive = false; // no signal comes inside of the call
        if (!address.isNull() && m_random.chance(0.7))
            m_pSocket->connectToHost(address, port);
        else
            m_pSocket->connectToHost(host, port);
        m_bActive = true;
        if constexpr (kMessages)
            m_world.expect(!m_pSocket->sendBuffer("early", 5), "it is taken before there is a connection");
        else
            m_world.expect(m_pSocket->getState() == Tcp::eConnecting, "it does not connect");
    }
    void accept(int descriptor) override
    {
        begin();
        m_bConnected = !kTls;
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
        if (m_bConnected && !kMessages)
            sendEnd();
        else if (m_bActive)
            close();
    }
    void act() override
    {
        if (m_talk.bFinishing || !m_pSocket || m_random.chance(0.4))
            return;
        switch (m_random.below(m_talk.bCalm ? 12 : 16)) {
        case 0:
            return runNestedLoop(m_talk);
        case 1:
            if (m_bConnected)
                stall();
            return;
        case 2:
            return m_world.work(m_random.size(5000));
        case 3:
            if constexpr (!kMessages)
                m_bAllSentDue = (m_bConnected && m_pSocket->notifyWhenAllSent()) || m_bAllSentDue;
            return;
        case 4:
            return other();
        case 12:
            if (m_bActive)
                close();
            return;
        case 13:
            return destroy();
        case 14: // at once again
            if (m_bOutgoing && m_bActive && m_random.chance(0.6))
                close();
            if (m_bOutgoing && !m_bActive)
                connectOut();
            return;
        case 15:
            return sendEnd();
        default:
            send();
        }
    }

protected:
    using Tcp = NuvikaTcpSocket;
    static constexpr bool kTls = std::is_same_v<Socket, NuvikaSslSocket>;
    static constexpr bool kMessages = std::is_base_of_v<BufferSocketBase, Socket>;
    static constexpr bool kQueued
        = std::is_same_v<Socket, NuvikaTcpSocketQueued> || std::is_same_v<Socket, BufferSocketQueued>;

    virtual std::unique_ptr<Socket> make()
    {
        const int hint = m_random.chance(0.5) ? 0 : static_cast<int>(m_random.size(200000));
        m_nHint = hint;
        const bool bSingle = m_random.chance(0.3);
        const auto profile = [this] { return static_cast<Tcp::LOAD_PROFILE>(m_random.below(3)); };
        m_nPosted = kMessages || kTls ? std::numeric_limits<int>::max() : bSingle ? 1 : 2;
        if constexpr (kMessages)
            return std::make_unique<Socket>(m_random.chance(0.5), static_cast<int>(profile()));
        else if constexpr (kTls)
            return std::make_unique<Socket>(hint);
        else if constexpr (kQueued)
            return std::make_unique<Socket>(hint, bSingle);
        else
            return std::make_unique<Socket>(profile(), profile(), hint, bSingle);
    }

    virtual std::pair<QString, quint16> target() { return {m_random.pick(m_talk.hosts), m_talk.nPort}; }
    virtual void checkConnected() { }
    virtual void checkEnd(int code, bool)
    {
        m_world.expect(
            code == 0 || !m_talk.isFine() || code == kHostNotFound, "error %d without a reason", code);
        const Stream* in = m_in.pStream;
        if (code != 0 || in == nullptr || (in->bCut && !in->bBroken))
            return;
        if constexpr (kMessages) // the peer's handler may run still
            m_world.expect(
                m_talk.weather.mayReset() || m_talk.weather.mayFail(), "an end, and the peer is there");
        else
            m_world.expect(in->bEnded && m_in.isComplete(), "stream %u, %s, ends after %lld of %lld bytes",
                in->nId, in->bEnded ? "ended" : "not ended", m_in.nReceived, in->nSent);
    }

    virtual void other() { send(); } // that a handler may do

    void checkSignal(const char* name, Tcp::STATE state)
    {
        m_world.expect(QThread::currentThreadId() == m_thread, "%s() comes on another thread", name);
        m_world.expect(m_bActive, "%s() comes after the connection's end", name);
        if constexpr (!kMessages)
            m_world.expect(m_pSocket->getState() == state, "%s() comes in state %d", name,
                static_cast<int>(m_pSocket->getState()));
    }
    void stall()
    {
        m_pSocket->stallRecv();
        m_nAfterStall = 0;
        m_stallEnds.start(static_cast<int>(m_random.size(m_talk.nLongestStallMs)));
    }
    // Small ones in crowds, large ones alone.
    void send()
    {
        const bool bCrowd = m_random.chance(0.2);
        for (std::uint64_t left = m_random.size(bCrowd ? 100 : 4); left > 0; --left)
            sendOne(static_cast<int>(bCrowd ? m_random.below(30) : m_random.size(m_talk.nLargest)));
    }

    std::unique_ptr<Socket> m_pSocket;
    int m_nHint = 0;

private:
    void connectSignals()
    {
        const auto on
            = [this](auto signal, auto handler) { QObject::connect(m_pSocket.get(), signal, handler); };
        const auto receive = [this](const char* data, int size) { received(data, size); };
        on(&Socket::connected, [this] { connected(); });
        on(&Socket::error, [this](int code) { ended(code, false); });
        if constexpr (kTls)
            on(&Socket::disconnected, [this](unsigned long how) {
                m_world.expect(how <= 1, "disconnected(%lu)", how);
                ended(0, how == 0);
            });
        else
            on(&Socket::disconnected, [this] { ended(0, true); });
        on(&Socket::sigCanSend, [this] {
            checkSignal("sigCanSend", Tcp::eConnected);
            m_world.expect(m_pSocket->canSend(), "sigCanSend() comes, and nothing can be sent");
            m_bRefused = false;
            act();
        });
        if constexpr (kMessages) {
            on(&Socket::incomingBuffer, receive);
        } else {
            on(&Socket::dataReceived, receive);
            on(&Socket::sigAllSent, [this] {
                checkSignal("sigAllSent", Tcp::eConnected);
                m_world.expect(std::exchange(m_bAllSentDue, false), "sigAllSent() comes unasked");
                if constexpr (kQueued)
                    m_world.expect(
                        m_pSocket->isDynamicDataQueueEmpty(), "sigAllSent() comes before all is sent");
                act();
            });
        }
    }

    void begin()
    {
        if (!m_pSocket) {
            m_pSocket = make();
            if constexpr (kQueued)
                m_pSocket->setSendLimit(m_nHint % 3 == 0 ? m_nHint * 7 : 0); // 0 in most
            connectSignals();
        }
        ++m_nSession;
        m_nBegin = m_world.nowMs();
        m_bActive = true;
        m_bConnected = m_bReading = false;
        m_pOut = &m_talk.streams.make();
        m_in = {};
        resume();
    }

    void connected()
    {
        checkSignal("connected", Tcp::eConnected);
        m_world.expect(
            (m_bOutgoing || kTls) && !std::exchange(m_bConnected, true), "connected() comes again");
        checkConnected();
        send();
        act();
    }

    void received(const char* data, int size)
    {
        checkSignal("dataReceived", Tcp::eConnected);
        m_world.expect(m_bConnected && (size > 0 || kMessages), "%d bytes before connected(), or none", size);
        m_world.expect(!std::exchange(m_bReading, kTls || kMessages), "dataReceived() nests");
        m_world.expect(m_nAfterStall < 0 || ++m_nAfterStall <= m_nPosted,
            "more is delivered than the receives that were posted");
        m_in.read(m_world, m_talk.streams, data, size);
        if constexpr (kMessages)
            m_in.readMessage(m_world, size);
        const int session = m_nSession;
        const QByteArray copy(data, size);
        act();
        m_world.expect(copy == QByteArray::fromRawData(data, size),
            "%d received bytes change while their handler runs", size);
        if (session == m_nSession)
            m_bReading = false;
    }

    void ended(int code, bool bAnnounced)
    {
        const bool bWasConnected = m_bConnected;
        checkSignal(code == 0 ? "disconnected" : "error", code == 0 ? Tcp::eUnconnected : Tcp::eError);
        m_world.expect(!m_bReading, "the end comes while a handler of received bytes runs");
        m_world.expect(code != 0 || bWasConnected, "disconnected() comes before connected()");
        checkEnd(code, bAnnounced);
        over(0);
        m_pOut->bBroken = !kMessages && code != 0 && bWasConnected && !m_talk.weather.mayFail();
        if (code != 0)
            m_pSocket->close();
        act();
    }

    bool mustTake() const
    {
        if constexpr (kTls)
            return m_talk.bCalm && m_talk.isFine();
        else if constexpr (kQueued)
            return !m_bReading && !m_pSocket->isSendLimitReached(); // reading, an end may not be told yet
        else
            return !m_bReading && m_pSocket->canSend();
    }

    void sendOne(int size)
    {
        if (!m_bConnected || m_pOut->bEnded || m_talk.nSent > m_talk.nMostSent || (kMessages && m_bRefused))
            return;
        const QByteArray bytes = m_pOut->next(std::max<int>(size, !kMessages) + (m_pOut->nSent == 0 ? 4 : 0));
        const bool bMust = mustTake();
        bool bTaken = false;
        m_pOut->nSent += bytes.size(); // they may be received at once
        m_pOut->sizes.push_back(bytes.size());
        if constexpr (kMessages)
            bTaken = m_pSocket->sendBuffer(bytes.constData(), bytes.size());
        else
            bTaken = m_pSocket->sendData(bytes.constData(), bytes.size());
        m_talk.nSent += bytes.size();
        m_world.expect(bTaken || !bMust, "bytes are refused though they can be sent");
        if (!bTaken) {
            m_pOut->nSent -= bytes.size();
            m_pOut->sizes.pop_back();
        }
        if constexpr (kTls)
            m_bRefused = bTaken && !m_pSocket->canSend();
        else if constexpr (kQueued)
            m_bRefused = m_bRefused || m_pSocket->isSendLimitReached(); // others only when one ends
        else
            m_bRefused = m_bRefused || !bTaken;
    }

    void sendEnd()
    {
        if (kMessages || !m_bConnected || std::exchange(m_pOut->bEnded, true))
            return;
        if constexpr (std::is_same_v<Socket, Tcp>) {
            m_world.expect(m_pSocket->sendEndOfData(), "the end of data is refused");
        } else if constexpr (kTls) {
            m_pSocket->sendEndOfData();
            m_bRefused = false; // TCP may be ended already, and nothing can be sent any more
            m_world.expect(!m_pSocket->sendData("", 0), "bytes are taken behind the end");
        } else if constexpr (!kMessages) {
            m_pSocket->finishSending();
        }
    }

    void close()
    {
        over(1);
        m_pSocket->close();
        if constexpr (kMessages)
            m_world.expect(!m_pSocket->sendBuffer("late", 4), "a message is taken behind the end");
        else
            m_world.expect(m_pSocket->getState() == Tcp::eUnconnected, "closed, and not so");
    }

    void destroy()
    {
        if (m_bActive)
            m_random.chance(0.5) ? close() : over(1);
        if (!m_random.chance(0.5))
            return m_pSocket.reset();
        m_pSocket->disconnect(); // until the loop deletes it, it may say something
        m_pSocket.release()->deleteLater();
    }
};

// --- the run ---------------------------------------------------------------------------------------------

using MakeSide = std::function<std::unique_ptr<Side>()>;

// A descriptor, too, may be let go.
inline quint16 listen(Talk& talk, NuvikaTcpServer& server, const MakeSide& make)
{
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&talk, make](int descriptor) {
        if (!talk.bCalm && !talk.bFinishing && talk.random.chance(0.03)) {
            ++talk.nCuts;
            ::close(descriptor);
            return;
        }
        talk.own.push_back(make());
        talk.own.back()->accept(descriptor);
    });
    talk.world.expect(server.listen(QHostAddress(QHostAddress::LocalHost), 0), "the server does not listen");
    return server.serverPort();
}

inline void talkAWhile(Talk& talk, const MakeSide& make, const std::function<void()>& pause)
{
    const auto isDone = [](const auto& side) { return !side->isActive() && !side->isOutgoing(); };
    talk.world.weather() = talk.weather;
    for (std::uint64_t left = talk.random.size(8); left > 0; --left) {
        talk.own.push_back(make());
        talk.own.back()->connectOut();
        talk.world.run(talk.random.below(20));
    }
    for (std::uint64_t left = talk.random.size(60); left > 0; --left) {
        talk.own.erase(std::remove_if(talk.own.begin(), talk.own.end(), isDone), talk.own.end());
        Side& side = *talk.random.pick(talk.own);
        if (!side.isActive() && side.isOutgoing() && talk.random.chance(0.7))
            side.connectOut();
        else
            side.act();
        pause();
    }
}

inline void waitUntilNone(Talk& talk, const char* what, bool (Side::*so)() const)
{
    const auto none = [&] { return std::none_of(talk.sides.begin(), talk.sides.end(), std::mem_fn(so)); };
    talk.world.runUntil(none, 900000);
    for (const Side* side : talk.sides)
        talk.world.expect(!(side->*so)(), "%s: %s", what, side->text().c_str());
}

// In fine weather everything that was taken arrives, and every connection ends.
inline void finish(Talk& talk, double acceptedToo)
{
    talk.bFinishing = true;
    talk.world.weather() = Weather();
    for (std::size_t i = 0; i < talk.own.size(); ++i)
        talk.own[i]->resume();
    waitUntilNone(talk, "waits in vain", &Side::waits);
    talk.world.run(20000); // first bytes, too
    for (std::size_t i = 0; i < talk.own.size(); ++i) {
        if (talk.own[i]->isOutgoing() || talk.random.chance(acceptedToo))
            talk.own[i]->finish();
    }
    waitUntilNone(talk, "does not end", &Side::isActive);
    talk.own.clear();
}
} // namespace sim
