// TLS sockets at both ends, with somebody in between who cuts, silences and changes what they say, callers
// and servers that never finish a handshake, certificates that expire, and handlers that do what they like.
#include "sim/scenarios/Sides.h"

#include "support/Certificates.h"

#include <QtCore/QDateTime>

#include <array>
#include <map>

namespace
{
using Ssl = NuvikaSslSocket;
constexpr const char* kRelay = "10.0.0.9"; // the ports of the sites, by way of somebody
constexpr const char* kLiar = "10.0.0.8";
constexpr quint16 kLiarPort = 443;
constexpr int kHandshakeTimeout = 5;
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
    NuvikaTcpServer server;
    quint16 port() const { return server.serverPort(); }
};

struct TlsTalk : sim::Talk {
    explicit TlsTalk(sim::World& w) : Talk(w, 2 << 20, 200000) { nLongestStallMs = 3 * 3600000; }
    // Nobody cuts a connection or changes its bytes: it lives until both ends have announced their end.
    bool isSafe() const { return bCalm && isFine(); }

    Certificates certificates;
    std::vector<std::unique_ptr<Site>> sites;
    std::vector<sim::Peer*> silent; // who will never say any more
    std::map<QString, quint64> verified; // when a server was, in a full handshake, by who and how
};

class TlsSide : public sim::SideOf<Ssl>
{
public:
    TlsSide(TlsTalk& talk, Site* site) : SideOf(talk), m_tls(talk), m_pSite(site) { }
    void checkTime() const; // a handshake has 10 seconds

private:
    std::unique_ptr<Ssl> make() override
    {
        auto socket = SideOf::make();
        configure(*socket);
        return socket;
    }
    std::pair<QString, quint16> target() override;
    void checkConnected() override;
    void checkEnd(int code, bool bAnnounced) override;
    bool isServer() const { return m_pSite != nullptr; }
    void configure(Ssl& socket);
    bool mayTrust(qint64 since) const;

    TlsTalk& m_tls;
    Site* m_pSite; // of a server
    Site* m_pAsked = nullptr; // by a client; null: a liar
    Ssl::SslVerifyCertificateMode m_mode = Ssl::eVerifyChainAndHost;
    QString m_host;
    const bool m_bLoyal = m_random.chance(0.7); // to the first site
    QString m_how; // all on which resuming depends
};

void TlsSide::configure(Ssl& socket)
{
    static constexpr std::array<Ssl::SslProtocol, 2> kProtocols{Ssl::eTls12, Ssl::eSslAny12};
    const auto protocol = isServer() ? Ssl::eSslAny12 : m_random.pick(kProtocols);
    const auto mode
        = isServer() ? (m_pSite->kind == Site::eAsks ? m_random.between(1, 2) : 0) : m_random.below(3);
    m_mode = static_cast<Ssl::SslVerifyCertificateMode>(mode);
    const bool bCertified = isServer() || m_random.chance(0.5);
    const Site& site = isServer() ? *m_pSite : *m_tls.sites.front();
    socket.setCertificateVerificationMode(m_mode);
    m_world.expect(socket.initSsl(isServer(), protocol, bCertified ? site.certificate : QString(),
                       m_tls.certificates.authority(), QString()),
        "initSsl() fails: %s", qUtf8Printable(socket.errorString()));
    m_how = QStringLiteral("%1 %2 %3").arg(m_mode).arg(protocol).arg(bCertified);
}

std::pair<QString, quint16> TlsSide::target()
{
    if (!m_bLoyal && m_random.chance(0.2))
        configure(*m_pSocket);
    if (!m_bLoyal || m_host.isEmpty()) {
        m_pAsked = m_tls.bCalm || !m_random.chance(0.05) ? m_random.pick(m_tls.sites).get() : nullptr;
        m_host = m_random.chance(0.5) ? QStringLiteral("here") : QStringLiteral("127.0.0.1");
        if (m_pAsked == nullptr || (!m_tls.bCalm && m_random.chance(0.4)))
            m_host = QString::fromLatin1(m_pAsked == nullptr ? kLiar : kRelay);
    }
    return {m_host, m_pAsked == nullptr ? kLiarPort : m_pAsked->port()};
}

qint64 wallSeconds() { return QDateTime::currentSecsSinceEpoch(); }

// A client, at some time since then.
bool TlsSide::mayTrust(qint64 since) const
{
    if (m_mode == Ssl::eVerifyNone)
        return true;
    return m_pAsked != nullptr && m_pAsked->kind != Site::eSelfSigned && wallSeconds() >= m_pAsked->nFrom
        && since <= m_pAsked->nUntil && (m_mode == Ssl::eVerifyChain || m_pAsked->kind != Site::eForeign);
}

void TlsSide::checkConnected()
{
    checkTime();
    m_world.expect(m_pSocket->protocolName().startsWith(QLatin1String("TLSv1.")), "which protocol?");
    const quint64 now = m_world.nowMs();
    const QString how
        = m_how + QStringLiteral(" %1:%2").arg(m_host).arg(m_pAsked == nullptr ? 0 : m_pAsked->port());
    if (!isServer() && m_pSocket->isSessionResumed()) {
        const auto verified = m_tls.verified.find(how);
        m_world.expect(verified != m_tls.verified.end()
                && now - verified->second <= kResumableMs + kHandshakeMs + kSlackMs,
            "a session is resumed that never was, or long ago");
    } else if (!isServer()) {
        m_world.expect(mayTrust(wallSeconds() - static_cast<qint64>(now - m_nBegin) / 1000 - 1),
            "connected with a certificate that is not to be trusted");
        m_tls.verified[how] = now;
    }
    if (m_bLoyal && !m_tls.bFinishing && m_random.chance(0.2)) // before there is a ticket
        stall();
}

void TlsSide::checkEnd(int code, bool bAnnounced)
{
    checkTime();
    const sim::Stream* in = m_in.pStream;
    if (bAnnounced && in != nullptr)
        m_world.expect((in->bEnded || in->bCut) && m_in.isComplete(),
            "stream %u ends after %lld of %lld bytes", in->nId, m_in.nReceived, in->nSent);
    const quint64 lasted = m_world.nowMs() - m_nBegin;
    m_world.expect(code != kHandshakeTimeout || (!m_bConnected && lasted >= kHandshakeMs),
        "a handshake times out early, or is over");
    if (!m_tls.isSafe())
        return;
    // Who says the end first may find that the other's close_notify waits behind too much; and the alert that
    // refuses a client's certificate does not wait for room.
    const bool bAsks = !isServer() && m_pAsked->kind == Site::eAsks;
    m_world.expect(code != 0 || bAnnounced || (bAsks && m_tls.weather.squeeze > 0) || m_pOut->bEnded,
        "an end without close_notify");
    // A refused client hears of it, behind its own connected() where TLS 1.3 lets that be. And the
    // certificate may have changed meanwhile.
    const bool bReason = isServer() || bAsks || !mayTrust(wallSeconds()) || lasted > kHandshakeMs;
    m_world.expect(code == 0 || bReason || code == kHandshakeTimeout, "error %d (%s) without a reason", code,
        qUtf8Printable(m_pSocket->errorString()));
}

void TlsSide::checkTime() const
{
    const quint64 lasted = m_world.nowMs() - m_nBegin;
    m_world.expect(!m_bActive || !isServer() || m_bConnected || lasted <= kHandshakeMs + kSlackMs,
        "a handshake lasts %llu ms", static_cast<unsigned long long>(lasted));
}

// --- the others ------------------------------------------------------------------------------------------

// Between a client and a site, and no friend of either: sooner or later it changes a byte, or says nothing
// any more.
struct Relay : std::enable_shared_from_this<Relay> {
    explicit Relay(TlsTalk& t) : talk(t) { }

    void join(sim::Peer& from, sim::Peer& to)
    {
        from.onBytes
            = [me = shared_from_this(), &from, &to](const QByteArray& b) { me->forward(from, to, b); };
        from.onEnd = [&to] { to.end(); };
        from.onFailure = [&to](int) { to.reset(); };
    }
    void forward(sim::Peer& from, sim::Peer& to, QByteArray bytes)
    {
        const auto size = static_cast<std::uint64_t>(bytes.size());
        if (bSilent)
            return;
        if (talk.bFinishing || nLeft > size) {
            nLeft -= size;
            return to.write(bytes);
        }
        const auto place = static_cast<int>(std::exchange(nLeft, ~std::uint64_t{0})) - 1;
        bytes[place] = static_cast<char>(bytes[place] ^ 0x10);
        bSilent = nDeed > 0;
        to.write(bSilent ? bytes.left(place) : bytes);
        for (sim::Peer* peer : {&from, &to}) {
            if (nDeed == 1)
                peer->close();
            else if (nDeed == 2)
                peer->reset();
            else if (nDeed == 3)
                talk.silent.push_back(peer);
        }
    }

    TlsTalk& talk;
    std::uint64_t nLeft = talk.random.chance(0.5) ? ~std::uint64_t{0} : talk.random.size(100000);
    const std::uint64_t nDeed = talk.random.below(4);
    bool bSilent = false;
};

// Something like the beginning of TLS, or not, and then nothing, or the end.
void lie(TlsTalk& talk, sim::Peer& peer)
{
    QByteArray bytes("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", talk.random.chance(0.5) ? 11 : 0);
    for (std::uint64_t left = talk.random.below(talk.random.chance(0.5) ? 600 : 2); left > 0; --left)
        bytes.append(static_cast<char>(talk.random.next()));
    peer.write(bytes);
    if (talk.random.chance(0.5))
        peer.end();
    else
        talk.silent.push_back(&peer);
}

void makeSite(TlsTalk& talk, Site::Kind kind)
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
    const quint16 port
        = sim::listen(talk, site.server, [&] { return std::make_unique<TlsSide>(talk, &site); });
    talk.world.listen(kRelay, port, [&talk, port](sim::Peer& client) {
        const auto relay = std::make_shared<Relay>(talk);
        sim::Peer& server = talk.world.dial("127.0.0.1", port, [](sim::Peer&) {});
        relay->join(server, client);
        relay->join(client, server);
    });
}

void passTime(TlsTalk& talk)
{
    if (!talk.bCalm && talk.random.chance(0.05))
        talk.world.dial(
            "127.0.0.1", talk.random.pick(talk.sites)->port(), [&](sim::Peer& peer) { lie(talk, peer); });
    talk.world.run(talk.random.chance(0.2) ? talk.random.below(2 * 3600000) : talk.random.size(1000));
    if (talk.random.chance(0.02))
        talk.world.run(talk.random.below(36 * 3600000));
    for (const sim::Side* side : talk.sides)
        static_cast<const TlsSide*>(side)->checkTime();
}
} // namespace

SCENARIO(tls)
{
    TlsTalk talk(world);
    world.setName("here", {"127.0.0.1"});
    makeSite(talk, Site::eGood);
    for (int i = 0; i < 2; ++i)
        makeSite(talk, static_cast<Site::Kind>(world.random().below(Site::eKinds)));
    world.listen(kLiar, kLiarPort, [&talk](sim::Peer& peer) { lie(talk, peer); });
    sim::talkAWhile(
        talk, [&] { return std::make_unique<TlsSide>(talk, nullptr); }, [&] { passTime(talk); });
    for (sim::Peer* peer : std::exchange(talk.silent, {}))
        peer->reset();
    sim::finish(talk, 0);
}
