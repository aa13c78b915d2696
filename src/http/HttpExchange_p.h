// Private: the requests that a server connection has received and whose answers are not complete, in order.
#pragma once

#include <KepNuvikaUtil/HttpResponseHeader.h>

#include <QtCore/QByteArray>

#include <deque>
#include <memory>

namespace Nuvika
{
// An answer that was given before the ones that it has to follow.
struct HttpAnswer {
    HttpResponseHeader header;
    QByteArray body;
    bool bMore = false;
};

struct HttpExchange {
    bool bHead = false; // asks for a head only
    bool bClose = false; // the connection closes behind the answer
    bool bOldKeepAlive = false; // an HTTP/1.0 client keeps a connection only where the answer says so
    bool bAnswered = false; // the owner has given the answer; it may wait or stream
    bool bStreaming = false; // the answer's content goes on
    QByteArray interim; // 1xx answers that have to follow, too
    std::unique_ptr<HttpAnswer> answer;
};

class HttpExchanges
{
public:
    bool isEmpty() const { return m_queue.empty(); }
    std::size_t size() const { return m_queue.size(); }
    HttpExchange& front() { return m_queue.front(); }
    const HttpExchange& front() const { return m_queue.front(); }
    HttpExchange& back() { return m_queue.back(); }
    HttpExchange& push()
    {
        m_queue.emplace_back();
        return m_queue.back();
    }
    void popFront()
    {
        m_queue.pop_front();
        m_nAnswered -= m_nAnswered > 0 ? 1 : 0;
    }
    void popBack() { m_queue.pop_back(); }
    void clear() { m_queue.clear(); }
    // Drops what is behind the first one, or in front of the last one.
    void keepFirst() { m_queue.erase(m_queue.begin() + 1, m_queue.end()); }
    void keepLast()
    {
        m_queue.erase(m_queue.begin(), m_queue.end() - 1);
        m_nAnswered = 0;
    }

    // Whose answer the owner gives next; null for none.
    HttpExchange* firstUnanswered()
    {
        m_nAnswered = m_nAnswered < m_queue.size() ? m_nAnswered : m_queue.size();
        while (m_nAnswered < m_queue.size() && m_queue[m_nAnswered].bAnswered)
            ++m_nAnswered;
        return m_nAnswered < m_queue.size() ? &m_queue[m_nAnswered] : nullptr;
    }

private:
    std::deque<HttpExchange> m_queue;
    std::size_t m_nAnswered = 0; // so many at the front are answered, at least
};
} // namespace Nuvika
