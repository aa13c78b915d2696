// The client side: a client that asks, uploads, discards, shuts down and deletes, from handlers, too. Every
// request has one outcome, in the order of the queue, and its answer is whole.
#pragma once

#include "sim/scenarios/http/Exchange.h"

#include <KepNuvikaUtil/HttpClient.h>
#include <KepNuvikaUtil/HttpsClient.h>

#include <QtCore/QTimer>

#include <algorithm>
#include <memory>
#include <type_traits>

namespace web
{
class Asker
{
public:
    virtual ~Asker() = default;
    virtual void act() = 0;
    virtual std::size_t waiting() const = 0;
};

template <class Client>
class AskerOf final : public Asker
{
public:
    explicit AskerOf(Stage& stage) : m_stage(stage) { }
    ~AskerOf() override { destroy(); }

    void act() override
    {
        if (m_stage.bFinishing || m_bDestroying || m_random.chance(0.5))
            return;
        const auto what = m_random.below(m_stage.bCalm ? 6 : 16);
        if (what == 0)
            m_stage.nestedLoop();
        else if (what == 1)
            m_world.work(m_random.size(5000));
        else if (what == 2)
            m_random.chance(0.5) ? discard() : cancel();
        else if (what != 6 && what != 7)
            ask();
        else if (m_random.chance(0.3))
            what == 6 ? shutdown() : destroy();
    }
    std::size_t waiting() const override { return m_queue.size(); }

private:
    using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;
    static constexpr bool kTellsCancelled = std::is_same_v<Client, HttpClient>;
    struct Queued {
        int nId;
        Exchange* pExchange;
    };

    void makeClient()
    {
        const QString host = QStringLiteral("127.0.0.1");
        if constexpr (std::is_same_v<Client, HttpsClient>) {
            if (m_stage.pCertificates != nullptr)
                m_pClient = std::make_unique<Client>(host, m_stage.nPort, true, NuvikaSslSocket::eSslAny12,
                    QString(), m_stage.pCertificates->authority(), QString());
        }
        if (!m_pClient)
            m_pClient = std::make_unique<Client>(host, m_stage.nPort, true);
        Client* client = m_pClient.get();
        QObject::connect(client, &Client::responseHeaderReceived, to(this, &AskerOf::takeHead));
        QObject::connect(client, &Client::contentChunk, to(this, &AskerOf::takePiece));
        QObject::connect(client, &Client::multipartReplaceContent, to(this, &AskerOf::takePart));
        QObject::connect(client, &Client::requestFinished, to(this, &AskerOf::take));
        QObject::connect(client, &Client::requestFailed, [this](int id) {
            const Exchange& e = front(id, "requestFailed");
            if (m_bCancelling && !kTellsCancelled)
                return end(eCancelled);
            m_world.expect(!m_stage.isKind() || e.framing == ePartsUntilEnd,
                "request %d fails without a reason: %s", e.nNumber, qUtf8Printable(m_pClient->errorString()));
            end(eFailed);
        });
        if constexpr (kTellsCancelled) {
            QObject::connect(client, &Client::requestCancelled, [this](int id) {
                front(id, "requestCancelled");
                end(eCancelled);
            });
        }
        QObject::connect(client, &Client::error, [this](int code) {
            m_world.expect(!m_stage.isKind(), "error %d without a reason", code);
            act();
        });
        QObject::connect(client, &Client::sendEndOfUploadContentFinished, [this] {
            m_world.expect(!m_queue.empty() && m_queue.front().pExchange->asking == eUploadHalf,
                "the end of an upload that was not ended");
            end(eUploadOver);
        });
    }
    void ask()
    {
        if (m_bDestroying || m_stage.exchanges.size() >= 150)
            return;
        if (!m_pClient)
            makeClient();
        Exchange& e = m_stage.newExchange();
        sim::trace("asks for %d", e.nNumber);
        const std::size_t place = m_queue.size();
        m_queue.push_back({0, &e});
        const int id = send(e);
        m_queue[place].nId = id; // no signal comes from inside
        if (e.isUpload())
            pump(id);
    }
    int send(Exchange& e)
    {
        const QString path = QLatin1Char('/') + QString::number(e.nNumber);
        const QString user = e.login == eNone ? QString() : QString::fromLatin1(Guard::kUser);
        const QString password = e.login == eNone ? QString()
            : e.bRight                            ? QString::fromLatin1(Guard::kPassword)
                                                  : QStringLiteral("wrong");
        const QByteArray body = askedOf(e);
        const bool bSimple = !e.bStream && !e.bHead && !e.isUpload() && m_random.chance(0.5);
        if (bSimple && e.asking == ePlain)
            return m_pClient->get(path, user, password, !e.closesByRequest());
        if (bSimple)
            return m_pClient->plainPost(path, body, user, password, !e.closesByRequest());
        HttpRequestHeader header(e.bHead ? QStringLiteral("HEAD")
                : e.asking == ePlain     ? QStringLiteral("GET")
                                         : QStringLiteral("POST"),
            path);
        header.addValue(QStringLiteral("Host"), QStringLiteral("here"));
        if (e.closesByRequest())
            header.addValue(QStringLiteral("Connection"), QStringLiteral("close"));
        if (e.asking == eUploadChunked || e.asking == eUploadHalf)
            header.addValue(QStringLiteral("Transfer-Encoding"), QStringLiteral("chunked"));
        else if (e.asking != ePlain)
            header.setContentLength(e.nAsked);
        SharedPoolBuffer buffer = m_stage.pool->getBuffer();
        if (e.asking == eWithBody)
            buffer.setData(body.constData(), body.size());
        return m_pClient->request(
            header, e.bStream, &buffer, user, password, static_cast<int>(m_random.below(3)));
    }
    // Sends pieces of the upload whenever it is its turn.
    void pump(int id)
    {
        const auto isIt = [id](const Queued& queued) { return queued.nId == id; };
        if (std::none_of(m_queue.begin(), m_queue.end(), isIt))
            return;
        if (m_queue.front().nId == id) {
            Exchange& e = *m_queue.front().pExchange;
            const QByteArray body = askedOf(e);
            const int size = std::min(body.size() - e.nUploaded, static_cast<int>(m_random.size(60000)));
            const bool bLast = e.nUploaded + size == body.size() && e.asking != eUploadHalf;
            if (m_pClient->sendUploadContentChunk(id, body.constData() + e.nUploaded, size, bLast)) {
                e.nUploaded += size;
                if (bLast)
                    return;
                if (e.asking == eUploadHalf && e.nUploaded == body.size()) {
                    m_pClient->sendEndOfUploadContent();
                    return;
                }
            }
        }
        Client* client = m_pClient.get();
        QTimer::singleShot(static_cast<int>(m_random.size(100)), client, [this, id, client] {
            if (m_pClient.get() == client)
                pump(id);
        });
    }
    void discard()
    {
        if (!m_pClient || m_queue.empty() || m_bCancelling)
            return;
        const auto place = m_queue.begin() + static_cast<std::ptrdiff_t>(m_random.below(m_queue.size()));
        const int before = m_pClient->numOfPendingRequests();
        m_pClient->discardNonePendingRequest(place->nId);
        const int gone = before - m_pClient->numOfPendingRequests();
        m_world.expect(
            gone == 1 || (gone == 0 && place == m_queue.begin()), "%d requests are discarded", gone);
        if (gone == 1) {
            place->pExchange->outcome = eDiscarded;
            m_queue.erase(place);
        }
    }
    void cancel()
    {
        if (!m_pClient || m_queue.empty() || m_bCancelling)
            return;
        const Queued queued = m_queue[m_random.below(m_queue.size())];
        ++m_stage.nCuts;
        m_bCancelling = true;
        const bool bCancelled = m_pClient->cancelRequest(queued.nId);
        m_bCancelling = false;
        m_world.expect(bCancelled && queued.pExchange->outcome == eCancelled, "request %d is not cancelled",
            queued.pExchange->nNumber);
    }
    void shutdown()
    {
        if (!m_pClient || m_bCancelling)
            return;
        ++m_stage.nCuts;
        const std::deque<Queued> old = m_queue;
        m_bCancelling = kTellsCancelled;
        if (!kTellsCancelled)
            m_queue.clear();
        m_pClient->shutdown();
        m_bCancelling = false;
        for (const Queued& queued : old) {
            if (!kTellsCancelled)
                queued.pExchange->outcome = eCancelled;
            m_world.expect(queued.pExchange->outcome == eCancelled, "request %d is not cancelled",
                queued.pExchange->nNumber);
        }
    }
    void destroy()
    {
        if (!m_pClient || m_bDestroying)
            return;
        m_bDestroying = true; // its handlers queue nothing any more
        const bool bTells = kTellsCancelled && !m_bCancelling; // else nobody is there to tell it
        if (!m_bCancelling && m_random.chance(0.5)) {
            shutdown();
            m_pClient.release()->deleteLater();
        } else {
            ++m_stage.nCuts;
            m_pClient.reset();
        }
        for (const Queued& queued : m_queue) {
            m_world.expect(!bTells, "request %d is not cancelled", queued.pExchange->nNumber);
            queued.pExchange->outcome = eCancelled;
        }
        m_queue.clear();
        m_bDestroying = false;
    }

    Exchange& front(int id, const char* signal)
    {
        sim::trace("%s(%d)", signal, id);
        m_world.expect(!m_queue.empty(), "%s(%d), and nobody waits", signal, id);
        if (m_bCancelling) { // requests that handlers have queued meanwhile have a queue of their own
            const auto found
                = std::find_if(m_queue.begin(), m_queue.end(), [id](const Queued& q) { return q.nId == id; });
            if (found != m_queue.end())
                std::rotate(m_queue.begin(), found, std::next(found));
        }
        m_world.expect(
            m_queue.front().nId == id, "%s(%d) when %d is at the front", signal, id, m_queue.front().nId);
        return *m_queue.front().pExchange;
    }
    void takeHead(int id, const HttpResponseHeader& header)
    {
        Exchange& e = front(id, "responseHeaderReceived");
        ++e.nHeads;
        m_world.expect(header.statusCode() == e.nStatus, "request %d: a head of status %d, and not %d",
            e.nNumber, header.statusCode(), e.nStatus);
        m_world.expect(e.nHeads <= (m_stage.isKind() && e.framing != ePartsUntilEnd ? 1 : 3),
            "request %d has %d heads", e.nNumber, e.nHeads);
        e.got.clear();
        e.gotParts.clear();
        act();
    }
    void takePiece(int id, const HttpResponseHeader& header, const char* data, int size, Marker)
    {
        Exchange& e = front(id, "contentChunk");
        m_world.expect(
            e.bStream && (e.nHeads > 0 || header.statusCode() == 401), "a piece of request %d", e.nNumber);
        m_world.expect(size > 0 || header.contentLength() == 0, "an empty piece");
        e.got.append(data, size);
        const bool bByLength = header.hasContentLength();
        m_world.expect(!bByLength || static_cast<unsigned int>(e.got.size()) <= header.contentLength(),
            "request %d: more than its length", e.nNumber);
        if (bByLength && static_cast<unsigned int>(e.got.size()) == header.contentLength()) {
            checkWhole(e, header);
            end(eFinished);
        } else {
            act();
        }
    }
    void takePart(int id, const HttpResponseHeader&, const char* type, const char* data, int size, Marker)
    {
        Exchange& e = front(id, "multipartReplaceContent");
        const int number = numberOfPicture(data, size);
        m_world.expect(e.isMultipart() && e.nHeads > 0, "a part of request %d", e.nNumber);
        m_world.expect(QByteArray(data, size) == pictureOf(number) && number < e.nAnswer,
            "request %d: a damaged picture of %d bytes", e.nNumber, size);
        m_world.expect(QByteArray(type) == "image/x-" + QByteArray::number(number),
            "picture %d is of type %s", number, type);
        m_world.expect(e.gotParts.empty() || e.gotParts.back() < number, "picture %d comes behind %d", number,
            e.gotParts.empty() ? 0 : e.gotParts.back());
        e.gotParts.push_back(number);
        act();
    }
    void take(int id, const HttpResponseHeader& header, const char* data, int size, Marker)
    {
        Exchange& e = front(id, "requestFinished");
        const bool bDenied = header.statusCode() == 401;
        m_world.expect(bDenied || e.nHeads > 0, "request %d finishes without a head", e.nNumber);
        m_world.expect(!e.bStream || size == 0, "what came in pieces comes again");
        m_world.expect(!(e.isMultipart() && e.hasBody() && !bDenied) || size == 0, "parts come again");
        const QByteArray content(data, size);
        if (!e.bStream)
            e.got = content;
        checkWhole(e, header);
        end(eFinished);
        m_world.expect(QByteArray::fromRawData(data, size) == content, "content that changes");
    }
    void checkWhole(Exchange& e, const HttpResponseHeader& header)
    {
        const bool bKind = m_stage.isKind();
        m_world.expect(e.asking != eUploadHalf, "half an upload is answered");
        if (header.statusCode() == 401) {
            m_world.expect(e.login != eNone && !e.bRight, "request %d is denied, wrongly", e.nNumber);
            const bool bMayBeCut = !bKind && (e.bStream || e.nStatus == 204); // that refusal has no length
            m_world.expect(e.got.isEmpty() || bMayBeCut || e.got == bytesOf(0, 100),
                "request %d: a damaged refusal", e.nNumber);
            m_world.expect(!bKind || e.nSeen == 2, "request %d was denied %d times", e.nNumber, e.nSeen);
            return;
        }
        m_world.expect(e.login == eNone || e.bRight, "request %d is admitted, wrongly", e.nNumber);
        m_world.expect(
            !bKind || e.nSeen <= (e.login == eNone ? 1 : 2), "request %d came %d times", e.nNumber, e.nSeen);
        m_world.expect(e.nSeen <= 6, "request %d came %d times", e.nNumber, e.nSeen);
        if (e.isMultipart()) {
            m_world.expect(
                e.gotParts == e.parts, "%zu of %zu pictures came", e.gotParts.size(), e.parts.size());
            return;
        }
        const QByteArray whole = e.hasBody() ? answerOf(e) : QByteArray();
        const bool bMayBeCut = e.framing == eUntilEnd && !bKind; // HTTP/1.1 cannot tell
        m_world.expect(bMayBeCut ? whole.startsWith(e.got) : e.got == whole,
            "request %d: %d of %d bytes, or others", e.nNumber, e.got.size(), whole.size());
    }
    void end(Outcome outcome)
    {
        m_queue.front().pExchange->outcome = outcome;
        m_queue.pop_front();
        if (outcome != eCancelled && !m_bCancelling)
            m_world.expect(m_pClient->numOfPendingRequests() == static_cast<int>(m_queue.size()),
                "%d requests wait, and not %zu", m_pClient->numOfPendingRequests(), m_queue.size());
        act();
    }

    Stage& m_stage;
    sim::World& m_world = m_stage.world;
    sim::Random& m_random = m_world.random();
    std::unique_ptr<Client> m_pClient;
    std::deque<Queued> m_queue;
    bool m_bDestroying = false;
    bool m_bCancelling = false;
};

} // namespace web
