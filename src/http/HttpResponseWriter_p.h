// Private: the writing half of a server-side HTTP connection: heads, framing, what the socket does not take
// at once, and when the last byte has left.
#pragma once

#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "http/HttpServerTransport_p.h"
#include "net/ChunkQueue_p.h"

namespace Nuvika
{
class HttpResponseWriter
{
public:
    // No content follows the head: it answers HEAD, or its status forbids one.
    enum Content { eContent, eHeadOnly };

    explicit HttpResponseWriter(HttpServerTransport& socket) : m_socket(socket) { }

    // Only the connection's end can tell the end of that response.
    static bool lastsUntilEnd(const HttpResponseHeader& header);

    // With bMore, end() follows behind any number of pieces.
    void begin(const HttpResponseHeader& header, Content content, bool bMore, KepNuvikaUtil::BUFFER body);
    void piece(const KepNuvikaUtil::BUFFER* ranges, int count);
    void end();
    void write(const QByteArray& bytes);

    // The peer does not keep up with what was written.
    bool isBehind() const { return m_bBehind; }
    // The socket has room again; true when the peer has caught up by that.
    bool drain();
    // Everything was given to the system; else the socket's sigAllSent() or a drain() follows.
    bool isAllSent();
    // What was given to the system, and to this writer: it grows while the connection lives.
    quint64 progress() const;
    // The connection is lost: nothing is kept from now on.
    void discard();

private:
    void write(const KepNuvikaUtil::BUFFER* ranges, int count);
    void writeChunk(const KepNuvikaUtil::BUFFER* prefix, const KepNuvikaUtil::BUFFER* ranges, int count);

    HttpServerTransport& m_socket;
    ChunkQueue m_queue; // written and not yet taken by the socket
    quint64 m_nWritten = 0;
    bool m_bChunked = false;
    bool m_bHeadOnly = false;
    bool m_bBehind = false;
    bool m_bDiscards = false;
};
} // namespace Nuvika
