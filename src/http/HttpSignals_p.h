// Private: the engine's reports as signals of a client.
#pragma once

#include "http/HttpRequestEngine_p.h"

namespace Nuvika
{
template <class Client>
class HttpSignals : public HttpRequestListener
{
public:
    explicit HttpSignals(Client& client) : m_client(client) { }

    void responseHeader(int id, const HttpResponseHeader& header) override
    {
        emit m_client.responseHeaderReceived(id, header);
    }
    void finished(int id, const HttpResponseHeader& header, const char* content, int size) override
    {
        emit m_client.requestFinished(id, header, content, size, Marker());
    }
    void failed(int id) override { emit m_client.requestFailed(id); }
    void cancelled(int /*id*/) override { }
    void part(int id, const HttpResponseHeader& header, const char* type, const char* data, int size) override
    {
        emit m_client.multipartReplaceContent(id, header, type, data, size, Marker());
    }
    void chunk(int id, const HttpResponseHeader& header, const char* data, int size) override
    {
        emit m_client.contentChunk(id, header, data, size, Marker());
    }
    void socketError(int code) override { emit m_client.error(code); }
    void uploadEnded() override { emit m_client.sendEndOfUploadContentFinished(); }

protected:
    ~HttpSignals() = default;
    Client& m_client;

private:
    using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;
};
} // namespace Nuvika
