// A raw peer that asks many things at once, reads when it likes, and gets every answer whole and in order.
#pragma once

#include "sim/scenarios/http/Exchange.h"

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
            m_asked.push_back(&e);
            all += bytesFor(e);
            m_bStrict = m_nExpected == 0;
            if (m_nExpected == 0 && (e.closesByRequest() || e.closesByAnswer())) {
                m_nExpected = m_asked.size();
                if (m_random.chance(0.7))
                    break;
            }
        }
        m_nExpected = m_nExpected == 0 ? m_asked.size() : m_nExpected;
        m_pPeer = &stage.world.dial("127.0.0.1", stage.nPort, [this, all](sim::Peer& peer) {
            peer.onConnected = [this, all] { write(all); };
            peer.onBytes = [this](const QByteArray& bytes) { read(bytes); };
            peer.onEnd = [this] {
                sim::trace("a pipeliner's end");
                if (m_nAnswered < m_asked.size() && m_in.contains("\r\n\r\n"))
                    readAnswer();
                m_bOver = true;
            };
            peer.onFailure = [this](int error) {
                sim::trace("a pipeliner's failure: %d", error);
                m_stage.world.expect(
                    !m_stage.isKind() || !m_bStrict, "a connection fails with %d: %s", error, text().c_str());
                m_bOver = true;
            };
        });
    }

    bool isOver() const { return m_bOver || m_nAnswered == m_nExpected; }
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
    // At the end of the run: the last answer may have lasted until the connection's end.
    void check() const
    {
        m_stage.world.expect(isOver(), "waits in vain: %s", text().c_str());
        if (!m_stage.isKind() || !m_bStrict)
            return;
        const bool bByEnd = m_nAnswered + 1 == m_nExpected && m_asked[m_nAnswered]->closesByAnswer()
            && m_asked[m_nAnswered]->hasBody() && !m_in.isEmpty();
        m_stage.world.expect(m_nAnswered == m_nExpected || bByEnd, "ends early: %s", text().c_str());
        if (m_nAnswered == m_nExpected || !bByEnd)
            return;
        Pipeliner last(*this);
        const int end = last.m_in.indexOf("\r\n\r\n");
        last.take(*last.m_asked[last.m_nAnswered], last.m_in.mid(end + 4));
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
    }
    void later(std::uint64_t ms, const std::function<void()>& event)
    {
        m_stage.world.after(ms, [event, alive = std::weak_ptr<bool>(m_pAlive)] {
            if (!alive.expired())
                event();
        });
    }
    void read(const QByteArray& bytes)
    {
        m_in += bytes;
        while (m_nAnswered < m_asked.size() && readAnswer()) { }
        m_stage.world.expect(
            m_nAnswered < m_asked.size() || m_in.isEmpty(), "an answer to nobody: %.100s", m_in.constData());
        if (!m_stage.bFinishing && m_random.chance(0.1)) {
            m_pPeer->stall(true);
            later(m_random.size(20000), [this] { m_pPeer->stall(false); });
        }
    }
    // False when more must come.
    bool readAnswer()
    {
        const int end = m_in.indexOf("\r\n\r\n");
        if (end < 0)
            return false;
        Exchange& e = *m_asked[m_nAnswered];
        const QByteArray head = m_in.left(end + 2);
        const int status = head.mid(9, 3).toInt();
        const QByteArray before = std::exchange(m_in, m_in.mid(end + 4));
        if (status == 103)
            return true;
        QByteArray body;
        m_stage.world.expect(status == e.nStatus, "request %d: status %d", e.nNumber, status);
        if (e.hasBody() && !readBody(head, &body)) {
            m_in = before;
            return false;
        }
        take(e, body);
        return true;
    }
    bool readBody(const QByteArray& head, QByteArray* body)
    {
        const QByteArray length = "\r\nContent-Length: ";
        const int at = head.toLower().indexOf(length.toLower());
        if (at >= 0) {
            const int size
                = head.mid(at + length.size(), head.indexOf('\r', at + 2) - at - length.size()).toInt();
            *body = m_in.left(size);
            m_in = m_in.mid(size);
            return body->size() == size;
        }
        if (head.toLower().contains("\r\ntransfer-encoding: chunked\r\n"))
            return unchunk(&m_in, body);
        m_stage.world.expect(!m_bOver, "bytes behind the end");
        *body = m_in;
        return false; // the end of the connection is looked at by check()
    }
    static bool unchunk(QByteArray* in, QByteArray* body)
    {
        for (int at = 0;;) {
            const int end = in->indexOf("\r\n", at);
            if (end < 0)
                return false;
            const int size = in->mid(at, end - at).toInt(nullptr, 16);
            if (in->size() < end + 2 + size + 2)
                return false;
            *body += in->mid(end + 2, size);
            at = end + 2 + size + 2;
            if (size == 0) {
                *in = in->mid(at);
                return true;
            }
        }
    }
    void take(Exchange& e, const QByteArray& body)
    {
        QByteArray whole = e.hasBody() ? answerOf(e) : QByteArray();
        if (e.isMultipart()) {
            whole.clear();
            for (const int part : e.parts)
                whole += partOf(part);
        }
        m_stage.world.expect(
            body == whole, "request %d: %d of %d bytes, or others", e.nNumber, body.size(), whole.size());
        ++m_nAnswered;
        e.outcome = eFinished;
    }

    Stage& m_stage;
    sim::Random m_random;
    sim::Peer* m_pPeer = nullptr;
    std::vector<Exchange*> m_asked;
    std::size_t m_nExpected = 0;
    std::size_t m_nAnswered = 0;
    bool m_bStrict = true; // nothing stands behind the last request
    QByteArray m_in;
    bool m_bOver = false;
    std::shared_ptr<bool> m_pAlive = std::make_shared<bool>(true);
};

} // namespace web
