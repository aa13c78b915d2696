// The request engine's credentials: those that go with a request, and the one answer to a 401.
#include "http/HttpRequestEngine_p.h"

#include "core/Log_p.h"
#include "http/HttpChallenge_p.h"
#include "http/HttpCredentials_p.h"

#include <algorithm>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kMax401 = 1;

// The values of a field in raw head bytes, as they came. A line that begins with a blank continues the one
// before it.
QList<QByteArray> rawFieldValues(const char* head, int size, const char* name)
{
    const QByteArray prefix = QByteArray(name) + ':';
    QList<QByteArray> values;
    bool bTaken = false;
    for (const QByteArray& line : QByteArray::fromRawData(head, size).split('\n')) {
        if (line.startsWith(' ') || line.startsWith('\t')) {
            if (bTaken)
                values.last() += ' ' + line.trimmed();
            continue;
        }
        bTaken = line.size() >= prefix.size()
            && qstrnicmp(line.constData(), prefix.constData(), uint(prefix.size())) == 0;
        if (bTaken)
            values.append(line.mid(prefix.size()).trimmed());
    }
    return values;
}
} // namespace

// A Connection value with a line end of its own ends the head: what stands behind it is lost.
void HttpRequestEngine::setAuthorization(HttpRequestHeader& header, const QByteArray& value)
{
    const QString connection = QStringLiteral("Connection");
    const QString ending = header.value(connection);
    const bool bEndsHead = ending.endsWith(QLatin1Char('\n'));
    if (bEndsHead)
        header.removeValue(connection);
    header.setValue(HttpCredentials::field(), QString::fromLatin1(value));
    if (bEndsHead)
        header.addValue(connection, ending);
}

void HttpRequestEngine::updateAuthorization(Request& request)
{
    const HttpRequestHeader& header = request.header;
    if (request.bOwnAuthorization)
        m_authenticator.reset(); // in its turn: what was asked before may be sent again
    if (!m_authenticator.isNull() && !request.bOwnAuthorization && !request.bAuthorizationReady) {
        const QByteArray body = QByteArray::fromRawData(
            static_cast<const char*>(request.body.getBuffer()), request.body.getBufferSize());
        const QByteArray value = m_authenticator.nextDigestResponse(
            header.method().toLatin1(), header.path().toLatin1(), request.user, request.password, body);
        if (!value.isEmpty())
            setAuthorization(request.header, value);
        NUVIKA_DEBUG(lcHttp, "HttpClient::triggerNextRequest(): id=%d;updated \"Authorization\":%s",
            request.nId, value.constData());
    } else if (header.hasKey(HttpCredentials::field())) {
        NUVIKA_DEBUG(lcHttp, "HttpClient::triggerNextRequest(): id=%d;preset \"Authorization\":%s",
            request.nId, qUtf8Printable(header.value(HttpCredentials::field())));
    }
    request.bAuthorizationReady = false;
}

// What the status says about credentials.
void HttpRequestEngine::handleLogin(HttpBody* body)
{
    Request& front = m_requests.front();
    const int status = m_pResponseHeader->statusCode();
    const bool bDenied = status == 400 || status == 401 || status == 403;
    if (std::exchange(m_bChallengeOnTrial, false) && bDenied)
        m_authenticator.reset(); // kept is only what was accepted
    if (status != 401) {
        front.m_authFailedCounter = 0;
        return;
    }
    m_challenge = chooseChallenge(rawFieldValues(m_reader.data(), m_reader.size(), "WWW-Authenticate"));
    m_bRetry401 = ++front.m_authFailedCounter <= kMax401 && !front.bUploadStarted
        && (m_retryPolicy.kind == HttpRetryPolicy::eAlways || !isLoginRefused(front));
    if (m_bRetry401)
        body->bMultipart = false;
    else
        m_authenticator.reset();
}

// Another attempt would send what was refused: nothing, the same password, or the same nonce once more.
bool HttpRequestEngine::isLoginRefused(const Request& request) const
{
    if (request.user.isEmpty() || request.password.isEmpty())
        return true;
    const QByteArray sent = request.header.value(HttpCredentials::field()).toLatin1();
    int parametersAt = 0;
    if (!isDigestChallenge(m_challenge, &parametersAt))
        return sent == HttpCredentials::basic(request.user, request.password);
    const auto parameters = parseChallengeParameters(m_challenge.mid(parametersAt));
    const auto nonce = std::find_if(parameters.begin(), parameters.end(),
        [](const auto& parameter) { return parameter.first == "nonce"; });
    return nonce != parameters.end() && sent.contains("nonce=\"" + nonce->second + '"');
}

void HttpRequestEngine::prepareRetry()
{
    Request& front = m_requests.front();
    front.bPending = false;
    m_bCloseAfterResponse = m_bCloseAfterResponse || front.owesBody();
    const QByteArray body = QByteArray::fromRawData(
        static_cast<const char*>(front.body.getBuffer()), front.body.getBufferSize());
    m_authenticator.reset();
    QByteArray value = m_authenticator.digestResponse(m_challenge, front.header.method().toLatin1(),
        front.header.path().toLatin1(), front.user, front.password, body);
    m_bChallengeOnTrial = !value.isEmpty();
    if (value.isEmpty() && !front.user.isEmpty() && !front.password.isEmpty())
        value = HttpCredentials::basic(front.user, front.password);
    if (!value.isEmpty()) {
        setAuthorization(front.header, value);
        front.bOwnAuthorization = false; // ours now: sent again, it needs a nonce count of its own
    }
    front.bAuthorizationReady = true;
}
