// Private: the state of one server-side HTTP connection.
#pragma once

#include <KepNuvikaUtil/HttpResponseClient.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include "core/PoolOwner_p.h"
#include "http/HttpLimits_p.h"
#include "http/HttpMessageReader_p.h"
#include "net/ChunkQueue_p.h"

#include <QtCore/QPointer>
#include <QtCore/QTimer>

#include <deque>

class HttpResponseClient::Private
{
public:
    Private(HttpResponseClient& client, int socketDescriptor, bool bSingleReceive);

    enum State {
        eDisconnected = 0,
        eConnected = 1, // waiting for a request head
        eWaitingContent = 2,
        eWaitingChunk = 3,
        eWaitingMultipart = 4,
        eEnding = 5 // nothing more is read or written; the peer gets time to read
    };

    // What the answer to a request needs to know of it.
    struct Exchange {
        bool bHead;
        bool bClose;
        bool bOldKeepAlive; // an HTTP/1.0 client keeps a connection only where the answer says so
    };

    void setLimits(const HttpReadLimits& limits)
    {
        m_limits = limits;
        m_reader.setLimits(limits);
    }
    void dataReceived(const char* data, int size);
    void respond(const HttpResponseHeader& header, bool bMore, const SharedPoolBuffer* body);
    bool sendContent(const KepNuvikaUtil::BUFFER* ranges, int count);
    bool endContent();
    void canSend();
    void allSent();
    void lost();
    void disconnect();
    bool isOutputWaiting() const { return m_bOutputWaits; }
    bool isOpen() const { return m_state != eDisconnected && m_state != eEnding; }
    // Behind a request or an answer that closes the connection nothing is a request any more.
    bool isBehindLastRequest() const { return m_bLastRequest && m_state == eConnected; }

private:
    bool parse(const char* data, int size);
    bool handle(Nuvika::HttpMessageReader::Event event);
    bool handleHead();
    bool handleContent();
    bool handleEnd();
    bool deliver(const char* content, int size);
    bool rejectRequest();
    void parseSideInput();
    void write(const KepNuvikaUtil::BUFFER* ranges, int count);
    void awaitAllSent();
    void beginEnding();
    void discard(int size);

    HttpResponseClient& m_client;

public:
    NuvikaTcpSocket m_socket;

private:
    Nuvika::PoolOwner m_pPool{new SharedBufferPool};
    State m_state = eDisconnected;
    HttpReadLimits m_limits;
    Nuvika::HttpMessageReader m_reader;
    HttpRequestHeader m_requestHeader;
    HttpResponseHeader m_responseHeader;
    SharedPoolBuffer m_content; // a collected request body
    std::size_t m_nContent = 0;
    const char* m_pWholeContent = nullptr; // the body, when it came in one piece
    long long m_nExpectedContentLength = -1;
    std::deque<Exchange> m_exchanges; // delivered and not yet answered
    Nuvika::ChunkQueue m_queue; // written and not yet taken by the socket
    QByteArray m_sideInput; // received while a handler runs or output waits
    bool m_bParsing = false;
    bool m_bEndWaits = false;
    bool m_bMoreContent = false;
    bool m_bChunkedResponse = false;
    bool m_bHeadOnly = false;
    bool m_bCloseAfter = false;
    bool m_bLastRequest = false;
    bool m_bOutputWaits = false; // the peer does not keep up: no further request is read
    int m_nFinishing = 0; // complete responses whose last bytes have not left
    bool m_bRejected = false; // a bad request: what the owner answers is the last
    int m_nDiscarded = 0;
    QTimer m_endTimer;
};
