// Private: the state of one server-side HTTP connection.
//
//     socket -> PendingInput -> HttpMessageReader -> [exchanges] -> signals
//     response() -> [exchanges] -> HttpResponseWriter -> socket
//
// Two rules hold it together: mayDeliver() says when the next event of the input goes to the owner, mayEnd()
// when the connection is over.
#pragma once

#include <KepNuvikaUtil/HttpResponseClient.h>

#include "http/CollectedContent_p.h"
#include "http/HttpExchange_p.h"
#include "http/HttpMessageReader_p.h"
#include "http/HttpResponseWriter_p.h"
#include "http/HttpServerTransport_p.h"
#include "http/HttpServerWait_p.h"
#include "net/PendingInput_p.h"
#include "net/ReceivePlacer_p.h"

#include <QtCore/QPointer>
#include <QtCore/QTimer>

class HttpResponseClient::Private final : private Nuvika::InputReader, private Nuvika::ReceivePlacer
{
public:
    template <class Socket>
    Private(HttpResponseClient& client, std::unique_ptr<Nuvika::AcceptedSocket<Socket>> transport);
    void begin(int socketDescriptor);

    enum State {
        eDisconnected = 0,
        eConnected = 1, // waiting for a request head
        eWaitingContent = 2,
        eWaitingChunk = 3,
        eWaitingMultipart = 4,
        eEnding = 5 // nothing more is read or written; the peer gets time to read
    };

    // Of the owner.
    void setTimeLimits(const HttpServerTimeLimits& limits);
    void setLimits(const HttpReadLimits& limits)
    {
        m_limits = limits;
        m_reader.setLimits(limits);
    }
    void respond(const HttpResponseHeader& header, bool bMore, KepNuvikaUtil::BUFFER body);
    bool sendContent(const KepNuvikaUtil::BUFFER* ranges, int count);
    bool endContent();
    void disconnect();
    bool isOpen() const { return m_state != eDisconnected && m_state != eEnding; }
    bool canSendContent() const { return isOpen() && !m_writer.isBehind() && m_pTransport->canSend(); }
    const HttpFailure& failure() const { return m_failure; }
    const Nuvika::HttpServerTransport& transport() const { return *m_pTransport; }

    // Of the socket.
    void dataReceived(const char* data, int size);
    void peerEnded(bool bAnnounced);
    void failed(int code);
    void canSend();
    void allSent();

private:
    int readInput(const char* data, int size) override;
    void readEnd(int code) override;
    void stallSource(bool bStall) override;
    iovec target() override;
    void placed(int bytes) override;
    bool read(const char* data, int size) override
    {
        dataReceived(data, size);
        return true;
    }

    bool mayDeliver() const;
    bool mayEnd();
    // Behind a request or an answer that closes the connection nothing is a request any more.
    bool isBehindLastRequest() const { return m_bNoMoreRequests && m_state == eConnected; }

    void handle(Nuvika::HttpMessageReader::Event event);
    void handleHead();
    void beginRequest(const Nuvika::HttpBody& body);
    void handleContent();
    void handleEnd();
    bool deliver();
    void rejectRequest(HttpFailure::Reason reason, const QString& why);
    void postResume();

    Nuvika::HttpExchange* exchangeToAnswer();
    void interim(Nuvika::HttpExchange& exchange, const QByteArray& bytes);
    void begin(const HttpResponseHeader& header, bool bMore, KepNuvikaUtil::BUFFER body);
    void finishFront();
    void advance();
    void lookAtOutput();
    void awaitAllSent();

    // The first one counts.
    void note(HttpFailure::Reason reason, int code, const QString& text);
    // False when this object is gone.
    bool tellError();
    void lost(int code);
    void endIfDue();
    void beginEnding();

    void startLimit(unsigned int ms);
    void tick();
    void timeUp();
    Nuvika::HttpServerWait waitsFor() const;
    void waitIsOver(Nuvika::HttpServerWait::Kind kind);

    HttpResponseClient& m_client;
    const std::unique_ptr<Nuvika::HttpServerTransport> m_pTransport;
    State m_state = eDisconnected;
    HttpFailure m_failure;
    HttpReadLimits m_limits;
    Nuvika::PendingInput m_input{*this};
    Nuvika::HttpMessageReader m_reader{Nuvika::HttpMessageReader::Strict};
    Nuvika::HttpExchanges m_exchanges;
    Nuvika::HttpResponseWriter m_writer{*m_pTransport};
    int m_nFinishing = 0; // complete responses whose last bytes have not left
    int m_nSent = 0; // those whose bytes have left, and of which the owner has not heard

    // The request that is being received.
    HttpRequestHeader m_requestHeader;
    Nuvika::CollectedContent m_content;
    int m_nRequestContentOffset = 0;
    long long m_nExpectedContentLength = -1;
    bool m_bRequestCloses = false;

    bool m_bNoMoreRequests = false;
    bool m_bInputEnded = false; // the peer's end was read
    bool m_bMayBeCut = false; // it was not announced, as TLS has it
    bool m_bRejecting = false; // inside error() for a bad request, which has no answer yet
    bool m_bTellingError = false;

    // One timer looks at everything that may last too long.
    QTimer m_timer;
    Nuvika::HttpServerWatch m_watch;
    quint64 m_nRequests = 0;
    quint64 m_nReceived = 0; // bytes

    // A connection whose end has begun and that makes no progress for so long is cut; 0: none.
    unsigned int m_nLimitMs = 0;
    unsigned int m_nSinceMs = 0;
    quint64 m_nProgress = 0;
    int m_nDiscarded = 0;
};
