// The server side: connections of ours that answer what is asked, now or later, whole or in pieces, and now
// and then do something else.
#pragma once

#include "sim/scenarios/http/Exchange.h"

#include <KepNuvikaUtil/HttpResponseClient.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QTimer>

#include <memory>

namespace web
{
class Connection
{
public:
    Connection(Stage& stage, int descriptor) : m_stage(stage), m_pClient(make(stage, descriptor))
    {
        using Server = HttpResponseClient;
        Server* client = m_pClient.get();
        if (!stage.bCalm && descriptor % 5 == 0) {
            client->setTimeLimits({5000, 0, 0, 10000});
            ++stage.nCuts;
        }
        QObject::connect(client, &Server::requestReceived, to(this, &Connection::takeRequest));
        QObject::connect(client, &Server::contentChunk, to(this, &Connection::takeChunk));
        QObject::connect(client, &Server::multipartReplaceContent,
            [this] { m_world.expect(false, "a part that nobody has sent"); });
        QObject::connect(client, &Server::responseFinished, [this] {
            check("responseFinished");
            m_world.expect(--m_nFinishedDue >= 0, "responseFinished() comes once too often");
            if (m_nFinishedDue > 0 && !m_stage.bFinishing && m_random.chance(0.5))
                m_stage.nestedLoop(); // others must not be forgotten meanwhile
            else
                act();
        });
        QObject::connect(client, &Server::error, [this] {
            m_world.expect(!m_bOver, "error() behind the end");
            m_world.expect(!m_stage.isKind(), "error() without a reason");
        });
        QObject::connect(client, &Server::disconnected, [this] {
            m_world.expect(!m_bOver, "disconnected() comes twice");
            m_world.expect(!m_stage.isKind() || (m_due.empty() && m_nFinishedDue == 0 && !m_bStreams),
                "a connection ends with %s", text().c_str());
            over();
            act();
        });
        QObject::connect(client, &Server::sigCanSendContent, [this] {
            check("sigCanSendContent");
            if (m_bStreams)
                sendMore();
            act();
        });
    }

    bool isOver() const { return m_bOver; }
    // Of the requests that wait, those that were never answered.
    std::string text() const
    {
        return std::to_string(m_due.size()) + " unanswered, " + std::to_string(m_nFinishedDue) + " unfinished"
            + (m_bStreams ? ", streaming" : "");
    }
    void destroy()
    {
        ++m_stage.nCuts;
        if (m_random.chance(0.5)) {
            m_pClient->shutdown();
            if (m_pClient) // the handler may have done it
                m_pClient.release()->deleteLater();
        }
        m_pClient.reset();
        m_bOver = true;
        over();
    }

private:
    using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

    static std::unique_ptr<HttpResponseClient> make(Stage& stage, int descriptor)
    {
        if (stage.pCertificates == nullptr)
            return std::make_unique<HttpResponseClient>(descriptor, stage.world.random().chance(0.3));
        return std::make_unique<HttpResponseClient>(descriptor, NuvikaSslSocket::eSslAny12,
            stage.pCertificates->forLocalhost(), QString(), QString());
    }
    void check(const char* signal)
    {
        sim::trace("%s()", signal);
        m_world.expect(!m_bOver, "%s() behind the end", signal);
    }
    void takeRequest(HttpRequestHeader header, const char* data, int size, Marker)
    {
        check("requestReceived");
        const QByteArray body(data, size);
        Exchange& e = m_stage.of(header.path());
        m_world.expect(!m_bStreams, "a request inside a streamed answer");
        m_world.expect(m_pClient->isConnected(), "a request without a connection");
        m_world.expect(!m_stage.isKind() || e.asking != ePlain || m_pClient->canSendContent(),
            "a request of a peer that does not read");
        m_world.expect(e.nNumber >= m_nLast, "request %d behind %d", e.nNumber, m_nLast);
        m_nLast = e.nNumber;
        m_world.expect(body == askedOf(e), "request %d brings %d bytes, and not its %d", e.nNumber,
            body.size(), e.nAsked);
        m_world.expect(e.asking != eUploadHalf, "half an upload is a request");
        ++e.nSeen;
        e.got.clear(); // of the attempt before: a refusal has no head that says so
        m_due.push_back({&e, m_stage.guard.admits(header, e, m_random)});
        const bool bCounted
            = e.login == eDigest && m_due.back().bAdmitted; // asked again, it needs a new count
        if (bCounted && !m_stage.bCalm && !m_stage.bFinishing && m_random.chance(0.2))
            cut();
        else if (m_random.chance(0.5))
            answerSome();
        else
            answerLater();
        act();
        m_world.expect(QByteArray::fromRawData(data, size) == body, "content that changes");
    }
    void takeChunk(HttpRequestHeader header, const char* data, int size, Marker marker)
    {
        check("contentChunk");
        m_body.append(data, size);
        if (size == 0) {
            const QByteArray body = std::exchange(m_body, QByteArray());
            takeRequest(header, body.constData(), body.size(), marker);
        } else {
            act();
        }
    }
    void answerLater()
    {
        if (m_pClient && !m_bOver && !m_due.empty())
            QTimer::singleShot(
                static_cast<int>(m_random.size(300)), m_pClient.get(), [this] { answerSome(); });
    }
    // Further answers may be given while one streams: they wait for its end.
    void answerSome()
    {
        while (!m_due.empty() && !m_bOver && !(m_bStreams && isStreamed(m_due.front()))) {
            const Due due = m_due.front();
            m_due.pop_front();
            answer(due);
            if (m_random.chance(0.2))
                break;
        }
        if (!m_bStreams)
            answerLater();
    }
    // A viewer that does not keep up gets fewer pictures.
    void sendMore()
    {
        for (std::uint64_t most = m_random.size(20); m_bStreams && most > 0 && !m_pieces.empty(); --most) {
            const QByteArray piece = m_pieces.front();
            m_pieces.pop_front();
            const bool bCould = m_pClient->canSendContent();
            if (m_pPictures != nullptr && !bCould)
                continue;
            if (m_pPictures != nullptr)
                m_pPictures->parts.push_back(m_pPictures->nAnswer - static_cast<int>(m_pieces.size()) - 1);
            const KepNuvikaUtil::BUFFER halves[2] = {{piece.constData(), piece.size() / 2},
                {piece.constData() + piece.size() / 2, piece.size() - piece.size() / 2}};
            const bool bSent = m_random.chance(0.5) ? m_pClient->sendContent(halves, 2)
                                                    : m_pClient->sendContent(piece.constData(), piece.size());
            m_world.expect(bSent || !m_stage.isKind(), "a piece of the answer is refused");
        }
        if (!m_bStreams)
            return;
        if (m_pieces.empty()) {
            m_bStreams = false;
            m_world.expect(m_pClient->endContent() || !m_stage.isKind(), "the end of the answer is refused");
            m_world.expect(!m_due.empty() || !m_pClient->endContent(), "an answer ends twice");
            answerLater();
        } else {
            QTimer::singleShot(static_cast<int>(m_random.size(200)), m_pClient.get(), [this] { sendMore(); });
        }
    }
    void over()
    {
        m_world.expect(!m_pClient || !m_pClient->isConnected(), "connected behind the end");
        m_bOver = true;
        m_due.clear();
        m_bStreams = false;
    }
    void cut()
    {
        ++m_stage.nCuts;
        m_pClient->shutdown();
        m_world.expect(m_bOver, "shut down, and disconnected() has not come");
    }
    void act()
    {
        if (m_stage.bFinishing || !m_pClient || m_random.chance(0.7))
            return;
        const auto what = m_random.below(m_stage.bCalm ? 4 : 12);
        if (what < 2)
            m_stage.nestedLoop();
        else if (what == 2)
            m_world.work(m_random.size(5000));
        else if (what == 4 && !m_bOver && m_random.chance(0.5))
            cut();
        else if (what == 5 && m_random.chance(0.5))
            destroy();
    }

    struct Due {
        Exchange* pExchange;
        bool bAdmitted;
    };
    static bool isStreamed(const Due& due)
    {
        return due.bAdmitted && due.pExchange->hasBody() && due.pExchange->framing != eLength;
    }
    void answer(const Due& due)
    {
        Exchange& e = *due.pExchange;
        HttpResponseHeader header(due.bAdmitted ? e.nStatus : 401, QStringLiteral("So"));
        QByteArray body;
        if (!due.bAdmitted) {
            const QByteArray challenge = m_stage.guard.challenge(e);
            header.addValue(QStringLiteral("WWW-Authenticate"), QString::fromLatin1(challenge));
            body = e.bHead || m_random.chance(0.5) ? QByteArray() : bytesOf(0, 100);
        } else if (!e.isMultipart()) {
            body = answerOf(e); // of HEAD, too, which is not sent
        }
        if (due.bAdmitted && e.isMultipart())
            header.addValue(
                QStringLiteral("Content-Type"), QStringLiteral("multipart/x-mixed-replace; boundary=frame"));
        if (isStreamed(due) && (e.framing == eChunked || e.framing == eParts))
            header.addValue(QStringLiteral("Transfer-Encoding"), QStringLiteral("chunked"));
        else if (!isStreamed(due) && e.nStatus != 204)
            header.setContentLength(e.bHead && due.bAdmitted ? e.nAnswer : body.size());
        if (due.bAdmitted && e.bClose && !e.closesByRequest())
            header.addValue(QStringLiteral("Connection"), QStringLiteral("close"));
        if (due.bAdmitted && e.closesByAnswer())
            m_due.clear(); // what was asked behind it is not answered any more
        if (m_random.chance(0.05))
            m_pClient->response(HttpResponseHeader(103, QStringLiteral("Soon")), false, nullptr);
        sim::trace("answers %d", e.nNumber);
        ++m_nFinishedDue;
        if (isStreamed(due) || (!m_bStreams && m_random.chance(0.3))) {
            m_bStreams = true;
            cutIntoPieces(due, body);
            m_pClient->response(header, true, nullptr);
            sendMore();
        } else {
            SharedPoolBuffer buffer = m_stage.pool->getBuffer();
            buffer.setData(body.constData(), body.size());
            m_pClient->response(header, false, &buffer);
        }
    }
    void cutIntoPieces(const Due& due, const QByteArray& body)
    {
        m_pieces.clear();
        m_pPictures = due.bAdmitted && due.pExchange->isMultipart() ? due.pExchange : nullptr;
        for (int at = 0; at < body.size();) {
            const QByteArray piece = body.mid(at, static_cast<int>(m_random.size(100000)));
            m_pieces.push_back(piece);
            at += piece.size();
        }
        if (m_pPictures == nullptr)
            return;
        m_pPictures->parts.clear();
        for (int i = 0; i < m_pPictures->nAnswer; ++i)
            m_pieces.push_back(partOf(i));
    }

    Stage& m_stage;
    sim::World& m_world = m_stage.world;
    sim::Random& m_random = m_world.random();
    std::unique_ptr<HttpResponseClient> m_pClient;
    std::deque<Due> m_due; // asked, and not answered yet
    int m_nFinishedDue = 0; // responseFinished() that must come
    int m_nLast = 0; // number
    QByteArray m_body; // of a chunked request
    bool m_bStreams = false;
    std::deque<QByteArray> m_pieces; // of the streamed answer, still to be sent
    Exchange* m_pPictures = nullptr; // that it shows
    bool m_bOver = false;
};

} // namespace web
