// The session's course: its beginning, its time limits and its end.
#include "rtsp/RtspSession_p.h"

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

#include <QtCore/QRandomGenerator>

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kCnameWords = 3; // 96 random bits (RFC 7022)

QByteArray randomCname()
{
    QByteArray bytes;
    for (int i = 0; i < kCnameWords; ++i)
        bytes += QByteArray::number(QRandomGenerator::global()->generate(), 36);
    return bytes;
}
} // namespace

RtspSession::RtspSession(RtspClient& client)
    : m_client(client), m_deadlines([this] { expired(); }),
      m_nOwnSsrc(QRandomGenerator::global()->generate()), m_cname(randomCname())
{
}

RtspSession::~RtspSession()
{
    if (m_phase != Phase::Ending)
        sendTeardown();
}

RtspClient::State RtspSession::state() const
{
    switch (m_phase) {
    case Phase::Idle:
        return RtspClient::eIdle;
    case Phase::Connecting:
    case Phase::Options:
    case Phase::Describe:
        return RtspClient::eOpening;
    case Phase::Described:
        return RtspClient::eDescribed;
    case Phase::Setup:
    case Phase::Play:
        return RtspClient::eSettingUp;
    case Phase::Playing:
    case Phase::Pausing:
        return RtspClient::ePlaying;
    case Phase::Paused:
        return RtspClient::ePaused;
    case Phase::Ending:
        break;
    }
    return RtspClient::eEnding;
}

// --- what the user asks for ------------------------------------------------------------------------------

bool RtspSession::start(const QString& url, const QString& user, const QString& password)
{
    if (m_phase != Phase::Idle) {
        NUVIKA_WARNING(lcRtsp, "RtspClient::start(): not idle");
        return false;
    }
    m_current = m_options;
    m_url = m_started = RtspUrl::parse(url);
    m_login.set(user.isEmpty() ? m_url.user : user, user.isEmpty() ? m_url.password : password);
    m_errorString.clear();
    m_description = SdpDescription();
    m_tracks.clear();
    m_setups.clear();
    m_keepAlive = RtspKeepAlive();
    m_nRedirects = 0;
    m_cseq = 0;
    m_bDescribed = m_bPlayCalled = false;
    m_forced.reset();
    m_tried.reset();
    m_redirected.reset();
    m_selected.clear();
    m_nDroppedPackets = 0;
    m_peerAddress.clear();
    connectTo();
    return true;
}

bool RtspSession::play(const QVector<int>& tracks)
{
    if (m_phase != Phase::Described)
        return false;
    m_selected = tracks;
    m_bPlayCalled = true;
    m_deadlines.setAt(RtspDeadlines::eAnswer, monotonicUs()); // not inside the call
    return true;
}

bool RtspSession::pause()
{
    if (m_phase != Phase::Playing)
        return false;
    m_phase = Phase::Pausing;
    control(Purpose::Pause);
    return true;
}

bool RtspSession::resume()
{
    if (m_phase != Phase::Paused)
        return false;
    m_phase = Phase::Play;
    control(Purpose::Play);
    return true;
}

void RtspSession::stop()
{
    if (m_phase == Phase::Idle)
        return;
    if (m_phase == Phase::Ending) {
        m_outcome = Outcome::Stopped;
        return;
    }
    end(Outcome::Stopped);
}

// --- connecting ------------------------------------------------------------------------------------------

// Problems are told from the event loop.
void RtspSession::connectTo()
{
    m_phase = Phase::Connecting;
    m_sessionId.clear();
    m_nTimeout = RtspSessionField::kDefaultTimeout;
    m_bTeardownRetried = false;
    m_bMediaSeen = false;
    m_open.reset();
    m_openKeepAlive.reset();
    const bool bDatagrams
        = m_current.transport == RtspOptions::eUdp || m_current.transport == RtspOptions::eMulticast;
    if (!m_url.problem.isEmpty()) {
        fail(ErrorCodes::kInvalidArgument, m_url.problem);
        return;
    }
    if (m_url.bTls && bDatagrams) {
        fail(ErrorCodes::kInvalidArgument,
            QStringLiteral("rtsps is for TCP only: datagrams would be sent in the clear"));
        return;
    }
    m_pConnection = std::make_unique<RtspConnection>(*this, m_current, m_url.bTls);
    m_deadlines.setLimit(RtspDeadlines::eConnect, m_current.timeouts.nConnect);
    m_pConnection->connectToHost(m_url.host, m_url.nPort);
}

void RtspSession::connected()
{
    m_peerAddress = m_pConnection->peerAddress();
    m_localAddress = m_pConnection->localAddress();
    m_deadlines.clear(RtspDeadlines::eConnect);
    if (m_phase == Phase::Ending) {
        sendTeardown();
        return;
    }
    if (m_bDescribed) {
        sendDescribe();
        return;
    }
    m_phase = Phase::Options;
    request(Purpose::Options, QStringLiteral("OPTIONS"), m_url.toString());
}

void RtspSession::lost(int code, const QString& reason)
{
    if (m_phase == Phase::Ending) {
        if (!retryTeardown())
            finishEnd();
        return;
    }
    const quint64 position = m_pConnection->reader().position();
    const Watched::Watch watch = m_session.watch();
    sendTeardown(); // what cannot be read may still be written to
    if (!watch.holds())
        return;
    m_pConnection.reset();
    const QString open = m_open && m_open->purpose != Purpose::Teardown
        ? QStringLiteral("; %1 (CSeq %2) was open").arg(m_open->method).arg(m_open->cseq)
        : QString();
    const QString where = position > 0 ? QStringLiteral(", behind %1 bytes").arg(position) : QString();
    fail(code, m_url.authority() + QStringLiteral(": ") + reason + where + open);
}

// --- time limits -----------------------------------------------------------------------------------------

void RtspSession::expired()
{
    const Watched::Watch watch = m_session.watch();
    RtspDeadlines::Kind kind = m_deadlines.takeDue();
    while (kind != RtspDeadlines::eCount) {
        expire(kind);
        if (!watch.lives())
            return;
        kind = m_deadlines.takeDue();
    }
}

void RtspSession::failLimit(int ms, const QString& what)
{
    fail(ErrorCodes::kTimedOut,
        QStringLiteral("%1: %2 within %3 s").arg(m_url.authority(), what).arg(ms / 1000.0));
}

void RtspSession::expire(RtspDeadlines::Kind kind)
{
    const RtspTimeouts& limits = m_current.timeouts;
    switch (kind) {
    case RtspDeadlines::eConnect:
        failLimit(limits.nConnect, QStringLiteral("no connection"));
        break;
    case RtspDeadlines::eAnswer:
        if (m_phase == Phase::Described)
            beginSetup();
        else if (m_open)
            failLimit(limits.nAnswer,
                QStringLiteral("no answer to %1 (CSeq %2)").arg(m_open->method).arg(m_open->cseq));
        break;
    case RtspDeadlines::eFirstPacket:
        if (m_transport == RtspOptions::eUdp && m_current.transport == RtspOptions::eAutomatic)
            reopen(RtspOptions::eTcp,
                QStringLiteral("no packet came by UDP within %1 s").arg(limits.nUdpTrial / 1000.0));
        else
            failLimit(limits.nFirstPacket, QStringLiteral("no packet came"));
        break;
    case RtspDeadlines::eSilence:
        lookAtSilence();
        break;
    case RtspDeadlines::eKeepAlive:
        keepAlive();
        break;
    case RtspDeadlines::eReport:
        sendReports();
        break;
    case RtspDeadlines::eStatistics:
        tellStatistics();
        break;
    case RtspDeadlines::eReorder:
        takeDueHeld();
        break;
    case RtspDeadlines::eTeardown:
        if (!retryTeardown())
            finishEnd();
        break;
    case RtspDeadlines::eEnd:
        finishEnd();
        break;
    case RtspDeadlines::eCount:
        break;
    }
}

// --- the end ---------------------------------------------------------------------------------------------

// The first error is the one that counts.
void RtspSession::fail(int code, const QString& sentence)
{
    if (isOver())
        return;
    m_nErrorCode = code;
    m_errorString = sentence;
    NUVIKA_WARNING(lcRtsp, "RtspClient: %s; code:%d", qUtf8Printable(sentence), code);
    end(Outcome::Failed);
}

// Nothing of the session is told from here on. What follows comes from the event loop.
void RtspSession::end(Outcome outcome)
{
    m_outcome = outcome;
    m_deadlines.clearAll();
    m_phase = Phase::Ending;
    m_session.endSession();
    m_bTaking = false; // handlers of this session may still be at work, those of the next are others
    m_kept.clear();
    m_nKept = 0;
    m_open.reset();
    m_openKeepAlive.reset();
    m_deadlines.setLimit(RtspDeadlines::eTeardown, m_current.timeouts.nTeardown);
    if (sendTeardown() || retryTeardown())
        return;
    m_deadlines.setAt(RtspDeadlines::eEnd, monotonicUs());
}

// False when there is nobody to tell, or nothing to tell them.
bool RtspSession::sendTeardown()
{
    if (m_sessionId.isEmpty() || !m_pConnection || !m_pConnection->isConnected())
        return false;
    control(Purpose::Teardown);
    return true;
}

// Over UDP the server goes on sending, and the session may hold its only place, until it expires.
bool RtspSession::retryTeardown()
{
    if (m_sessionId.isEmpty() || m_transport == RtspOptions::eTcp || std::exchange(m_bTeardownRetried, true))
        return false;
    m_open.reset();
    m_pConnection = std::make_unique<RtspConnection>(*this, m_current, m_url.bTls);
    m_deadlines.setLimit(RtspDeadlines::eTeardown, m_current.timeouts.nTeardown);
    m_pConnection->connectToHost(m_url.host, m_url.nPort);
    return true;
}

void RtspSession::closeMedia()
{
    for (Setup& setup : m_setups)
        setup = Setup();
    m_nSettingUp = -1;
    m_timeline = RtpTimeline();
    m_timeline.setClockBound(m_current.clockBoundUs);
}

void RtspSession::finishEnd()
{
    m_deadlines.stop();
    m_pConnection.reset();
    m_open.reset();
    m_sessionId.clear();
    if (m_outcome == Outcome::Reopened) {
        closeMedia();
        if (m_redirected)
            m_url = *std::exchange(m_redirected, std::nullopt);
        connectTo();
        return;
    }
    for (Setup& setup : m_setups)
        setup.pPorts.reset(); // counts stay
    m_phase = Phase::Idle;
    m_session.endSession();
    if (m_outcome == Outcome::Failed)
        emit m_client.error(m_nErrorCode);
    else
        emit m_client.stopped();
}

// The same description by another transport, on a connection of its own. Nothing of the old one is told from
// here on, also where a handler runs an event loop.
void RtspSession::reopen(RtspOptions::Transport transport, const QString& reason)
{
    m_deadlines.clearAll();
    m_phase = Phase::Setup;
    if (changeTransport(transport, reason))
        end(Outcome::Reopened);
}

// False when a handler has ended the session.
bool RtspSession::changeTransport(RtspOptions::Transport transport, const QString& reason)
{
    const Watched::Watch watch = m_session.watch();
    NUVIKA_DEBUG(lcRtsp, "RtspClient: %s: %s", qUtf8Printable(m_url.authority()), qUtf8Printable(reason));
    emit m_client.transportChanged(transport, reason);
    if (!watch.holds())
        return false;
    m_forced = transport;
    m_transport = transport;
    return true;
}
