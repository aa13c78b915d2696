#include <KepNuvikaUtil/HttpClientBase.h>

#include "core/Log_p.h"
#include "http/HttpClientBase_p.h"
#include "http/HttpRequests_p.h"

#include <cstdlib>

using namespace Nuvika;

namespace
{
const QString& jsonType()
{
    static const QString type = QStringLiteral("application/json");
    return type;
}
} // namespace

HttpClientBase::HttpClientBase(std::unique_ptr<Private> data, QObject* parent)
    : QObject(parent), d(std::move(data))
{
    d->m_pClient = this;
}

HttpClientBase::~HttpClientBase() = default;

// --- requests --------------------------------------------------------------------------------------------

int HttpClientBase::request(const HttpRequestHeader& header, bool stream, const SharedPoolBuffer* body,
    const QString& user, const QString& password, int authMode)
{
    return d->m_pEngine->request(header, stream, body, user, password, authMode);
}

int HttpClientBase::request(const HttpRequestHeader& header, const QByteArray& body, const QString& user,
    const QString& password, bool stream)
{
    return d->m_pEngine->request(header, body, user, password, stream);
}

int HttpClientBase::get(const QString& path, const QString& user, const QString& password, bool keepAlive)
{
    return getWithHeaderFields(path, {}, user, password, keepAlive);
}

int HttpClientBase::getJSON(const QString& path, const QString& user, const QString& password, bool keepAlive)
{
    return getWithHeaderFields(path, {{QStringLiteral("Accept"), jsonType()}}, user, password, keepAlive);
}

int HttpClientBase::getWithHeaderFields(const QString& path, const QMap<QString, QString>& fields,
    const QString& user, const QString& password, bool keepAlive)
{
    const QString host = d->m_pEngine->hostField();
    HttpRequestHeader header = HttpRequests::get(path, host, keepAlive && m_bKeepAlive);
    for (auto field = fields.begin(); field != fields.end(); ++field)
        header.setValue(field.key(), field.value());
    return request(header, QByteArray(), user, password);
}

int HttpClientBase::plainPost(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive)
{
    const QString host = d->m_pEngine->hostField();
    return request(HttpRequests::plainPost(path, host, content.size(), keepAlive && m_bKeepAlive), content,
        user, password);
}

int HttpClientBase::put(const QString& path, const QByteArray& content, const QString& user,
    const QString& password, bool keepAlive, const QString& contentType)
{
    HttpRequestHeader header = HttpRequests::make("PUT", path, d->m_pEngine->hostField());
    HttpRequests::addContent(header, contentType, content.size());
    HttpRequests::addConnection(header, keepAlive && m_bKeepAlive);
    return request(header, content, user, password);
}

int HttpClientBase::sendJSON(const char* method, const QString& path, const QByteArray& json,
    const QString& user, const QString& password, bool keepAlive)
{
    HttpRequestHeader header = HttpRequests::make(method, path, d->m_pEngine->hostField());
    header.addValue(QStringLiteral("Accept"), jsonType());
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-cache"));
    header.setContentType(jsonType());
    header.setContentLength(json.size());
    if (!keepAlive || !m_bKeepAlive)
        HttpRequests::addConnection(header, false);
    return request(header, json, user, password);
}

int HttpClientBase::postJSON(
    const QString& path, const QByteArray& json, const QString& user, const QString& password, bool keepAlive)
{
    return sendJSON("POST", path, json, user, password, keepAlive);
}

int HttpClientBase::putJSON(
    const QString& path, const QByteArray& json, const QString& user, const QString& password, bool keepAlive)
{
    return sendJSON("PUT", path, json, user, password, keepAlive);
}

int HttpClientBase::soapRequest(const QString& path, const QString& action, const QByteArray& content,
    const QString& user, const QString& password, bool keepAlive)
{
    NUVIKA_DEBUG(lcHttp, "%s::soapRequest: path='%s' / action='%s' content='%s'", d->m_pEngine->traceName(),
        qUtf8Printable(path), qUtf8Printable(action), content.constData());
    const QString host = d->m_pEngine->hostField();
    return request(HttpRequests::soap(path, host, action, content.size(), keepAlive && m_bKeepAlive), content,
        user, password);
}

int HttpClientBase::postMultipartFormData(const QString& path, const QByteArray& content,
    const QString& disposition, const QString& contentType, const QString& user, const QString& password)
{
    QString problem = HttpRequests::problemOfText("the disposition", disposition);
    if (problem.isEmpty())
        problem = HttpRequests::problemOfText("the part's content type", contentType);
    if (!problem.isEmpty())
        return d->m_pEngine->refuse(problem);
    const QByteArray boundary = "----------------nuvika" + QByteArray::number(std::rand() % 100000);
    const QByteArray body = "--" + boundary + "\r\nContent-Disposition: form-data; " + disposition.toUtf8()
        + "\r\nContent-Type: " + contentType.toUtf8() + "\r\n\r\n" + content + "\r\n--" + boundary + "--\r\n";
    HttpRequestHeader header(QStringLiteral("POST"), path);
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-cache"));
    header.addValue(QStringLiteral("Host"), d->m_pEngine->hostField());
    header.addValue(QStringLiteral("Content-Type"),
        QLatin1String("multipart/form-data; boundary=") + QLatin1String(boundary));
    header.addValue(QStringLiteral("Accept"), QStringLiteral("*/*"));
    header.setContentLength(body.size());
    // The line end in the value is wanted: the head ends there, and the body begins with an empty line.
    header.addValue(QStringLiteral("Connection"), QStringLiteral("Keep-Alive\r\n"));
    return request(header, body, user, password);
}

bool HttpClientBase::sendUploadContentChunk(int id, const char* data, int size, bool last)
{
    return d->m_pEngine->sendUploadContentChunk(id, data, size, last);
}

void HttpClientBase::sendEndOfUploadContent() { d->m_pEngine->sendEndOfUploadContent(); }

// --- the queue, and what is known ------------------------------------------------------------------------

int HttpClientBase::numOfPendingRequests() const { return d->m_pEngine->numOfPendingRequests(); }

void HttpClientBase::discardNonePendingRequest(int id) { d->m_pEngine->discardNonePendingRequest(id); }

void HttpClientBase::setReadLimits(const HttpReadLimits& limits) { d->m_pEngine->setLimits(limits); }

QHostAddress HttpClientBase::lastLocalAddress() const { return d->m_pEngine->lastLocalAddress(); }

QHostAddress HttpClientBase::lastPeerAddress() const { return d->m_pEngine->lastPeerAddress(); }

QString HttpClientBase::errorString() const { return d->m_pEngine->problem(); }

bool HttpClientBase::isConnectionReused() const { return d->m_pEngine->isConnectionReused(); }

void HttpClientBase::setTimeLimits(const HttpTimeLimits& limits) { d->m_pEngine->setTimeLimits(limits); }

void HttpClientBase::setRetryPolicy(const HttpRetryPolicy& policy) { d->m_pEngine->setRetryPolicy(policy); }

bool HttpClientBase::cancelRequest(int id) { return d->m_pEngine->cancelRequest(id); }

HttpFailure HttpClientBase::failureOf(int id) const { return d->m_pEngine->failureOf(id); }
