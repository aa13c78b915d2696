// Private: the request queue and response state machine of the HTTP clients, over a transport of their
// choice.
//
// One request at a time over one connection that is kept where the server allows it. A 401 is answered once,
// a connection lost three times gives the request up. Everything is reported to a listener, which may delete
// the engine from inside any report.
#pragma once

#include <KepNuvikaUtil/HttpAuthenticator.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include "core/PoolOwner_p.h"
#include "core/Watched_p.h"
#include "http/HttpMessageReader_p.h"
#include "http/HttpTransport_p.h"
#include "net/ReceivePlacer_p.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

#include <deque>
#include <memory>

namespace Nuvika
{
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
    virtual void socketError(int code, const QString& problem) = 0;
    virtual void uploadEnded() = 0;

protected:
    ~HttpRequestListener() = default;
};

class HttpRequestEngine final : public ReceivePlacer
{
public:
    HttpRequestEngine(const char* traceName, HttpTransport& transport, HttpRequestListener& listener,
        const QString& host, unsigned short port);

    enum Authorization { eOwnAuthorization = 1 }; // the mode of request() that leaves "Authorization" alone
    int request(const HttpRequestHeader& header, bool bStream, const SharedPoolBuffer* body,
        const QString& user, const QString& password, int nAuthMode);
    int request(const HttpRequestHeader& header, const QByteArray& content, const QString& user,
        const QString& password);
    bool sendUploadContentChunk(int id, const char* data, int size, bool bLast);
    void sendEndOfUploadContent();
    int numOfPendingRequests() const { return static_cast<int>(m_requests.size()); }
    void discardNonePendingRequest(int id);
    // Removes every request; `bTell`: reports each as cancelled.
    void shutdown(bool bTell);

    void setLimits(const HttpReadLimits& limits)
    {
        m_limits = limits;
        m_reader.setLimits(limits);
    }
    QString hostField() const;
    QHostAddress lastLocalAddress() const { return m_lastLocalAddress; }
    QHostAddress lastPeerAddress() const { return m_lastPeerAddress; }

    // Of the transport.
    iovec target() override;
    void placed(int bytes) override;
    void connected();
    void dataReceived(const char* data, int size);
    void disconnected();
    void socketError(int code, const QString& problem); // `problem`: in words

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
        HttpRequestHeader header;
        SharedPoolBuffer body;
        QString user;
        QString password;
        bool bPending = false;
        bool bStream = false;
        bool bUpload = false;
        bool bUploadChunked = false;
        bool bUploadStarted = false; // pieces have gone that nobody keeps: it cannot be sent again
        bool bOwnAuthorization = false;
        bool bAuthorizationReady = false;
        int m_authFailedCounter = 0;
        int m_requestFailedCounter = 0;
    };

    void triggerNextRequest();
    static void setAuthorization(HttpRequestHeader& header, const QByteArray& value);
    void updateAuthorization(Request& request);
    void writeRequest(Request& request);
    void clearReceiveState();
    bool processInput();
    bool handle(HttpMessageReader::Event event);
    bool handleHead();
    HttpBody bodyOf(const Request& request);
    bool handleContent();
    bool handlePart();
    bool handleEnd();
    bool collect(const char* data, int size);
    bool deliverContent();
    bool willRetry401() const;
    void prepareRetry();
    bool failFront(bool bClose);
    bool finishFront(const char* content, int size);
    void endExchange();
    bool isExchanging() const { return m_state >= eWaitingHeader && m_state <= eWaitingChunk; }
    bool parseSideInput();
    void connectionLost();
    bool countLoss();
    void endUpload();

    const char* m_traceName;
    HttpTransport& m_transport;
    HttpRequestListener& m_listener;
    QString m_host;
    quint16 m_nPort;
    std::deque<Request> m_requests;
    int m_nLastId = 0;
    State m_state = eDisconnected;
    HttpReadLimits m_limits;
    HttpMessageReader m_reader;
    HttpResponseHeader m_responseHeader;
    QByteArray m_challenge;
    VariableBuffer m_content; // a collected body
    std::size_t m_nContent = 0;
    const char* m_pWholeContent = nullptr; // the body, when it came in one piece
    long long m_nExpectedContentLength = -1;
    bool m_bRetry401 = false; // the body of this answer is swallowed
    bool m_bCloseAfterResponse = false;
    HttpAuthenticator m_authenticator;
    QHostAddress m_lastLocalAddress;
    QHostAddress m_lastPeerAddress;
    QElapsedTimer m_idle; // since the last byte came
    bool m_bParsing = false;
    bool m_bEndWaits = false; // the connection ended while a handler was running
    QByteArray m_sideInput; // received while a handler was running
    QTimer m_uploadEndTimer;
    PoolOwner m_pPool{new SharedBufferPool};
    Watched m_watched;
};
} // namespace Nuvika
