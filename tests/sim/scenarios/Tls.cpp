// TLS sockets at both ends, with somebody in between who cuts, silences and changes what they say, callers
// and servers that never finish a handshake, certificates that expire, and handlers that do what they like.
#include "sim/scenarios/Bytes.h"

#include "support/Certificates.h"

#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QDateTime>
#include <QtCore/QTimer>

#include <array>
#include <map>
#include <memory>
#include <vector>

namespace
{
using Ssl = NuvikaSslSocket;
constexpr const char* kRelay = "10.0.0.9"; // the ports of the sites, by way of somebody
constexpr const char* kLiar = "10.0.0.8";
constexpr quint16 kLiarPort = 443;
constexpr int kHandshakeTimeout = 5;
constexpr qint64 kMostSent = 2 << 20; // bytes of a run
constexpr quint64 kHandshakeMs = 10000;
constexpr quint64 kSlackMs = 2500; // half a second until the timer looks, and what others do meanwhile
constexpr quint64 kResumableMs = 7200000;

// A server with a certificate of its own.
struct Site {
    enum Kind { eGood, eForeign, eSelfSigned, eExpiring, eEarly, eAsks, eKinds };
    Kind kind = eGood;
    QString certificate;
    qint64 nFrom = 0; // valid, in seconds of the wall clock
    qint64 nUntil = 0;
    std::unique_ptr<NuvikaTcpServer> pServer;
    quint16 port() const { return pServer->serverPort(); }
};

class End;

struct Talk {
    Talk(sim::World& w, const sim::Weather& bad)
        : world(w), weather(bad), bCalm(w.random().chance(0.3)),
          bFine(!bad.mayReset() && !bad.mayFail() && bad.refuse == 0 && bad.lose == 0)
    {
    }
    // Nobody cuts a connection or changes its bytes: it lives until both ends have announced their end.
    bool isSafe() const { return bCalm && bFine; }

    sim::World& world;
    const sim::Weather weather; // while it is bad
    const bool bCalm; // handlers end nothing, and nobody is in between
    const bool bFine;
    Certificates certificates;
    std::vector<std::unique_ptr<Site>> sites;
    sim::Streams streams;
    std::vector<std::unique_ptr<End>> ends;
    std::vector<sim::Peer*> silent; // who will never say any more
    std::map<QString, quint64> verified; // when a server was, in a full handshake, by who and how
    int nDepth = 0;
    qint64 nSent = 0;
    bool bFinishing = false; // handlers do nothing of their own any more
};

class End
{
public:
    End(Talk& talk, Site* site) : m_talk(talk), m_pSite(site)
    {
        m_stallEnds.setSingleShot(true);
        QObject::connect(&m_stallEnds, &QTimer::timeout, [this] { resume(); });
        makeSocket();
    }

    void connectOut();
    void accept(int descriptor);
    void act(); // something at random
    void resume();
    void finish();
    bool isActive() const { return m_bActive; }
    bool isServer() const { return m_pSite != nullptr; }
    bool waits() const { return m_bActive && (!m_bConnected || m_bRefused || m_bAllSentDue || m_in.isDue()); }
    void checkTime() const;
    std::string text() const
    {
        return std::string(isServer() ? "server's" : "client's") + " stream " + std::to_string(m_pOut->nId)
            + (m_bConnected ? "" : " unconnected") + (m_bRefused ? " cannot send" : "")
            + (m_bAllSentDue ? " not all sent" : "") + ", received " + std::to_string(m_in.nReceived) + " of "
            + std::to_string(m_in.pStream == nullptr ? 0 : m_in.pStream->nSent);
    }

private:
    sim::Random& random() { return m_talk.world.random(); }
    void makeSocket();
    void configure();
    void chooseSite();
    void begin();
    void over();
    void close();
    void send();
    void sendEnd();
    void stall();
    void destroy();
    void checkSignal(const char* name, NuvikaTcpSocket::STATE state);
    bool mayTrust(qint64 time) const;
    void connected();
    void received(const char* data, int size);
    void ended(int code, bool bAnnounced);
    void checkError(int code);

    Talk& m_talk;
    Site* m_pSite; // of a server
    Site* m_pAsked = nullptr; // by a client; null: a liar
    Ssl::SslVerifyCertificateMode m_mode = Ssl::eVerifyChainAndHost;
    bool m_bCertified = false; // a client with a certificate
    QString m_host;
    const bool m_bLoyal = m_talk.world.random().chance(0.5); // to the first site
    QString m_how; // all on which resuming depends
    std::unique_ptr<Ssl> m_pSocket;
    QTimer m_stallEnds;
    int m_nSession = 0;
    quint64 m_nBegin = 0; // of the session, or of a server's handshake
    bool m_bActive = false;
    bool m_bConnected = false;
    bool m_bReading = false; // a handler of dataReceived() is on the stack
    bool m_bRefused = false; // canSend() said no
    bool m_bAllSentDue = false;
    sim::Stream* m_pOut = nullptr;
    sim::Reception m_in;
};

// --- making and beginning --------------------------------------------------------------------------------

void End::makeSocket()
{
    m_pSocket = std::make_unique<Ssl>(random().chance(0.5) ? 0 : static_cast<int>(random().size(200000)));
    configure();
    Ssl* socket = m_pSocket.get();
    QObject::connect(socket, &Ssl::connected, [this] { connected(); });
    QObject::connect(
        socket, &Ssl::dataReceived, [this](const char* data, int size) { received(data, size); });
    QObject::connect(socket, &Ssl::disconnected, [this](unsigned long how) {
        m_talk.world.expect(how <= 1, "disconnected(%lu)", how);
        ended(0, how == 0);
    });
    QObject::connect(socket, &Ssl::error, [this](int code) { ended(code, false); });
    QObject::connect(socket, &Ssl::sigCanSend, [this] {
        checkSignal("sigCanSend", NuvikaTcpSocket::eConnected);
        m_talk.world.expect(m_pSocket->canSend(), "sigCanSend() comes, and nothing can be sent");
        m_bRefused = false;
        act();
    });
    QObject::connect(socket, &Ssl::sigAllSent, [this] {
        checkSignal("sigAllSent", NuvikaTcpSocket::eConnected);
        m_talk.world.expect(std::exchange(m_bAllSentDue, false), "sigAllSent() comes unasked");
        act();
    });
}

void End::configure()
{
    static constexpr std::array<Ssl::SslProtocol, 3> kProtocols{Ssl::eSslAny12, Ssl::eTls12, Ssl::eTls13};
    const Ssl::SslProtocol protocol = isServer() ? Ssl::eSslAny12 : random().pick(kProtocols);
    m_mode = isServer() && m_pSite->kind != Site::eAsks
        ? Ssl::eVerifyNone
        : static_cast<Ssl::SslVerifyCertificateMode>(
            random().below(isServer() ? 2 : 3) + (isServer() ? 1 : 0));
    m_bCertified = random().chance(0.5);
    const QString own = isServer() ? m_pSite->certificate
        : m_bCertified             ? m_talk.sites.front()->certificate
                                   : QString();
    m_pSocket->setCertificateVerificationMode(m_mode);
    m_talk.world.expect(
        m_pSocket->initSsl(isServer(), protocol, own, m_talk.certificates.authority(), QString()),
        "initSsl() fails: %s", qUtf8Printable(m_pSocket->errorString()));
    m_how = QStringLiteral("%1 %2 %3 ").arg(m_mode).arg(protocol).arg(m_bCertified);
}

void End::begin()
{
    ++m_nSession;
    m_nBegin = m_talk.world.nowMs();
    m_bActive = true;
    m_bConnected = m_bReading = false;
    m_pOut = &m_talk.streams.make();
    m_in = {};
    m_pSocket->resumeRecv();
}

void End::chooseSite()
{
    m_pAsked = m_talk.bCalm || !random().chance(0.05) ? random().pick(m_talk.sites).get() : nullptr;
    m_host = random().chance(0.5) ? QStringLiteral("here") : QStringLiteral("127.0.0.1");
    if (!m_talk.bCalm && random().chance(0.4))
        m_host = QString::fromLatin1(kRelay);
    if (m_pAsked == nullptr)
        m_host = QString::fromLatin1(kLiar);
}

void End::connectOut()
{
    if (!m_pSocket)
        makeSocket();
    else if (!m_bLoyal && random().chance(0.2))
        configure();
    begin();
    if (!m_bLoyal || m_host.isEmpty())
        chooseSite();
    const quint16 port = m_pAsked == nullptr ? kLiarPort : m_pAsked->port();
    m_how = m_how.section(QLatin1Char(' '), 0, 2) + QStringLiteral(" %1:%2").arg(m_host).arg(port);
    if (random().chance(0.5) || m_host == QLatin1String("here"))
        m_pSocket->connectToHost(m_host, port);
    else
        m_pSocket->connectToHost(QHostAddress(m_host), port);
    m_talk.world.expect(m_pSocket->getState() == NuvikaTcpSocket::eConnecting, "it does not connect");
}

void End::accept(int descriptor)
{
    begin();
    m_pSocket->setSocketDescriptor(descriptor);
}

// --- signals ---------------------------------------------------------------------------------------------

void End::checkSignal(const char* name, NuvikaTcpSocket::STATE state)
{
    m_talk.world.expect(m_bActive, "%s() comes after the connection's end", name);
    m_talk.world.expect(m_pSocket->getState() == state, "%s() comes in state %d", name,
        static_cast<int>(m_pSocket->getState()));
}

// A client, at that time of the wall clock.
bool End::mayTrust(qint64 time) const
{
    if (m_mode == Ssl::eVerifyNone)
        return true;
    if (m_pAsked == nullptr || m_pAsked->kind == Site::eSelfSigned || time < m_pAsked->nFrom
        || time > m_pAsked->nUntil)
        return false;
    return m_mode == Ssl::eVerifyChain || m_pAsked->kind != Site::eForeign;
}

qint64 wallSeconds() { return QDateTime::currentSecsSinceEpoch(); }

void End::connected()
{
    sim::World& world = m_talk.world;
    checkSignal("connected", NuvikaTcpSocket::eConnected);
    world.expect(!std::exchange(m_bConnected, true), "connected() comes a second time");
    checkTime();
    world.expect(m_pSocket->protocolName().startsWith(QLatin1String("TLSv1.")), "which protocol?");
    const quint64 now = world.nowMs();
    if (!isServer() && m_pSocket->isSessionResumed()) {
        const auto verified = m_talk.verified.find(m_how);
        world.expect(verified != m_talk.verified.end(), "a session is resumed that never was");
        world.expect(now - verified->second <= kResumableMs + kHandshakeMs + kSlackMs,
            "resumed %llu ms after the peer's verification",
            static_cast<unsigned long long>(now - verified->second));
    } else if (!isServer()) {
        const qint64 lasted = static_cast<qint64>(now - m_nBegin) / 1000 + 1;
        world.expect(mayTrust(wallSeconds()) || mayTrust(wallSeconds() - lasted),
            "connected with a certificate that is not to be trusted");
        m_talk.verified[m_how] = now;
    }
    if (m_bLoyal && !m_talk.bFinishing && random().chance(0.2)) // before there is a ticket
        stall();
    send();
    act();
}

void End::received(const char* data, int size)
{
    sim::World& world = m_talk.world;
    checkSignal("dataReceived", NuvikaTcpSocket::eConnected);
    world.expect(m_bConnected, "dataReceived() comes before connected()");
    world.expect(!std::exchange(m_bReading, true), "dataReceived() nests");
    m_in.read(world, m_talk.streams, data, size);
    const int session = m_nSession;
    sim::expectKept(world, data, size, [this] { act(); });
    if (session == m_nSession)
        m_bReading = false;
}

void End::ended(int code, bool bAnnounced)
{
    sim::World& world = m_talk.world;
    const char* name = code == 0 ? "disconnected" : "error";
    checkSignal(name, code == 0 ? NuvikaTcpSocket::eUnconnected : NuvikaTcpSocket::eError);
    world.expect(!m_bReading, "%s() comes while a handler of dataReceived() runs", name);
    world.expect(code != 0 || m_bConnected, "disconnected() comes before connected()");
    checkTime();
    if (bAnnounced && m_in.pStream != nullptr) {
        const sim::Stream& in = *m_in.pStream;
        world.expect(in.bEnded || in.bCut, "stream %u was not ended", in.nId);
        world.expect(
            m_in.isComplete(), "stream %u ends after %lld of %lld bytes", in.nId, m_in.nReceived, in.nSent);
    }
    // Who says the end first may find that the other's close_notify waits behind too much; and the alert that
    // refuses a client's certificate does not wait for room.
    const bool bRefused
        = !isServer() && m_pAsked != nullptr && m_pAsked->kind == Site::eAsks && m_talk.weather.squeeze > 0;
    world.expect(code != 0 || bAnnounced || bRefused || !m_talk.isSafe() || m_pOut->bEnded,
        "an end without close_notify");
    checkError(code);
    over();
    if (code != 0)
        m_pSocket->close();
    act();
}

void End::checkError(int code)
{
    sim::World& world = m_talk.world;
    const quint64 lasted = world.nowMs() - m_nBegin;
    if (code == kHandshakeTimeout)
        world.expect(lasted >= kHandshakeMs, "the handshake times out after %llu ms",
            static_cast<unsigned long long>(lasted));
    if (!m_talk.isSafe() || code == 0)
        return;
    // A refused peer hears of it, behind its own connected() where TLS 1.3 lets that be.
    const bool bTrusted = isServer() ? m_pSite->kind == Site::eGood
                                     : m_pAsked->kind != Site::eAsks && mayTrust(wallSeconds());
    const bool bLate = !isServer() && lasted > kHandshakeMs; // the certificate may have changed
    world.expect(isServer() || !bTrusted || bLate || code == kHandshakeTimeout,
        "error %d (%s) without a reason", code, qUtf8Printable(m_pSocket->errorString()));
}

// A handshake has 10 seconds.
void End::checkTime() const
{
    const quint64 lasted = m_talk.world.nowMs() - m_nBegin;
    const bool bLate = m_bActive && isServer() && !m_bConnected && lasted > kHandshakeMs + kSlackMs;
    m_talk.world.expect(!bLate, "a handshake lasts %llu ms", static_cast<unsigned long long>(lasted));
}

// --- what is done ----------------------------------------------------------------------------------------

void End::over()
{
    m_bActive = m_bConnected = m_bReading = m_bRefused = m_bAllSentDue = false;
    m_pOut->bCut = true;
}

void End::close()
{
    over();
    m_pSocket->close();
    m_talk.world.expect(m_pSocket->getState() == NuvikaTcpSocket::eUnconnected, "closed, and not so");
}

void End::resume()
{
    if (m_pSocket)
        m_pSocket->resumeRecv();
}

void End::finish()
{
    if (m_bConnected)
        sendEnd();
    else
        close();
}

void End::send()
{
    if (!m_bConnected || m_pOut->bEnded || m_talk.nSent > kMostSent)
        return;
    const QByteArray bytes
        = m_pOut->next(static_cast<int>(random().size(200000)) + (m_pOut->nSent == 0 ? 4 : 0));
    const bool bTaken = m_pSocket->sendData(bytes.constData(), bytes.size());
    m_talk.world.expect(bTaken || !m_talk.bFine || !m_talk.bCalm, "bytes are refused");
    m_pOut->nSent += bTaken ? bytes.size() : 0;
    m_talk.nSent += bytes.size();
    m_bRefused = bTaken && !m_pSocket->canSend();
}

void End::sendEnd()
{
    if (!m_bConnected || std::exchange(m_pOut->bEnded, true))
        return;
    m_pSocket->sendEndOfData();
    m_bRefused = false; // TCP may be ended already, and nothing can be sent any more
    m_talk.world.expect(!m_pSocket->sendData("", 0), "bytes are taken behind the end");
}

void End::stall()
{
    m_pSocket->stallRecv();
    m_stallEnds.start(
        static_cast<int>(random().chance(0.3) ? random().below(3 * 3600000) : random().size(20000)));
}

void End::destroy()
{
    if (m_bActive)
        over();
    m_pSocket->disconnect(); // one that lives on until the loop deletes it may say something
    if (random().chance(0.5))
        m_pSocket.release()->deleteLater();
    else
        m_pSocket.reset();
}

void End::act()
{
    if (m_talk.bFinishing || !m_pSocket || random().chance(0.4))
        return;
    switch (random().below(m_talk.bCalm ? 16 : 20)) {
    case 0:
    case 1:
        sim::runNestedLoop(m_talk.world, m_talk.nDepth);
        break;
    case 2:
    case 3:
        if (m_bConnected)
            stall();
        break;
    case 4:
        m_talk.world.work(random().size(5000));
        break;
    case 5:
        if (m_bConnected && m_pSocket->notifyWhenAllSent())
            m_bAllSentDue = true;
        break;
    case 16:
        if (m_bActive)
            close();
        break;
    case 17:
        destroy();
        break;
    case 18: // at once again
        if (!isServer() && m_bActive)
            close();
        if (!isServer())
            connectOut();
        break;
    case 19:
        sendEnd();
        break;
    default:
        send();
    }
}

// --- the others ------------------------------------------------------------------------------------------

// Between a client and a site, and no friend of either.
struct Relay {
    sim::Peer* pClient = nullptr;
    sim::Peer* pServer = nullptr;
    std::uint64_t nLeft = ~std::uint64_t{0}; // bytes until it does so:
    int nDeed = 0;
    bool bSilent = false;

    void forward(Talk& talk, sim::Peer* from, sim::Peer* to, QByteArray bytes)
    {
        if (bSilent)
            return;
        if (talk.bFinishing || nLeft > static_cast<std::uint64_t>(bytes.size())) {
            nLeft -= static_cast<std::uint64_t>(bytes.size());
            to->write(bytes);
            return;
        }
        const auto place = static_cast<int>(nLeft) - 1;
        nLeft = ~std::uint64_t{0};
        if (nDeed == 0) {
            bytes[place] = static_cast<char>(bytes[place] ^ 0x10);
            to->write(bytes);
            return;
        }
        bSilent = true;
        to->write(bytes.left(place));
        if (nDeed == 1) {
            to->close();
            from->close();
        } else if (nDeed == 2) {
            to->reset();
            from->reset();
        } else {
            talk.silent.push_back(to);
            talk.silent.push_back(from);
        }
    }
};

void relay(Talk& talk, sim::Peer& client, quint16 port)
{
    const auto relay = std::make_shared<Relay>();
    relay->pClient = &client;
    relay->pServer = &talk.world.dial("127.0.0.1", port, [&](sim::Peer& server) {
        server.onBytes = [&talk, relay](const QByteArray& b) {
            relay->forward(talk, relay->pServer, relay->pClient, b);
        };
        server.onEnd = [relay] { relay->pClient->end(); };
        server.onFailure = [relay](int) { relay->pClient->reset(); };
    });
    client.onBytes
        = [&talk, relay](const QByteArray& b) { relay->forward(talk, relay->pClient, relay->pServer, b); };
    client.onEnd = [relay] { relay->pServer->end(); };
    client.onFailure = [relay](int) { relay->pServer->reset(); };
    if (talk.world.random().chance(0.5)) {
        relay->nDeed = static_cast<int>(talk.world.random().below(4));
        relay->nLeft = talk.world.random().size(100000);
    }
}

// Something like the beginning of TLS, or not, and then nothing, or the end.
void lie(Talk& talk, sim::Peer& peer)
{
    auto& random = talk.world.random();
    QByteArray bytes
        = random.chance(0.5) ? QByteArray("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) : QByteArray();
    for (std::uint64_t left = random.below(random.chance(0.5) ? 600 : 2); left > 0; --left)
        bytes.append(static_cast<char>(random.next()));
    peer.write(bytes);
    const std::uint64_t deed = random.below(3);
    if (deed == 0)
        peer.end();
    else if (deed == 1)
        talk.silent.push_back(&peer);
    else
        talk.world.after(random.below(1000), [weak = peer.weak_from_this()] {
            if (const auto liar = weak.lock())
                liar->reset();
        });
}

void makeSite(Talk& talk, Site::Kind kind)
{
    talk.sites.push_back(std::make_unique<Site>());
    Site& site = *talk.sites.back();
    site.kind = kind;
    const QString hosts = kind == Site::eForeign ? QStringLiteral("DNS:there,IP:10.0.0.7")
                                                 : QStringLiteral("DNS:here,IP:127.0.0.1,IP:10.0.0.9");
    const int from = kind == Site::eEarly ? 1 : -1;
    const int until = kind == Site::eExpiring ? 1 : 90;
    site.certificate
        = talk.certificates.issue({QStringLiteral("site"), hosts, from, until, kind == Site::eSelfSigned});
    site.nFrom = wallSeconds() + 86400 * from;
    site.nUntil = wallSeconds() + 86400 * until;
    site.pServer = std::make_unique<NuvikaTcpServer>();
    QObject::connect(site.pServer.get(), &NuvikaTcpServer::newConnectionDesc, [&talk, &site](int descriptor) {
        talk.ends.push_back(std::make_unique<End>(talk, &site));
        talk.ends.back()->accept(descriptor);
    });
    talk.world.expect(site.pServer->listen(QHostAddress(QHostAddress::LocalHost), 0), "no server");
    const quint16 port = site.port();
    talk.world.listen(kRelay, port, [&talk, port](sim::Peer& client) { relay(talk, client, port); });
}

void talkAWhile(Talk& talk)
{
    auto& random = talk.world.random();
    for (std::uint64_t left = random.size(8); left > 0; --left) {
        talk.ends.push_back(std::make_unique<End>(talk, nullptr));
        talk.ends.back()->connectOut();
    }
    for (std::uint64_t left = random.size(60); left > 0; --left) {
        End& end = *random.pick(talk.ends);
        if (!end.isActive() && !end.isServer() && random.chance(0.7))
            end.connectOut();
        else
            end.act();
        if (!talk.bCalm && random.chance(0.05))
            talk.world.dial(
                "127.0.0.1", random.pick(talk.sites)->port(), [&](sim::Peer& peer) { lie(talk, peer); });
        talk.world.run(random.chance(0.2) ? random.below(2 * 3600000) : random.size(1000));
        if (random.chance(0.02))
            talk.world.run(random.below(36 * 3600000));
        for (std::size_t i = 0; i < talk.ends.size(); ++i)
            talk.ends[i]->checkTime();
    }
}

template <class Condition>
bool anyEnd(const Talk& talk, Condition condition)
{
    return std::any_of(talk.ends.begin(), talk.ends.end(), [&](const auto& end) { return condition(*end); });
}

// In fine weather everything that was taken arrives, and every connection ends.
void finish(Talk& talk)
{
    talk.bFinishing = true;
    talk.world.weather() = sim::Weather();
    for (sim::Peer* peer : talk.silent)
        peer->reset();
    for (std::size_t i = 0; i < talk.ends.size(); ++i)
        talk.ends[i]->resume();
    talk.world.runUntil([&] { return !anyEnd(talk, [](const End& end) { return end.waits(); }); }, 300000);
    for (const auto& end : talk.ends)
        talk.world.expect(!end->waits(), "waits in vain: %s", end->text().c_str());
    talk.world.run(20000); // first bytes, too
    for (std::size_t i = 0; i < talk.ends.size(); ++i) {
        if (talk.ends[i]->isActive() && !talk.ends[i]->isServer())
            talk.ends[i]->finish();
    }
    talk.world.runUntil([&] { return !anyEnd(talk, [](const End& end) { return end.isActive(); }); }, 200000);
    for (const auto& end : talk.ends)
        talk.world.expect(!end->isActive(), "does not end: %s", end->text().c_str());
}
} // namespace

SCENARIO(tls)
{
    const sim::Weather weather = world.weather();
    world.weather() = sim::Weather();
    Talk talk(world, weather);
    world.setName("here", {"127.0.0.1"});
    makeSite(talk, Site::eGood);
    for (int i = 0; i < 2; ++i)
        makeSite(talk, static_cast<Site::Kind>(world.random().below(Site::eKinds)));
    world.listen(kLiar, kLiarPort, [&talk](sim::Peer& peer) { lie(talk, peer); });
    world.weather() = weather;
    talkAWhile(talk);
    finish(talk);
    talk.ends.clear();
    talk.sites.clear();
}
