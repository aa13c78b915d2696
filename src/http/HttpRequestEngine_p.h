// Private: the request queue and response state machine of the HTTP clients, over a transport of their
// choice.
//
// One request at a time over one connection that is kept where the server allows it. A 401 is answered once,
// a connection lost three times gives the request up. Everything is reported to a listener, which may delete
// the engine, shut it down or queue requests from inside any report: what must be true of the engine then is
// true before the report, or `m_session` (until shutdown) and `m_connection` (one connection) tell.
#pragma once

#include <KepNuvikaUtil/HttpAuthenticator.h>
#include <KepNuvikaUtil/HttpFailure.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/HttpRetryPolicy.h>
#include <KepNuvikaUtil/HttpTimeLimits.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include "core/Deadlines_p.h"
#include "core/PoolOwner_p.h"
#include "core/Watched_p.h"
#include "http/CollectedContent_p.h"
#include "http/HttpMessageReader_p.h"
#include "http/HttpTransport_p.h"
#include "net/PendingInput_p.h"
#include "net/ReceivePlacer_p.h"

#include <QtCore/QTimer>

#include <deque>
#include <memory>
#include <utility>
#include <vector>

namespace Nuvika
{
struct HttpWaits {
    enum Kind { eConnect, eFirstByte, eSilence, eRequest, eCount };
};

class HttpRequestListener
{
public:
    virtual void responseHeader(int id, const HttpResponseHeader& header) = 0;
    virtual void finished(int id, const HttpResponseHeader& header, const char* content, int size) = 0;
    virtual void failed(int id) = 0;
    virtual void cancelled(int id) = 0;
    virtual void part(int id, const HttpResponseHeader& header, const char* type, const char* data, int size)
        = 0;
    virtual void chunk(int id, const HttpResponseHeader& header, const char* data, int size) = 0;
    virtual void socketError(int code) = 0;
    virtual void uploadEnded() = 0;

protected:
    ~HttpRequestListener() = default;
};

class HttpRequestEngine final : public ReceivePlacer, private InputReader
{
public:
    HttpRequestEngine(const char* traceName, HttpTransport& transport, HttpRequestListener& listener,
        const QString& host, unsigned short port);

    enum Authorization { eOwnAuthorization = 1 }; // the mode of request() that leaves "Authorization" alone
    int request(const HttpRequestHeader& header, bool bStream, const SharedPoolBuffer* body,
        const QString& user, const QString& password, int nAuthMode);
    int request(const HttpRequestHeader& header, const QByteArray& content, const QString& user,
        const QString& password, bool bStream = false);
    // A request that fails for this reason, from the event loop.
    int refuse(const QString& problem);
    bool sendUploadContentChunk(int id, const char* data, int size, bool bLast);
    void sendEndOfUploadContent();
    int numOfPendingRequests() const { return static_cast<int>(m_requests.size()); }
    void discardNonePendingRequest(int id);
    bool cancelRequest(int id);
    HttpFailure failureOf(int id) const;
    // Removes every request; `bTell`: reports each as cancelled.
    void shutdown(bool bTell);

    void setLimits(const HttpReadLimits& limits)
    {
        m_limits = limits;
        m_reader.setLimits(limits);
    }
    void setTimeLimits(const HttpTimeLimits& limits) { m_timeLimits = limits; }
    void setRetryPolicy(const HttpRetryPolicy& policy) { m_retryPolicy = policy; }
    QString hostField() const;
    const char* traceName() const { return m_traceName; }
    // Of the request that was written last.
    bool isConnectionReused() const { return m_bReused; }
    QHostAddress lastLocalAddress() const { return m_lastLocalAddress; }
    QHostAddress lastPeerAddress() const { return m_lastPeerAddress; }
    // Of the last failure, in words.
    QString problem() const { return m_problem; }
    // The answer that was finished last ended with a connection that ended unannounced.
    bool mayAnswerBeCut() const { return m_bMayBeCut; }

    // Of the transport.
    iovec target() override;
    void placed(int bytes) override;
    bool read(const char* data, int size) override
    {
        dataReceived(data, size);
        return true;
    }
    enum End { eAnnounced = 0, eUnannounced = 1 }; // of a TLS connection without a goodbye
    void connected();
    void dataReceived(const char* data, int size)
    {
        noteProgress();
        m_input.received(data, size);
    }
    void disconnected(End end);
    void socketError(int code, const QString& problem); // `problem`: in words
    void allSent();

private:
    enum State {
        eDisconnected = 0,
        eConnecting = 1,
        eConnected = 2,
        eWaitingHeader = 3,
        eWaitingContent = 4,
        eWaitingMultipart = 5,
        eWaitingChunk = 6,
        eUploadEnded = 7
    };

    struct Request {
        int nId = 0;
        QString problem; // why it must not be sent
        HttpRequestHeader header;
        SharedPoolBuffer body;
        QString user;
        QString password;
        bool bBegun = false;
        bool bPending = false;
        bool bStream = false;
        bool bUpload = false;
        bool bUploadChunked = false;
        bool bUploadStarted = false; // pieces have gone that nobody keeps: it cannot be sent again
        bool bUploadComplete = false; // the last piece has gone
        long long nUploadLeft = 0; // of the announced length
        bool bOwnAuthorization = false;
        bool bAuthorizationReady = false;
        bool bHandedOut = false; // something of an answer's content
        int m_authFailedCounter = 0; // in a row
        int m_requestFailedCounter = 0;

        bool owesBody() const { return bUpload && (bUploadChunked ? !bUploadComplete : nUploadLeft > 0); }
    };

    // The queue.
    int enqueue(Request request);
    void failRefused();
    void triggerNextRequest();
    void beginFront();
    bool isConnectionStale() const;
    static void setAuthorization(HttpRequestHeader& header, const QByteArray& value);
    void updateAuthorization(Request& request);
    void writeRequest(Request& request);

    // Time.
    void limitExchange();
    void noteProgress()
    {
        if (m_timeLimits.nSilence > 0)
            m_lastProgressUs = monotonicUs();
        if (m_deadlines.isSet(HttpWaits::eFirstByte))
            m_deadlines.clear(HttpWaits::eFirstByte);
    }
    void deadlinePassed();
    bool hasPassed(HttpWaits::Kind kind);

    // The connection.
    int readInput(const char* data, int size) override;
    void readEnd(int code) override;
    void stallSource(bool bStall) override;
    void closeConnection();
    void connectionLost(bool bUnannounced, const HttpFailure& failure);
    void countLoss(const HttpFailure& failure);
    HttpFailure failureOfEnd(int code, const QString& problem) const;
    bool isGivenUp(Request& request, const HttpFailure& failure) const;
    void connectionEnded();
    void clearReceiveState();
    void endUpload(bool bCut);

    // The answer.
    bool isExchanging() const { return m_state >= eWaitingHeader && m_state <= eWaitingChunk; }
    void handle(HttpMessageReader::Event event);
    void handleHead();
    void handleLogin(HttpBody* body);
    HttpBody bodyOf(const Request& request);
    void handleContent();
    void handlePart();
    void handleEnd();
    bool isStreamedByLength() const;
    bool isCollecting() const;
    Request takeFront();
    void finishStreamed();
    bool finishFront();
    void noteHandedOut(Request& request);
    void failFront(const HttpFailure& failure, bool bClose);
    void tellFailed(int id, const HttpFailure& failure);
    void keepOrClose();
    bool isLoginRefused(const Request& request) const;
    void prepareRetry();

    const char* m_traceName;
    HttpTransport& m_transport;
    HttpRequestListener& m_listener;
    QString m_host; // an IPv6 address without its brackets
    quint16 m_nPort;
    std::deque<Request> m_requests;
    int m_nLastId = 0;
    State m_state = eDisconnected;
    bool m_bUsed = false; // the connection has carried an answer
    bool m_bReused = false; // it had, when the last request was written
    HttpReadLimits m_limits;
    PendingInput m_input{*this};
    QString m_endProblem; // of the end that waits there
    HttpMessageReader m_reader;
    std::shared_ptr<const HttpResponseHeader> m_pResponseHeader; // a handler may hold on to it
    QByteArray m_challenge;
    CollectedContent m_content; // of a streamed body of known length, its last piece
    long long m_nStreamed = 0; // bytes of a streamed body
    long long m_nExpectedContentLength = -1;
    int m_nResponseContentOffset = 0;
    bool m_bRetry401 = false; // the body of this answer is swallowed
    bool m_bCloseAfterResponse = false;
    bool m_bMayBeCut = false;
    HttpAuthenticator m_authenticator;
    bool m_bChallengeOnTrial = false; // no answer has accepted it yet
    QHostAddress m_lastLocalAddress;
    QHostAddress m_lastPeerAddress;
    QString m_problem;
    std::vector<std::pair<int, HttpFailure>> m_failures; // since a request began last
    HttpTimeLimits m_timeLimits;
    HttpRetryPolicy m_retryPolicy;
    Deadlines<HttpWaits> m_deadlines{[this] { deadlinePassed(); }};
    qint64 m_lastProgressUs = 0;
    qint64 m_nLastToSend = 0; // bytes that had not left when the limits were looked at
    qint64 m_firstPieceUs = 0; // of the answer; 0: none yet
    qint64 m_lastPieceUs = 0;
    bool m_bUploadSent = false; // all of it has left
    QTimer m_uploadEndTimer;
    QTimer m_refusalTimer;
    PoolOwner m_pPool{new SharedBufferPool};
    Watched m_session;
    Watched m_connection;
};
} // namespace Nuvika
