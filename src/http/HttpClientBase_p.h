// Private: what a client of either kind holds, and the engine's reports as its signals.
#pragma once

#include <KepNuvikaUtil/HttpClientBase.h>

#include "http/HttpRequestEngine_p.h"

class HttpClientBase::Private : public Nuvika::HttpRequestListener
{
public:
    // The kind of client makes its transport first, and then the engine.
    Private() = default;
    virtual ~Private() = default;
    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    void responseHeader(int id, const HttpResponseHeader& header) override
    {
        emit m_pClient->responseHeaderReceived(id, header);
    }
    void finished(int id, const HttpResponseHeader& header, const char* content, int size) override
    {
        emit m_pClient->requestFinished(id, header, content, size, Marker());
    }
    void failed(int id) override { emit m_pClient->requestFailed(id); }
    void part(int id, const HttpResponseHeader& header, const char* type, const char* data, int size) override
    {
        emit m_pClient->multipartReplaceContent(id, header, type, data, size, Marker());
    }
    void chunk(int id, const HttpResponseHeader& header, const char* data, int size) override
    {
        emit m_pClient->contentChunk(id, header, data, size, Marker());
    }
    void socketError(int code) override { emit m_pClient->error(code); }
    void uploadEnded() override { emit m_pClient->sendEndOfUploadContentFinished(); }

    HttpClientBase* m_pClient = nullptr; // set by its constructor
    std::unique_ptr<Nuvika::HttpTransport> m_pTransport;
    std::unique_ptr<Nuvika::HttpRequestEngine> m_pEngine;

private:
    using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;
};
