// The session's requests and what answers them.
#include "rtsp/RtspSession_p.h"

#include "core/Log_p.h"

#include <QtCore/QMetaMethod>

#include <algorithm>
#include <array>
#include <utility>

using namespace Nuvika;

namespace
{
const QLatin1String kAuthorization("Authorization");
const QLatin1String kPublic("OPTIONS, GET_PARAMETER, SET_PARAMETER, ANNOUNCE, REDIRECT");
constexpr int kRedirect = 302;

bool isRedirect(int status)
{
    constexpr std::array<int, 6> kRedirects = {301, 302, 303, 305, 307, 308};
    return std::find(kRedirects.begin(), kRedirects.end(), status) != kRedirects.end();
}

QString statusText(const RtspHead& answer)
{
    return (QString::number(answer.status()) + QLatin1Char(' ') + answer.reason()).trimmed();
}
} // namespace

// --- sending ---------------------------------------------------------------------------------------------

// Whoever traces may destroy the session: callers touch nothing afterwards.
void RtspSession::request(Purpose purpose, const QString& method, const QString& url, const Fields& fields)
{
    Request request;
    request.purpose = purpose;
    request.method = method;
    request.url = url;
    request.fields = fields;
    send(request);
}

void RtspSession::send(Request& request)
{
    request.cseq = ++m_cseq;
    RtspHead head(request.method, request.url);
    head.addValue(QStringLiteral("CSeq"), QString::number(request.cseq));
    const QByteArray credentials = m_login.credentials(request.method.toLatin1(), request.url.toLatin1());
    if (!credentials.isEmpty())
        head.addValue(kAuthorization, QString::fromLatin1(credentials));
    head.addValue(QStringLiteral("User-Agent"), m_current.userAgent);
    if (!m_sessionId.isEmpty())
        head.addValue(QStringLiteral("Session"), m_sessionId);
    for (const auto& field : request.fields)
        head.addValue(field.first, field.second);
    if (request.purpose == Purpose::KeepAlive) {
        m_openKeepAlive = request;
    } else {
        m_open = request;
        if (request.purpose != Purpose::Teardown)
            m_deadlines.setLimit(RtspDeadlines::eAnswer, m_current.timeouts.nAnswer);
    }
    m_lastRequestWallMs = static_cast<qint64>(Clock::wallClockMs());
    sendText(head);
}

void RtspSession::sendText(const RtspHead& head)
{
    m_pConnection->send(head.toString().toLatin1());
    static const QMetaMethod kTrace = QMetaMethod::fromSignal(&RtspClient::messageSent);
    if (!m_client.isSignalConnected(kTrace))
        return;
    RtspHead shown = head;
    if (shown.hasKey(kAuthorization))
        shown.setValue(kAuthorization, QStringLiteral("..."));
    emit m_client.messageSent(shown.toString().toLatin1());
}

// None waits behind what the connection has not taken, and one that was not answered is given up.
void RtspSession::keepAlive()
{
    const int interval = RtspKeepAlive::intervalMs(m_nTimeout);
    const bool bNow = m_pConnection && m_pConnection->isAllSent();
    m_deadlines.setAbout(RtspDeadlines::eKeepAlive, bNow ? interval : std::min(interval, kStalledMs));
    if (bNow)
        request(Purpose::KeepAlive, m_keepAlive.method(), m_base);
}

// --- received --------------------------------------------------------------------------------------------

void RtspSession::message(const RtspHead& head, const QByteArray& headText, const QByteArray& body)
{
    const Watched::Watch watch = m_session.watch();
    emit m_client.messageReceived(headText + body);
    if (!watch.holds())
        return;
    Request request;
    if (!head.isAnswer())
        serverAsks(head);
    else if (takeOpen(head, &request))
        answered(request, head, body);
}

// Which request it answers: the one of its number. A number that is missing or was never used says nothing;
// that of an earlier request makes it a late answer.
bool RtspSession::takeOpen(const RtspHead& answer, Request* request)
{
    if (answer.status() < 200)
        return false;
    const qint64 cseq = answer.cseq();
    const bool bNumbered = cseq > 0 && cseq <= m_cseq;
    for (std::optional<Request>* open : {&m_open, &m_openKeepAlive}) {
        if (open->has_value() && (!bNumbered || (*open)->cseq == cseq)) {
            *request = *std::exchange(*open, std::nullopt);
            return true;
        }
    }
    return false;
}

void RtspSession::answered(Request& request, const RtspHead& answer, const QByteArray& body)
{
    if (request.purpose != Purpose::KeepAlive)
        m_deadlines.clear(RtspDeadlines::eAnswer);
    if (answer.status() == 401 && retryWithLogin(request, answer))
        return;
    const bool bAccepted = answer.status() < 300;
    if (bAccepted)
        takeSession(request, answer);
    if (bAccepted && request.purpose == Purpose::Play)
        takeRtpInfo(answer);
    if (controlOtherwise(request, answer) || (bAccepted && controlNext(request)))
        return;
    const bool bOpening = m_phase < Phase::Playing && request.purpose != Purpose::KeepAlive;
    if (bOpening && followRedirect(answer))
        return;
    switch (request.purpose) {
    case Purpose::Options:
        if (bAccepted)
            m_keepAlive.setMethods(parseMethods(answer.value(QStringLiteral("Public"))));
        sendDescribe();
        break;
    case Purpose::Describe:
        m_pConnection->reader().awaitDescription(false);
        bAccepted ? takeDescription(answer, body) : refusedDescription(request, answer);
        break;
    case Purpose::Setup:
        bAccepted ? setupAnswered(answer) : setupRefused(request, answer);
        break;
    case Purpose::Play:
        bAccepted ? playAnswered() : refused(request, answer);
        break;
    case Purpose::Pause:
        bAccepted ? pauseAnswered() : refused(request, answer);
        break;
    case Purpose::KeepAlive:
        if (!bAccepted)
            m_keepAlive.refused();
        break;
    case Purpose::Teardown: // whatever it says: 454 and 500 mean gone
        finishEnd();
        break;
    }
}

// --- PLAY, PAUSE, TEARDOWN -------------------------------------------------------------------------------

void RtspSession::control(Purpose purpose, const Fields& fields)
{
    m_nControlled = 0;
    const QString method = purpose == Purpose::Play ? QStringLiteral("PLAY")
        : purpose == Purpose::Pause                 ? QStringLiteral("PAUSE")
                                                    : QStringLiteral("TEARDOWN");
    request(purpose, method, m_controlled.value(0), fields);
}

// False when all have agreed.
bool RtspSession::controlNext(const Request& request)
{
    if (!isControl(request.purpose) || ++m_nControlled >= m_controlled.size())
        return false;
    const QString url = m_controlled.at(m_nControlled);
    this->request(request.purpose, request.method, url, request.fields);
    return true;
}

// 459: not of the whole session, so of each track; 460: of the whole only, which is then not what we took for
// it. Once: a server that wants neither is refused.
bool RtspSession::controlOtherwise(const Request& request, const RtspHead& answer)
{
    constexpr int kNotAggregate = 459;
    constexpr int kOnlyAggregate = 460;
    const bool bEach = answer.status() == kNotAggregate;
    if (!isControl(request.purpose) || m_bControlChosen || (!bEach && answer.status() != kOnlyAggregate))
        return false;
    QStringList urls = bEach ? QStringList() : QStringList(m_url.toString());
    for (std::size_t i = 0; bEach && i < m_setups.size(); ++i) {
        if (m_setups[i].bDone)
            urls.append(m_tracks.at(static_cast<int>(i)).url);
    }
    if (urls.isEmpty())
        return false;
    m_bControlChosen = true;
    m_controlled = urls;
    control(request.purpose, request.fields);
    return true;
}

void RtspSession::pauseAnswered()
{
    m_phase = Phase::Paused;
    m_deadlines.clear(RtspDeadlines::eSilence);
    m_deadlines.clear(RtspDeadlines::eFirstPacket);
    emit m_client.paused();
}

// Once for each request: a nonce may have expired.
bool RtspSession::retryWithLogin(Request& request, const RtspHead& answer)
{
    if (request.bLoginTried || !m_login.challenged(answer))
        return false;
    request.bLoginTried = true;
    send(request);
    return true;
}

void RtspSession::refused(const Request& request, const RtspHead& answer)
{
    const QString what = QStringLiteral("%1: %2 (CSeq %3) was refused with %4")
                             .arg(m_url.authority(), request.method)
                             .arg(request.cseq)
                             .arg(statusText(answer));
    if (answer.status() != 401)
        fail(answer.status(), what);
    else if (m_login.isGiven())
        fail(401, what + QStringLiteral(": user or password are not accepted"));
    else
        fail(401, what + QStringLiteral(": it asks for user and password"));
}

// --- sessions and redirects ------------------------------------------------------------------------------

void RtspSession::takeSession(const Request& request, const RtspHead& answer)
{
    const RtspSessionField field = RtspSessionField::parse(answer.value(QStringLiteral("Session")));
    if (field.id.isEmpty() || m_phase == Phase::Ending)
        return;
    const bool bSetup = request.purpose == Purpose::Setup;
    const bool bLast = bSetup && m_current.quirks.sessionId == RtspQuirks::eLastSession;
    if (m_sessionId.isEmpty() || bLast || (bSetup && m_bProvisionalSession)) {
        m_sessionId = field.id;
        m_bProvisionalSession = !bSetup;
    }
    if (field.bTimeout)
        m_nTimeout = field.nTimeout;
}

// True when it has led elsewhere, or nowhere.
bool RtspSession::followRedirect(const RtspHead& head)
{
    const QString location = head.value(QStringLiteral("Location"));
    const int status = head.isAnswer() ? head.status() : kRedirect;
    if (!isRedirect(status) || location.isEmpty() || m_phase == Phase::Ending)
        return false;
    const RtspUrl url = m_url.redirected(location);
    const QString to = QStringLiteral("%1: redirected to %2: ").arg(m_url.authority(), url.toString());
    if (++m_nRedirects > m_current.limits.nRedirects) {
        fail(status, to + QStringLiteral("more than %1 redirects").arg(m_current.limits.nRedirects));
    } else if (!url.problem.isEmpty()) {
        fail(status, to + url.problem);
    } else if (m_url.bTls && !url.bTls) {
        fail(status, to + QStringLiteral("from TLS to a connection in the clear"));
    } else {
        const bool bOtherHost = url.host.compare(m_url.host, Qt::CaseInsensitive) != 0;
        if (bOtherHost && !m_current.bCredentialsToOtherHosts)
            m_login.set(QString(), QString());
        m_login.forgetChallenges();
        m_keepAlive = RtspKeepAlive();
        m_bDescribed = m_bPlayCalled = false;
        m_bTeardownRetried = true; // it would go to the other server
        m_redirected = url;
        end(Outcome::Reopened);
    }
    return true;
}

// --- the server asks -------------------------------------------------------------------------------------

void RtspSession::serverAsks(const RtspHead& head)
{
    if (m_phase == Phase::Ending || !m_pConnection->canSend())
        return; // nothing piles up for one that does not read
    const bool bKnown = parseMethods(kPublic).contains(head.method());
    RtspHead answer(bKnown ? 200 : 501);
    answer.addValue(QStringLiteral("CSeq"), head.value(QStringLiteral("CSeq")));
    if (!m_sessionId.isEmpty())
        answer.addValue(QStringLiteral("Session"), m_sessionId);
    if (head.method() == QLatin1String("OPTIONS"))
        answer.addValue(QStringLiteral("Public"), kPublic);
    const Watched::Watch watch = m_session.watch();
    sendText(answer);
    if (watch.holds() && head.method() == QLatin1String("REDIRECT"))
        followRedirect(head);
}
