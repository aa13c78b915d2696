// The queue of the request engine: what is asked, and when it goes out.
#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "http/HttpCredentials_p.h"
#include "http/HttpRequests_p.h"
#include "platform/ErrorCodes_p.h"

#include <algorithm>
#include <iterator>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kBodyWithHead = 1024; // shorter bodies leave in one write with the head

QString withoutBrackets(const QString& host)
{
    const bool bBrackets = host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']'));
    return bBrackets ? host.mid(1, host.size() - 2) : host;
}

HttpFailure cancelledFailure()
{
    return {HttpFailure::eCancelled, ErrorCodes::kCancelled, QStringLiteral("the request was cancelled")};
}
} // namespace

HttpRequestEngine::HttpRequestEngine(const char* traceName, HttpTransport& transport,
    HttpRequestListener& listener, const QString& host, unsigned short port)
    : m_traceName(traceName), m_transport(transport), m_listener(listener), m_host(withoutBrackets(host)),
      m_nPort(port)
{
    m_transport.setPlacer(*this);
    m_uploadEndTimer.setSingleShot(true);
    m_refusalTimer.setSingleShot(true);
    QObject::connect(&m_uploadEndTimer, &QTimer::timeout, &m_uploadEndTimer, [this] { endUpload(false); });
    QObject::connect(&m_refusalTimer, &QTimer::timeout, &m_refusalTimer, [this] { failRefused(); });
}

// No port on 80, the port everywhere else, 443 included. An IPv6 address stands in brackets, without its
// scope, which is nobody else's business (RFC 6874).
QString HttpRequestEngine::hostField() const
{
    const bool bAddress = m_host.contains(QLatin1Char(':'));
    const QString host
        = bAddress ? QLatin1Char('[') + m_host.section(QLatin1Char('%'), 0, 0) + QLatin1Char(']') : m_host;
    return m_nPort == 80 ? host : host + QLatin1Char(':') + QString::number(m_nPort);
}

// --- asking ----------------------------------------------------------------------------------------------

int HttpRequestEngine::enqueue(Request request)
{
    const int id = ++m_nLastId;
    request.nId = id;
    if (!request.problem.isEmpty()) {
        NUVIKA_WARNING(
            lcHttp, "%s::request: refused: %s; id:%d", m_traceName, qUtf8Printable(request.problem), id);
        m_refusalTimer.start(0);
    }
    m_requests.push_back(std::move(request));
    triggerNextRequest();
    return id;
}

int HttpRequestEngine::refuse(const QString& problem)
{
    Request request;
    request.problem = problem;
    return enqueue(std::move(request));
}

int HttpRequestEngine::request(const HttpRequestHeader& header, bool bStream, const SharedPoolBuffer* body,
    const QString& user, const QString& password, int nAuthMode)
{
    Request request;
    request.problem = HttpRequests::problemOf(header, user, password);
    request.header = header;
    const QString path = HttpRequests::encodedPath(header.path());
    if (path != header.path())
        request.header.setRequest(header.method(), path, header.majorVersion(), header.minorVersion());
    request.bStream = bStream;
    if (body != nullptr)
        request.body = *body;
    request.user = user;
    request.password = password;
    request.bOwnAuthorization = nAuthMode == eOwnAuthorization;
    if (!request.bOwnAuthorization && !user.isEmpty() && !password.isEmpty())
        setAuthorization(request.header, HttpCredentials::basic(user, password));
    request.bUploadChunked = header.value(QStringLiteral("transfer-encoding")) == QLatin1String("chunked")
        && request.body.isEmpty();
    const long long length = header.value(QStringLiteral("content-length")).toLongLong(); // above 4 GiB, too
    request.nUploadLeft = length - request.body.getBufferSize();
    request.bUpload = request.bUploadChunked || (header.hasContentLength() && request.nUploadLeft > 0);
    return enqueue(std::move(request));
}

int HttpRequestEngine::request(const HttpRequestHeader& header, const QByteArray& content,
    const QString& user, const QString& password, bool bStream)
{
    SharedPoolBuffer body;
    if (!content.isEmpty()) {
        body = m_pPool->getBuffer();
        body.setData(content.constData(), content.size());
    }
    return request(header, bStream, &body, user, password, 0);
}

void HttpRequestEngine::discardNonePendingRequest(int id)
{
    const auto found
        = std::find_if(m_requests.begin(), m_requests.end(), [id](const Request& r) { return r.nId == id; });
    if (found == m_requests.end() || found->bPending)
        return;
    NUVIKA_DEBUG(lcHttp, "%s::discardNonePendingRequest: remove request; id:%d", m_traceName, id);
    m_requests.erase(found);
}

bool HttpRequestEngine::cancelRequest(int id)
{
    const auto found
        = std::find_if(m_requests.begin(), m_requests.end(), [id](const Request& r) { return r.nId == id; });
    if (found == m_requests.end())
        return false;
    if (found->bPending || (found == m_requests.begin() && m_state == eConnecting)) {
        takeFront();
        m_uploadEndTimer.stop();
        closeConnection();
        clearReceiveState();
    } else {
        m_requests.erase(found);
    }
    m_failures.emplace_back(id, cancelledFailure());
    const Watched::Watch watch = m_session.watch();
    m_listener.cancelled(id);
    if (watch.holds())
        triggerNextRequest();
    return true;
}

HttpFailure HttpRequestEngine::failureOf(int id) const
{
    const auto found = std::find_if(
        m_failures.begin(), m_failures.end(), [id](const auto& failure) { return failure.first == id; });
    return found == m_failures.end() ? HttpFailure() : found->second;
}

void HttpRequestEngine::tellFailed(int id, const HttpFailure& failure)
{
    m_problem = failure.text;
    m_failures.emplace_back(id, failure);
    m_listener.failed(id);
}

// Cancelled are the requests of this moment; what a handler queues belongs to a new session.
void HttpRequestEngine::shutdown(bool bTell)
{
    const std::deque<Request> removed = std::exchange(m_requests, {});
    m_session.endSession();
    m_uploadEndTimer.stop();
    m_deadlines.clearAll();
    for (const Request& request : removed)
        m_failures.emplace_back(request.nId, cancelledFailure());
    closeConnection();
    clearReceiveState();
    const Watched::Watch watch = m_session.watch();
    for (const Request& request : removed) {
        // The other client's text differs by two letters.
        NUVIKA_DEBUG(lcHttp, "%s::shutdown: %s pending request; id:%d", m_traceName,
            bTell ? "removed" : "remove", request.nId);
        if (bTell)
            m_listener.cancelled(request.nId);
        if (!watch.lives())
            return;
    }
}

// One for each turn of the event loop: a handler may queue another.
void HttpRequestEngine::failRefused()
{
    const auto isRefused = [](const Request& r) { return !r.problem.isEmpty(); };
    const auto found = std::find_if(m_requests.begin(), m_requests.end(), isRefused);
    if (found == m_requests.end())
        return;
    if (std::any_of(std::next(found), m_requests.end(), isRefused))
        m_refusalTimer.start(0);
    const int id = found->nId;
    const HttpFailure failure{HttpFailure::eRefused, 0, found->problem};
    m_requests.erase(found);
    m_failures.clear(); // it has begun, in a way
    const Watched::Watch watch = m_session.watch();
    tellFailed(id, failure);
    if (watch.holds())
        triggerNextRequest();
}

// --- sending ---------------------------------------------------------------------------------------------

void HttpRequestEngine::triggerNextRequest()
{
    if (m_requests.empty() || !m_requests.front().problem.isEmpty())
        return;
    if (m_state == eConnected && isConnectionStale())
        closeConnection();
    if (m_state == eDisconnected) {
        NUVIKA_DEBUG(lcHttp, "%s::triggerNextRequest(): connect to host %s; request id:%d", m_traceName,
            qUtf8Printable(m_host), m_requests.front().nId);
        beginFront();
        m_state = eConnecting;
        m_deadlines.setLimit(HttpWaits::eConnect, m_timeLimits.nConnect);
        m_transport.connectToHost(m_host, m_nPort);
        return;
    }
    if (m_state != eConnected)
        return;
    beginFront();
    clearReceiveState();
    updateAuthorization(m_requests.front());
    writeRequest(m_requests.front());
}

void HttpRequestEngine::beginFront()
{
    if (std::exchange(m_requests.front().bBegun, true))
        return;
    m_problem.clear();
    m_failures.clear();
    m_deadlines.setLimit(HttpWaits::eRequest, m_timeLimits.nRequest);
}

// The server has ended the kept connection, or says what nobody asked for.
bool HttpRequestEngine::isConnectionStale() const
{
    return m_bUsed && (m_input.hasMore() || m_transport.hasPendingInput());
}

void HttpRequestEngine::writeRequest(Request& request)
{
    request.bPending = true;
    m_bReused = m_bUsed;
    const bool bHeadCarriesBody = !request.body.isEmpty() && request.body.getBufferSize() < kBodyWithHead;
    const auto* body = static_cast<const char*>(request.body.getBuffer());
    QByteArray head = request.header.toString().toLatin1();
    NUVIKA_DEBUG(
        lcHttp, "%s::triggerNextRequest(): id=%d;header='%s'", m_traceName, request.nId, head.constData());
    if (bHeadCarriesBody)
        head.append(body, request.body.getBufferSize());
    m_state = eWaitingHeader;
    m_transport.sendData(head.constData(), head.size());
    if (!bHeadCarriesBody && !request.body.isEmpty())
        m_transport.sendData(body, request.body.getBufferSize());
    limitExchange();
}
