// An HTTP client's time limits, to the moment: a server that does not accept, does not answer, drips or stops
// in the middle. The request fails at the first limit that passes, once; or not at all.
#include "sim/World.h"

#include <KepNuvikaUtil/HttpClient.h>

#include <algorithm>

namespace
{
constexpr quint64 kSlackMs = 100;
constexpr quint64 kCoarseness = 20; // a timer may be late by this part of its time
constexpr quint64 kNever = 86400000;
const QByteArray kAnswer = "HTTP/1.1 200 OK\r\ncontent-length: 20\r\n\r\nbetween the two ends";

quint64 latest(quint64 ms) { return ms + ms / kCoarseness + kSlackMs; }

struct Server {
    bool bAccepts;
    quint64 waitMs; // before its first piece
    quint64 gapMs; // before the others
    int nPiece;
    int nPieces; // then it stops
    bool bWhole = false;

    void answer(sim::World& world, sim::Peer& peer, int nSent, quint64 pauseMs)
    {
        if (nSent == nPieces)
            return;
        world.after(pauseMs, [this, &world, &peer, nSent] {
            if (peer.isOver())
                return;
            peer.write(kAnswer.mid(nSent * nPiece, nPiece));
            answer(world, peer, nSent + 1, gapMs);
        });
    }
    quint64 lastMs() const { return nPieces == 0 ? 0 : waitMs + static_cast<quint64>(nPieces - 1) * gapMs; }

    // Milliseconds until the first limit passes; 0 where a moment is too close to another to say.
    quint64 failsAt(const HttpTimeLimits& limits) const
    {
        quint64 at = kNever;
        bool bClose = false;
        const auto passes = [&](int limit, quint64 fromMs, quint64 toMs) {
            const quint64 moment = fromMs + static_cast<quint64>(limit);
            bClose = bClose || (limit > 0 && moment <= toMs + kSlackMs && latest(moment) >= toMs);
            if (limit > 0 && moment < toMs)
                at = std::min(at, moment);
        };
        const quint64 firstMs = nPieces == 0 ? kNever : waitMs;
        passes(limits.nRequest, 0, bAccepts && bWhole ? lastMs() : kNever);
        passes(bAccepts ? 0 : limits.nConnect, 0, kNever);
        passes(bAccepts ? limits.nFirstByte : 0, 0, firstMs);
        passes(bAccepts ? limits.nSilence : 0, 0, firstMs);
        if (bAccepts && nPieces > 1)
            passes(limits.nSilence, waitMs, waitMs + gapMs);
        if (bAccepts && !bWhole)
            passes(limits.nSilence, lastMs(), kNever);
        return bClose ? 0 : at;
    }
};
} // namespace

SCENARIO(limits)
{
    world.weather() = sim::Weather();
    sim::Random& random = world.random();
    const auto ms = [&] { return random.chance(0.5) ? 0 : static_cast<int>(200 + random.below(20000)); };
    Server server{random.chance(0.8), random.below(8000), random.below(4000),
        static_cast<int>(1 + random.below(static_cast<std::uint64_t>(kAnswer.size()))), 0};
    const int nAll = (kAnswer.size() + server.nPiece - 1) / server.nPiece;
    server.nPieces = static_cast<int>(random.below(static_cast<std::uint64_t>(nAll) + 1));
    server.bWhole = server.nPieces == nAll;
    QByteArray request;
    if (server.bAccepts) {
        world.listen("10.0.0.9", 80, [&](sim::Peer& peer) {
            peer.onBytes = [&](const QByteArray& bytes) {
                request += bytes;
                if (request.endsWith("\r\n\r\n"))
                    server.answer(world, peer, 0, server.waitMs);
            };
        });
    }
    HttpTimeLimits limits;
    limits.nConnect = server.bAccepts ? ms() : 200 + static_cast<int>(random.below(20000));
    limits.nFirstByte = ms();
    limits.nSilence = ms();
    limits.nRequest = ms();

    HttpClient client(QStringLiteral("10.0.0.9"), 80, true);
    client.setTimeLimits(limits);
    QStringList told;
    quint64 endMs = 0;
    QObject::connect(&client, &HttpClient::error, [&](int code) { told << QString::number(code); });
    QObject::connect(&client, &HttpClient::requestFailed, [&] {
        told << QStringLiteral("failed");
        endMs = world.nowMs();
    });
    QObject::connect(&client, &HttpClient::requestFinished, [&] {
        told << QStringLiteral("finished");
        endMs = world.nowMs();
    });
    const quint64 beginMs = world.nowMs();
    client.get(QStringLiteral("/"), QString(), QString(), true);
    world.runUntil([&] { return endMs != 0; }, 3600000);
    world.run(60000); // and nothing further

    const quint64 failsAt = server.failsAt(limits);
    if (failsAt == 0)
        return;
    const quint64 wholeAt = server.bWhole && server.bAccepts ? server.lastMs() : kNever;
    const quint64 expected = std::min(failsAt, wholeAt);
    const QByteArray all = told.join(QLatin1Char(' ')).toLatin1();
    const char* what = expected == kNever ? "" : failsAt < wholeAt ? "10060 failed" : "finished";
    world.expect(all == what, "told: '%s', and not '%s'", all.constData(), what);
    const quint64 tookMs = endMs - beginMs;
    world.expect(expected == kNever || (tookMs + kSlackMs >= expected && tookMs <= latest(expected)),
        "after %llu ms, and not %llu", static_cast<unsigned long long>(tookMs),
        static_cast<unsigned long long>(expected));
}
