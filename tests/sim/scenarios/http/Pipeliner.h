// A raw peer that asks many things at once, reads when it likes, and gets every answer whole and in order.
#pragma once

#include "sim/scenarios/http/Exchange.h"

#include "http/HttpMessageReader_p.h"

#include <KepNuvikaUtil/HttpResponseHeader.h>

#include <algorithm>
#include <memory>

namespace web
{
class Pipeliner
{
public:
    Pipeliner(Stage& stage) : m_stage(stage), m_random(stage.world.random().next())
    {
        QByteArray all;
        for (std::uint64_t left = m_random.size(30); left > 0; --left) {
            Exchange& e = stage.newExchange();
            e.login = eNone;
            e.asking = e.asking == eUpload ? eWithBody : e.asking == eUploadHalf ? eUploadChunked : e.asking;
            if (m_bLazy && e.hasBody() && !e.isMultipart())
                e.nAnswer = 300000;
            m_asked.push_back(&e);
            all += bytesFor(e);
            m_bStrict = m_nExpected == 0;
            if (m_nExpected == 0 && (e.closesByRequest() || e.closesByAnswer())) {
                m_nExpected = m_asked.size();
                m_bEnds = true;
                if (m_random.chance(0.7))
                    break;
            }
        }
        m_nExpected = m_nExpected == 0 ? m_asked.size() : m_nExpected;
        m_bEnds = m_bEnds || m_bHalfCloses;
        m_pPeer = &stage.world.dial("127.0.0.1", stage.nPort, [this, all](sim::Peer& peer) {
            peer.onConnected = [this, all, &peer] {
                write(all);
                peer.stall(m_bLazy);
                later(m_random.size(20000), [&peer] { peer.stall(false); });
            };
            peer.onBytes = [this](const QByteArray& bytes) { read(bytes); };
            peer.onEnd = [this] {
                sim::trace("a pipeliner's end");
                m_bOver = true;
                if (m_reader.endOfStream())
                    take();
            };
            peer.onFailure = [this](int error) {
                sim::trace("a pipeliner's failure: %d", error);
                m_world.expect(
                    !m_stage.isKind() || !m_bStrict, "a connection fails with %d: %s", error, text().c_str());
                m_bOver = true;
            };
        });
    }

    bool isOver() const { return m_bOver || (m_nAnswered == m_nExpected && !m_bEnds); }
    void finish() { m_pPeer->stall(false); }
    void close()
    {
        m_pPeer->onBytes = nullptr;
        m_pPeer->onEnd = nullptr;
        m_pPeer->onFailure = nullptr;
        m_pPeer->close();
    }
    std::string text() const
    {
        return std::to_string(m_nAnswered) + " of " + std::to_string(m_nExpected) + " answers, next is "
            + std::to_string(m_nAnswered < m_asked.size() ? m_asked[m_nAnswered]->nNumber : 0);
    }
    void check() const
    {
        m_world.expect(isOver(), "waits in vain: %s", text().c_str());
        m_world.expect(
            !m_stage.isKind() || !m_bStrict || m_nAnswered == m_nExpected, "ends early: %s", text().c_str());
    }

private:
    QByteArray bytesFor(const Exchange& e) const
    {
        QByteArray bytes = e.bHead ? "HEAD" : e.asking == ePlain ? "GET" : "PUT";
        bytes += " /" + QByteArray::number(e.nNumber) + " HTTP/1.1\r\nHost: here\r\n";
        if (e.closesByRequest())
            bytes += "Connection: close\r\n";
        const QByteArray body = askedOf(e);
        if (e.asking == eUploadChunked) {
            bytes += "Transfer-Encoding: chunked\r\n\r\n";
            for (int at = 0; at < body.size(); at += 5000)
                bytes += QByteArray::number(std::min(5000, body.size() - at), 16) + "\r\n"
                    + body.mid(at, 5000) + "\r\n";
            return bytes + "0\r\n\r\n";
        }
        if (e.asking != ePlain)
            bytes += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
        return bytes + "\r\n" + body;
    }
    void write(QByteArray bytes)
    {
        const int size = m_random.chance(0.3) ? bytes.size() : static_cast<int>(m_random.size(100000));
        m_pPeer->write(bytes.left(size));
        const QByteArray rest = bytes.mid(size);
        if (!rest.isEmpty() && !m_pPeer->isOver())
            later(m_random.size(300), [this, rest] { write(rest); });
        else if (m_bHalfCloses && !m_pPeer->isOver())
            later(m_random.size(300), [this] { m_pPeer->end(); });
    }
    void later(std::uint64_t ms, const std::function<void()>& event)
    {
        m_world.after(ms, [event, alive = std::weak_ptr<bool>(m_pAlive)] {
            if (!alive.expired())
                event();
        });
    }
    void read(const QByteArray& bytes)
    {
        using Event = Nuvika::HttpMessageReader::Event;
        m_reader.feed(bytes.constData(), bytes.size());
        for (Event event = m_reader.next(); event != Event::NeedMore; event = m_reader.next()) {
            m_world.expect(event != Event::Failed && m_nAnswered < m_nExpected,
                "an answer to nobody, or none: %.100s", bytes.constData());
            if (event == Event::Head)
                readHead(HttpResponseHeader::fromBytes(m_reader.data(), m_reader.size()));
            else if (event == Event::Content)
                m_body.append(m_reader.data(), m_reader.size());
            else if (!m_bInterim)
                take();
        }
        if (!m_stage.bFinishing && !m_bHalfCloses && m_random.chance(0.1)) { // else it had 5 s
            m_pPeer->stall(true);
            later(m_random.size(20000), [this] { m_pPeer->stall(false); });
        }
    }
    void readHead(const HttpResponseHeader& header)
    {
        const Exchange& e = *m_asked[m_nAnswered];
        m_bInterim = header.statusCode() == 103;
        m_world.expect(m_bInterim || header.statusCode() == e.nStatus, "request %d: status %d", e.nNumber,
            header.statusCode());
        m_reader.setBody(e.hasBody() && !m_bInterim
                ? Nuvika::HttpBody::fromFields(header, Nuvika::HttpBody::UntilEnd)
                : Nuvika::HttpBody());
    }
    void take()
    {
        Exchange& e = *m_asked[m_nAnswered];
        QByteArray whole = e.hasBody() ? answerOf(e) : QByteArray();
        if (e.isMultipart()) {
            whole.clear();
            for (const int part : e.parts)
                whole += partOf(part);
        }
        const QByteArray body = std::exchange(m_body, QByteArray());
        const bool bMayBeCut = m_bOver && !m_stage.isKind();
        m_world.expect(bMayBeCut ? whole.startsWith(body) : body == whole,
            "request %d: %d of %d bytes, or others", e.nNumber, body.size(), whole.size());
        ++m_nAnswered;
        e.outcome = eFinished;
    }

    Stage& m_stage;
    sim::World& m_world = m_stage.world;
    sim::Random m_random;
    sim::Peer* m_pPeer = nullptr;
    const bool m_bLazy = m_random.chance(0.2); // reads late, and the server has to wait
    const bool m_bHalfCloses = !m_bLazy && m_random.chance(0.3); // behind what it asks
    std::vector<Exchange*> m_asked;
    std::size_t m_nExpected = 0;
    std::size_t m_nAnswered = 0;
    bool m_bEnds = false; // the server, behind the last that it answers
    bool m_bStrict = true; // nothing stands behind the last request
    Nuvika::HttpMessageReader m_reader{Nuvika::HttpMessageReader::Grade::Strict};
    QByteArray m_body; // of the answer that comes
    bool m_bInterim = false; // as this
    bool m_bOver = false;
    std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true);
};

} // namespace web
