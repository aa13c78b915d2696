// A client whose server lies: cut heads and bodies, wrong lengths, heads and parts without an end, refusals
// for ever, answers to nobody, resets and ends at any byte. Every request has one outcome, the one that the
// lie earns, in bounded time and memory.
#include "sim/World.h"
#include "support/Slot.h"

#include <KepNuvikaUtil/HttpClient.h>
#include <KepNuvikaUtil/HttpsClient.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <malloc.h>

namespace
{
constexpr char kHost[] = "10.0.0.9";
constexpr std::uint16_t kPort = 8080;
constexpr int kMostHead = 4000;
constexpr int kMostPart = 60000;
constexpr int kMostContent = 100000;
constexpr std::size_t kMostMemory = 4 << 20; // of one run, beyond its beginning
constexpr std::size_t kMost = 60; // requests
constexpr int kAborted = 10053;
const QByteArray kParts = "Content-Type: multipart/x-mixed-replace; boundary=b\r\n";
const QByteArray kChunks = "Transfer-Encoding: chunked\r\n";

enum Effect { // of one connection or answer on the request
    eWhole, // finishes it
    eLost, // counts as a loss
    eBad, // fails it at once
    eDenied, // a 401
    eSilent // nothing comes
};

struct Lie {
    Effect effect = eWhole;
    QByteArray bytes = {};
    QByteArray content = {}; // what it brings in the end
    int nStatus = 200;
    bool bEnds = false; // the connection ends behind it,
    bool bResets = false; // or so
    QByteArray endless = {}; // follows for ever
    int nParts = 0;
};

struct Request {
    int nId = 0;
    bool bStream = false;
    std::vector<Lie> told;
    int nLosses = 0; // that it must have counted,
    int nDenied = 0; // in a row
    bool bOver = false;
    QByteArray got; // pieces since the last head
    int nParts = 0; // so
};

QByteArray someBytes(sim::Random& random, int size)
{
    QByteArray bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random.next());
    return bytes;
}

QByteArray head(const QByteArray& fields, int status = 200)
{
    return "HTTP/1.1 " + QByteArray::number(status) + " So\r\n" + fields + "\r\n";
}

QByteArray lengthOf(const QByteArray& content)
{
    return "Content-Length: " + QByteArray::number(content.size()) + "\r\n";
}

QByteArray chunked(sim::Random& random, const QByteArray& content)
{
    QByteArray bytes;
    for (int at = 0; at < content.size();) {
        const QByteArray piece = content.mid(at, static_cast<int>(random.size(20000)));
        bytes += QByteArray::number(piece.size(), 16) + (random.chance(0.2) ? ";x=y\r\n" : "\r\n") + piece
            + "\r\n";
        at += piece.size();
    }
    return bytes + "0\r\n\r\n";
}

Lie whole(sim::Random& random)
{
    Lie lie{eWhole, {}, someBytes(random, static_cast<int>(random.chance(0.2) ? 0 : random.size(50000)))};
    switch (random.below(4)) {
    case 0:
        lie.bytes = head(kChunks) + chunked(random, lie.content);
        break;
    case 1:
        lie.bytes = head("") + lie.content;
        lie.bEnds = true;
        break;
    case 2: // interim answers first
        for (std::uint64_t left = random.size(2000); left > 0; --left)
            lie.bytes += head("X: y\r\n", 100 + static_cast<int>(random.below(100)));
        [[fallthrough]];
    default:
        lie.bEnds = random.chance(0.2);
        lie.bytes += head(lengthOf(lie.content) + (lie.bEnds ? "Connection: close\r\n" : "")) + lie.content;
        break;
    }
    return lie;
}

// Cut anywhere, with an end or a reset; only a body that lasts until the end does not show it.
Lie cut(sim::Random& random)
{
    Lie lie = whole(random);
    const bool bUntilEnd = !lie.bytes.contains("Content-Length: ") && !lie.bytes.contains("chunked");
    const int least = bUntilEnd ? lie.bytes.indexOf("\r\n\r\n") + 3 : lie.bytes.size() - 3;
    lie.bytes.truncate(static_cast<int>(random.below(static_cast<std::uint64_t>(std::max(least, 0)) + 1)));
    if (!bUntilEnd && lie.bytes.contains("\r\n\r\n")
        && lie.bytes.endsWith("0\r\n")) // behind the last chunk all is said
        lie.bytes.chop(3);
    lie.effect = eLost;
    lie.bEnds = true;
    lie.bResets = random.chance(0.3);
    return lie;
}

Lie bad(sim::Random& random)
{
    static const std::vector<QByteArray> lies{"HTTP/1.1 abc So\r\n\r\n", "220 mail\r\n\r\n",
        "\x16\x03\x01\x02\r\n\r\n", head("Content-Length: -1\r\n"), head("Content-Length: 4294967296\r\n"),
        head("Content-Length: five\r\n"), head("Content-Length: 5\r\nContent-Length: 6\r\n"),
        head(kChunks) + "xyz\r\n", head(kChunks) + "ffffffffffffffff1\r\n",
        head(kChunks) + "5\r\nabcdeXX\r\n", head("Content-Type: multipart/x-mixed-replace\r\n"),
        head(kParts.chopped(2) + QByteArray(80, 'b') + "\r\n")};
    return Lie{eBad, random.pick(lies), {}};
}

// Each ends at a limit.
Lie endless(sim::Random& random)
{
    const QByteArray chunks = head(kChunks);
    const QByteArray parts = head(kParts) + "--b\r\n";
    const std::vector<std::pair<QByteArray, QByteArray>> lies{{"HTTP/1.1 200 So\r\nX: ", "yyyyyyyy"},
        {"HTTP/1.1 200 So\r\n", "X: yyyy\r\n"}, {chunks + "5;", "x"}, {chunks + "0\r\n", "X: y\r\n"},
        {parts + "X: ", "y"}, {parts, "X: y\r\n"}, {parts + "Content-Length: 60001\r\n\r\n", "z"},
        {parts + "\r\n", "zzz\r\n"}, {head(""), "z"}, {head("Content-Length: 100001\r\n"), "z"},
        {chunks, "3\r\nzzz\r\n"}};
    const auto& [begin, rest] = random.pick(lies);
    return Lie{eBad, begin, {}, 200, false, false, rest.repeated(1 + 4000 / rest.size())};
}

Lie denied(sim::Random& random)
{
    static const std::vector<QByteArray> challenges{"", "Basic realm=\"x\"",
        "Digest realm=\"x\", nonce=\"1\"", "Digest", "Negotiate",
        "Digest nonce=\"\", qop=\"\",,,=", "Digest realm=\"x\", nonce=\"2\", qop=\"auth-int\""};
    Lie lie{eDenied, {}, someBytes(random, static_cast<int>(random.below(3000)))};
    const QByteArray challenge = random.pick(challenges);
    const QByteArray field = challenge.isEmpty() ? challenge : "WWW-Authenticate: " + challenge + "\r\n";
    lie.nStatus = 401;
    lie.bytes = head(field + lengthOf(lie.content), 401) + lie.content;
    return lie;
}

Lie pictures(sim::Random& random)
{
    Lie lie{eLost, head(kParts), {}};
    const auto most = static_cast<int>(random.below(20));
    for (; lie.bytes.size() < 100000 && lie.nParts < most; ++lie.nParts) {
        const QByteArray content = someBytes(random, static_cast<int>(random.size(kMostPart)));
        lie.bytes += "--b\r\nContent-Type: image/jpeg\r\n" + lengthOf(content) + "\r\n" + content + "\r\n";
    }
    lie.bEnds = true;
    return lie;
}

Lie silent(sim::Random& random)
{
    return Lie{eSilent, whole(random).bytes.left(static_cast<int>(random.below(15))), {}};
}

std::size_t memoryInUse() { return mallinfo2().uordblks; }

// What the server has told, and what the client makes of it.
template <class Client>
class Trial
{
public:
    Trial(sim::World& world, const sim::Weather& weather)
        : m_world(world), m_random(world.random()),
          m_bKind(!weather.mayReset() && !weather.mayFail() && weather.refuse == 0 && weather.lose == 0)
    {
        world.listen(kHost, kPort, [this, alive = std::weak_ptr<bool>(m_pAlive)](sim::Peer& peer) {
            if (!alive.expired()) // a client's last connection may come late
                serve(peer);
        });
        makeClient();
        m_nMemory = memoryInUse();
    }

    void ask()
    {
        m_requests.emplace_back();
        Request& request = m_requests.back();
        request.bStream = m_random.chance(0.3);
        HttpRequestHeader header(
            QStringLiteral("GET"), QLatin1Char('/') + QString::number(m_requests.size()));
        header.addValue(QStringLiteral("Host"), QStringLiteral("x"));
        const bool bLogin = m_random.chance(0.5);
        request.nId
            = m_pClient->request(header, request.bStream, nullptr, bLogin ? QStringLiteral("u") : QString(),
                bLogin ? QStringLiteral("p") : QString(), static_cast<int>(m_random.below(2)));
    }

    // Until everything is over; a silent server is left after a while.
    void wait()
    {
        while (m_nOver < m_requests.size()) {
            const std::size_t before = m_nOver;
            if (m_world.runUntil([&] { return m_nOver > before; }, 120000))
                continue;
            const Request& request = m_requests[m_nOver];
            const bool bSilent = !request.told.empty() && request.told.back().effect == eSilent;
            m_world.expect(bSilent, "request %zu waits in vain", m_nOver + 1);
            const std::size_t asked = m_requests.size();
            m_bLeaving = true;
            m_pClient->shutdown();
            while (m_nOver < asked && std::is_same_v<Client, HttpsClient>) // which says nothing
                over(m_requests[m_nOver]);
            m_bLeaving = false;
            m_world.expect(m_nOver >= asked, "%zu requests are not cancelled", asked - m_nOver);
        }
        m_world.expect(m_pClient->numOfPendingRequests() == 0, "requests are left");
    }

    // Answers that nobody has asked for, on connections that are idle: they must not meet the next request.
    void tellNobody()
    {
        for (sim::Peer* peer : m_peers) {
            if (!peer->isOver())
                peer->write(head("Content-Length: 6\r\n") + "nobody");
        }
        m_world.run(20000);
        for (const sim::Peer* peer : m_peers)
            m_world.expect(peer->isOver(), "a connection is kept that brought an answer to nobody");
    }

private:
    using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

    void makeClient()
    {
        m_pClient = std::make_unique<Client>(QLatin1String(kHost), kPort, true);
        HttpReadLimits limits;
        limits.nHead = kMostHead;
        limits.nChunkSizeLine = 100;
        limits.nPart = kMostPart;
        limits.nContent = kMostContent;
        m_pClient->setReadLimits(limits);
        Client* client = m_pClient.get();
        QObject::connect(client, &Client::responseHeaderReceived, to(this, &Trial::takeHead));
        QObject::connect(client, &Client::contentChunk, to(this, &Trial::takePiece));
        QObject::connect(client, &Client::multipartReplaceContent,
            [this](int id) { ++front(id, "multipartReplaceContent").nParts; });
        QObject::connect(client, &Client::requestFinished, to(this, &Trial::take));
        QObject::connect(client, &Client::requestFailed, to(this, &Trial::failed));
        QObject::connect(client, &Client::error, [this](int code) { m_nError = code; });
        if constexpr (std::is_same_v<Client, HttpClient>)
            QObject::connect(
                client, &Client::requestCancelled, [this](int id) { over(front(id, "requestCancelled")); });
    }

    void serve(sim::Peer& peer)
    {
        m_peers.push_back(&peer);
        const auto asked = std::make_shared<QByteArray>();
        peer.onEnd = [&peer] { peer.close(); };
        peer.onBytes = [this, asked, &peer](const QByteArray& bytes) {
            *asked += bytes;
            const int end = asked->indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const auto number = static_cast<std::size_t>(asked->mid(5, asked->indexOf(' ', 5) - 5).toInt());
            m_world.expect(asked->size() == end + 4, "more than one request at a time");
            m_world.expect(number == m_nOver + 1, "request %zu when %zu are over", number, m_nOver);
            asked->clear();
            answer(peer, m_requests[number - 1]);
        };
    }

    Lie lieTo(const Request& request)
    {
        static constexpr Lie (*kLies[])(sim::Random&)
            = {cut, cut, cut, bad, endless, denied, denied, pictures, silent, whole, whole, whole};
        for (;;) {
            const Lie lie = kLies[m_random.below(std::size(kLies))](m_random);
            const bool bParts = lie.bytes.contains("multipart");
            const bool bUnlimited = lie.endless.size() > 0 && !lie.bytes.startsWith("HTTP/1.1 200 So\r\nX")
                && !lie.bytes.contains("0\r\n") && !lie.bytes.contains(";");
            if (request.bStream && (bParts || bUnlimited))
                continue; // what is not collected has no limit
            const bool bDoubtful = request.nDenied > 0 && lie.effect == eLost;
            const bool bWasLost = request.nLosses > 0 && lie.effect == eDenied;
            if (!bDoubtful && !bWasLost) // whether two refusals stand in a row depends on what has arrived
                return lie;
        }
    }

    void answer(sim::Peer& peer, Request& request)
    {
        if (m_bKind && !request.told.empty()) {
            const Lie& last = request.told.back();
            m_world.expect(
                last.effect == eLost || last.effect == eDenied, "a request comes again that had its answer");
            m_world.expect(last.nParts == 0 || request.nParts == last.nParts, "%d of %d parts",
                request.nParts, last.nParts);
        }
        request.got.clear(); // a refusal has no head that says so
        Lie lie = lieTo(request);
        sim::trace("tells %d: %s", static_cast<int>(lie.effect),
            QByteArray(lie.bytes.left(60)).toPercentEncoding(" :/").constData());
        request.nLosses += lie.effect == eLost ? 1 : 0;
        request.nDenied += lie.effect == eDenied ? 1 : 0;
        m_world.expect(!m_bKind || request.nLosses <= 3, "a request is sent a fourth time");
        m_world.expect(request.told.size() < 8, "a request is sent again and again");
        peer.write(std::exchange(lie.bytes, QByteArray()));
        if (lie.bResets)
            m_world.after(m_random.size(1000), [&peer] { peer.reset(); });
        else if (lie.bEnds && m_random.chance(0.5))
            peer.close();
        else if (lie.bEnds)
            peer.end();
        if (!lie.endless.isEmpty())
            flood(peer, lie.endless, 0);
        request.told.push_back(lie);
    }

    void flood(sim::Peer& peer, const QByteArray& bytes, int times)
    {
        m_world.expect(times < 1000, "the client reads for ever");
        if (peer.isOver())
            return;
        if (peer.unsent() == 0)
            peer.write(bytes);
        m_world.after(10, [this, &peer, bytes, times, alive = std::weak_ptr<bool>(m_pAlive)] {
            if (!alive.expired())
                flood(peer, bytes, times + (peer.unsent() == 0 ? 1 : 0));
        });
    }

    Request& front(int id, const char* signal)
    {
        sim::trace("%s(%d)", signal, id);
        m_world.expect(m_nOver < m_requests.size(), "%s(%d), and nobody waits", signal, id);
        Request& request = m_requests[m_nOver];
        m_world.expect(request.nId == id, "%s(%d) when %d is at the front", signal, id, request.nId);
        m_world.expect(
            memoryInUse() < m_nMemory + kMostMemory, "%zu bytes are in use", memoryInUse() - m_nMemory);
        return request;
    }

    void takeHead(int id, const HttpResponseHeader& header)
    {
        Request& request = front(id, "responseHeaderReceived");
        m_world.expect(header.statusCode() == 200, "a head of status %d is told", header.statusCode());
        request.got.clear();
        request.nParts = 0;
    }

    void takePiece(int id, const HttpResponseHeader& header, const char* data, int size, Marker)
    {
        Request& request = front(id, "contentChunk");
        m_world.expect(request.bStream, "a piece of what is collected");
        request.got.append(data, size);
        if (header.hasContentLength() && request.got.size() == static_cast<int>(header.contentLength()))
            finished(request, header.statusCode());
    }

    void take(int id, const HttpResponseHeader& header, const char* data, int size, Marker)
    {
        Request& request = front(id, "requestFinished");
        if (!request.bStream)
            request.got = QByteArray(data, size);
        finished(request, header.statusCode());
    }

    void finished(Request& request, int status)
    {
        const Lie lie = request.told.empty() ? Lie{eSilent, {}, {}} : request.told.back();
        const bool bUntilEnd = !m_bKind && lie.bEnds; // HTTP/1.1 cannot tell
        if (!m_bKind && !lie.endless.isEmpty()) // so far, until a reset ended it
            return over(request);
        m_world.expect(lie.effect == eWhole || (lie.effect == eDenied && (!m_bKind || request.nDenied == 2)),
            "a request finishes by a lie of kind %d", static_cast<int>(lie.effect));
        m_world.expect(status == lie.nStatus, "status %d, and not %d", status, lie.nStatus);
        m_world.expect(bUntilEnd ? lie.content.startsWith(request.got) : request.got == lie.content,
            "%d of %d bytes, or others", request.got.size(), lie.content.size());
        over(request);
    }

    void failed(int id)
    {
        Request& request = front(id, "requestFailed");
        const bool bBad = !request.told.empty() && request.told.back().effect == eBad;
        m_world.expect(
            !m_bKind || bBad || request.nLosses == 3, "a request fails after %d losses", request.nLosses);
        m_world.expect(!bBad || !m_bKind || m_nError == kAborted, "it fails with error %d", m_nError);
        m_world.expect(!m_pClient->errorString().isEmpty(), "it fails without a reason");
        over(request);
    }

    void over(Request& request)
    {
        m_world.expect(!std::exchange(request.bOver, true), "a second outcome");
        request.told.clear();
        request.got.clear();
        m_nError = 0;
        ++m_nOver;
        if (m_random.chance(0.2) && m_requests.size() < kMost)
            ask();
        // (else a new request overtakes those that leave)
        if (m_random.chance(0.1) && m_nDepth < 2 && !m_bLeaving) {
            ++m_nDepth;
            m_world.run(m_random.size(500));
            --m_nDepth;
        }
    }

    sim::World& m_world;
    sim::Random& m_random;
    const bool m_bKind;
    std::unique_ptr<Client> m_pClient;
    std::deque<Request> m_requests; // number n is the n-th
    std::size_t m_nOver = 0;
    std::vector<sim::Peer*> m_peers;
    int m_nError = 0; // the last, since the last outcome
    std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true);
    int m_nDepth = 0;
    bool m_bLeaving = false;
    std::size_t m_nMemory = 0;
};

template <class Client>
void tryOut(sim::World& world)
{
    const sim::Weather weather = world.weather();
    Trial<Client> trial(world, weather);
    for (std::uint64_t left = world.random().size(30); left > 0; --left) {
        trial.ask();
        if (world.random().chance(0.6)) {
            trial.wait();
            world.weather() = sim::Weather();
            if (world.random().chance(0.3))
                trial.tellNobody();
            world.weather() = weather;
        }
    }
    trial.wait();
}
} // namespace

SCENARIO(liar)
{
    if (world.random().chance(0.6))
        tryOut<HttpClient>(world);
    else
        tryOut<HttpsClient>(world);
}
