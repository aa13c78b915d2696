// One request and what must come of it. Its number is its path; everything else follows from that.
#pragma once

#include "sim/World.h"
#include "support/Certificates.h"
#include "support/Slot.h"

#include <KepNuvikaUtil/HttpRequestHeader.h>

#include "core/PoolOwner_p.h"

#include <QtCore/QByteArray>
#include <QtCore/QCryptographicHash>

#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace web
{
enum Framing { eLength, eChunked, eUntilEnd, eParts, ePartsUntilEnd };
enum Asking { ePlain, eWithBody, eUpload, eUploadChunked, eUploadHalf };
enum Login { eNone, eBasic, eDigest };
enum Outcome { eWaits, eFinished, eFailed, eCancelled, eUploadOver, eDiscarded };

struct Exchange {
    int nNumber = 0;
    Asking asking = ePlain;
    int nAsked = 0; // bytes of the request's body
    bool bHead = false;
    bool bStream = false;
    bool bClose = false; // says one of the two
    Framing framing = eLength;
    int nStatus = 200;
    int nAnswer = 0; // bytes, or parts
    Login login = eNone;
    bool bRight = true; // the password

    // At the server.
    int nSeen = 0;
    std::vector<int> parts; // sent by the last answer
    // At the client.
    Outcome outcome = eWaits;
    int nHeads = 0;
    QByteArray got; // in this attempt
    std::vector<int> gotParts;
    int nUploaded = 0;

    bool isMultipart() const { return framing == eParts || framing == ePartsUntilEnd; }
    bool hasBody() const { return !bHead && nStatus != 204; }
    bool closesByRequest() const { return bClose && nNumber % 2 == 0; }
    bool closesByAnswer() const
    {
        return (bClose && !closesByRequest())
            || (hasBody() && (framing == eUntilEnd || framing == ePartsUntilEnd));
    }
    bool isUpload() const { return asking >= eUpload; }
};

// Bytes that follow from a number.
inline QByteArray bytesOf(int number, int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i]
            = static_cast<char>((static_cast<unsigned>(i) * 2654435761U + unsigned(number) * 40503U) >> 13);
    return bytes;
}
inline QByteArray askedOf(const Exchange& e) { return bytesOf(e.nNumber * 2, e.nAsked); }
inline QByteArray answerOf(const Exchange& e) { return bytesOf(e.nNumber * 2 + 1, e.nAnswer); }
// A picture: its number stands in its first four bytes.
inline QByteArray pictureOf(int number)
{
    QByteArray bytes = bytesOf(number, 4 + (number * 7919) % 30000);
    for (int i = 0; i < 4; ++i)
        bytes[i] = static_cast<char>(number >> (8 * i));
    return bytes;
}
inline int numberOfPicture(const char* data, int size)
{
    int number = -1;
    if (size >= 4)
        std::memcpy(&number, data, 4);
    return number;
}
inline QByteArray partOf(int number)
{
    const QByteArray picture = pictureOf(number);
    return "--frame\r\nContent-Type: image/x-" + QByteArray::number(number)
        + "\r\nContent-Length: " + QByteArray::number(picture.size()) + "\r\n\r\n" + picture + "\r\n";
}

inline QByteArray md5(const QByteArray& text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
}
inline QByteArray parameterOf(const QByteArray& value, const QByteArray& name)
{
    const int at = value.indexOf(name + '=');
    if (at < 0)
        return QByteArray();
    QByteArray rest = value.mid(at + name.size() + 1);
    if (rest.startsWith('"'))
        return rest.mid(1, rest.indexOf('"', 1) - 1);
    return rest.left(rest.indexOf(',') < 0 ? rest.size() : rest.indexOf(',')).trimmed();
}

// Checks logins as a server does: a nonce count is good once, and a nonce may become stale.
class Guard
{
public:
    static constexpr char kUser[] = "u";
    static constexpr char kPassword[] = "p:&";

    bool admits(const HttpRequestHeader& request, const Exchange& exchange, sim::Random& random)
    {
        const QByteArray value = request.value(QStringLiteral("authorization")).toLatin1();
        if (exchange.login == eNone)
            return true;
        if (exchange.login == eBasic)
            return value == "Basic " + QByteArray(QByteArray(kUser) + ':' + kPassword).toBase64();
        const auto nonce
            = m_nonces.find(parameterOf(value, " nonce").isEmpty() ? parameterOf(value, "nonce")
                                                                   : parameterOf(value, " nonce"));
        if (!value.startsWith("Digest ") || nonce == m_nonces.end())
            return false;
        const QByteArray count = parameterOf(value, "nc");
        const QByteArray ha1 = md5(QByteArray(kUser) + ":here:" + kPassword);
        const QByteArray ha2 = md5(request.method().toLatin1() + ':' + request.path().toLatin1());
        const QByteArray expected = md5(
            ha1 + ':' + nonce->first + ':' + count + ':' + parameterOf(value, "cnonce") + ":auth:" + ha2);
        if (exchange.nSeen == 1 && nonce->second.nLast > 0 && random.chance(0.1))
            nonce->second.bStale = true;
        const bool bNew = count.toInt(nullptr, 16) > nonce->second.nLast;
        nonce->second.nLast = std::max(nonce->second.nLast, count.toInt(nullptr, 16));
        return bNew && !nonce->second.bStale && parameterOf(value, "response") == expected;
    }
    QByteArray challenge(const Exchange& exchange)
    {
        if (exchange.login == eBasic)
            return "Basic realm=\"here\"";
        const QByteArray nonce = "n=" + QByteArray::number(static_cast<int>(m_nonces.size()));
        m_nonces[nonce];
        return "Digest realm=\"here\", nonce=\"" + nonce + "\", qop=\"auth\", algorithm=MD5";
    }

private:
    struct Nonce {
        int nLast = 0;
        bool bStale = false;
    };
    std::map<QByteArray, Nonce> m_nonces;
};

// What all sides of a run share.
struct Stage {
    explicit Stage(sim::World& w) : world(w) { }

    sim::World& world;
    sim::Weather weather; // while it is bad
    std::deque<Exchange> exchanges; // number n is the n-th
    Guard guard;
    quint16 nPort = 0;
    int nCuts = 0; // connections that somebody has ended early
    int nDepth = 0; // of nested event loops
    bool bFinishing = false;
    bool bCalm = false; // nobody ends a connection early
    Certificates* pCertificates = nullptr; // where all is said over TLS
    Nuvika::PoolOwner pool{new SharedBufferPool};

    // Nothing may fail.
    bool isKind() const
    {
        return nCuts == 0 && !weather.mayReset() && !weather.mayFail() && weather.refuse == 0
            && weather.lose == 0;
    }
    Exchange& newExchange()
    {
        sim::Random& random = world.random();
        exchanges.emplace_back();
        Exchange& e = exchanges.back();
        e.nNumber = static_cast<int>(exchanges.size());
        if (random.chance(0.4))
            e.asking = static_cast<Asking>(random.between(eWithBody, eUploadHalf));
        e.nAsked = e.asking == ePlain ? 0 : static_cast<int>(random.size(200000));
        e.framing = static_cast<Framing>(random.below(5));
        e.bHead = e.asking == ePlain && random.chance(0.1);
        e.nStatus = random.chance(0.1) ? 204 : random.chance(0.2) ? 404 : 200;
        if (e.nStatus == 204 || e.bHead)
            e.framing = eLength;
        e.bStream = !e.isMultipart() && random.chance(0.3);
        e.nAnswer = e.isMultipart()                  ? static_cast<int>(random.between(1, 12))
            : e.nStatus == 204 || random.chance(0.1) ? 0
                                                     : static_cast<int>(random.size(400000));
        e.login = e.isUpload() || random.chance(0.6) ? eNone : random.chance(0.5) ? eBasic : eDigest;
        e.bRight = random.chance(0.8);
        e.bClose = random.chance(0.15);
        return e;
    }
    Exchange& of(const QString& path)
    {
        const int number = path.midRef(1).toInt();
        world.expect(number >= 1 && number <= static_cast<int>(exchanges.size()), "a request for %s",
            qUtf8Printable(path));
        return exchanges[static_cast<std::size_t>(number - 1)];
    }
    void nestedLoop()
    {
        if (nDepth >= 3)
            return;
        ++nDepth;
        world.run(world.random().size(60));
        --nDepth;
    }
};

} // namespace web
