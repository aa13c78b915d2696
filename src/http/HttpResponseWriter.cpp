#include "http/HttpResponseWriter_p.h"

#include "http/HttpMessageReader_p.h"

#include <algorithm>
#include <vector>

using namespace Nuvika;

namespace
{
KepNuvikaUtil::BUFFER rangeOf(const QByteArray& bytes) { return {bytes.constData(), bytes.size()}; }

bool isChunked(const HttpResponseHeader& header)
{
    return HttpBody::fromFields(header, HttpBody::None).kind == HttpBody::Chunked;
}

bool hasNoContent(int status) { return (status >= 100 && status < 200) || status == 204 || status == 304; }
} // namespace

bool HttpResponseWriter::lastsUntilEnd(const HttpResponseHeader& header)
{
    return !header.hasContentLength() && !isChunked(header) && !hasNoContent(header.statusCode());
}

// Head and body leave in one system call.
void HttpResponseWriter::begin(
    const HttpResponseHeader& header, Content content, bool bMore, KepNuvikaUtil::BUFFER body)
{
    m_bHeadOnly = content == eHeadOnly || hasNoContent(header.statusCode());
    m_bChunked = isChunked(header) && bMore;
    const QByteArray head = header.HttpResponseHeader::toString().toLatin1(); // not an heir's
    const KepNuvikaUtil::BUFFER first = rangeOf(head);
    if (m_bHeadOnly || body.nLen <= 0) {
        write(&first, 1);
    } else if (m_bChunked) {
        writeChunk(&first, &body, 1);
    } else {
        const KepNuvikaUtil::BUFFER ranges[] = {first, body};
        write(ranges, 2);
    }
}

void HttpResponseWriter::piece(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (m_bHeadOnly)
        return;
    if (m_bChunked)
        writeChunk(nullptr, ranges, count);
    else
        write(ranges, count);
}

void HttpResponseWriter::end()
{
    if (m_bChunked && !m_bHeadOnly)
        write(QByteArrayLiteral("0\r\n\r\n"));
}

void HttpResponseWriter::writeChunk(
    const KepNuvikaUtil::BUFFER* prefix, const KepNuvikaUtil::BUFFER* ranges, int count)
{
    long long size = 0;
    for (int i = 0; i < count; ++i)
        size += std::max(ranges[i].nLen, 0);
    if (size == 0)
        return; // an empty chunk would be the end
    const QByteArray frame = QByteArray::number(size, 16) + "\r\n";
    std::vector<KepNuvikaUtil::BUFFER> framed;
    framed.reserve(static_cast<std::size_t>(count) + 3);
    if (prefix != nullptr)
        framed.push_back(*prefix);
    framed.push_back(rangeOf(frame));
    framed.insert(framed.end(), ranges, ranges + count);
    framed.push_back({"\r\n", 2});
    write(framed.data(), static_cast<int>(framed.size()));
}

void HttpResponseWriter::write(const QByteArray& bytes)
{
    const KepNuvikaUtil::BUFFER range = rangeOf(bytes);
    write(&range, 1);
}

void HttpResponseWriter::write(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (m_bDiscards)
        return;
    for (int i = 0; i < count; ++i)
        m_nWritten += static_cast<quint64>(std::max(ranges[i].nLen, 0));
    if (!m_queue.isEmpty() || !m_socket.sendRanges(ranges, count)) {
        for (int i = 0; i < count; ++i)
            m_queue.append(ranges[i].pData, std::max(ranges[i].nLen, 0));
    }
    m_bBehind = !m_queue.isEmpty() || !m_socket.canSend();
}

bool HttpResponseWriter::drain()
{
    m_queue.drain([this] { return m_socket.canSend(); },
        [this](const char* data, int size) { m_socket.sendData(data, size); });
    if (!m_bBehind || !m_queue.isEmpty() || !m_socket.canSend())
        return false;
    m_bBehind = false;
    return true;
}

bool HttpResponseWriter::isAllSent()
{
    return m_queue.isEmpty() && (m_bDiscards || !m_socket.notifyWhenAllSent());
}

quint64 HttpResponseWriter::progress() const { return m_nWritten + m_socket.bytesSent(); }

void HttpResponseWriter::discard()
{
    m_bDiscards = true;
    m_bBehind = false;
    m_queue.clear();
}
