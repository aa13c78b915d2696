#include "RtspServer.h"

#include <QtCore/QUrl>

#include <algorithm>

namespace
{
constexpr char kTrack[] = "track1";
constexpr char kMethods[] = "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER, TEARDOWN";
constexpr int kHousekeepingMs = 1000;

const char* reason(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 404:
        return "Not Found";
    case 451:
        return "Parameter Not Understood";
    case 453:
        return "Not Enough Bandwidth";
    case 454:
        return "Session Not Found";
    case 455:
        return "Method Not Valid in This State";
    case 459:
        return "Aggregate Operation Not Allowed";
    case 461:
        return "Unsupported Transport";
    case 501:
        return "Not Implemented";
    case 505:
        return "RTSP Version Not Supported";
    case 551:
        return "Option Not Supported";
    default:
        return "Internal Server Error";
    }
}

QByteArray field(const char* name, const QString& value)
{
    return QByteArray(name) + ": " + value.toLatin1() + "\r\n";
}

QByteArray message(const RtspRequest& request, int status, const QByteArray& fields = QByteArray(),
    const QByteArray& body = QByteArray())
{
    QByteArray text = "RTSP/1.0 " + QByteArray::number(status) + ' ' + reason(status) + "\r\n";
    text += field("CSeq", request.value(QStringLiteral("CSeq"))) + fields;
    if (!body.isEmpty())
        text += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

// What the track's name is appended to.
QString baseOf(const RtspRequest& request)
{
    QString url = QUrl(request.url())
                      .toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery | QUrl::StripTrailingSlash
                          | QUrl::FullyEncoded);
    if (request.path().endsWith(QLatin1Char('/') + QLatin1String(kTrack)))
        url.chop(static_cast<int>(qstrlen(kTrack)) + 1);
    return url + QLatin1Char('/');
}

QByteArray sessionField(const RtspSession& session)
{
    return field("Session", session.id() + QStringLiteral(";timeout=%1").arg(RtspSession::kTimeoutSeconds));
}
} // namespace

RtspServer::RtspServer(const DigestGuard& guard) : m_guard(guard)
{
    connect(&m_server, &NuvikaTcpServer::newConnectionDesc, this, &RtspServer::accept);
    connect(&m_timer, &QTimer::timeout, this, &RtspServer::prune);
    m_timer.start(kHousekeepingMs);
}

int RtspServer::addStream(int lossPercent)
{
    m_lossPercents.push_back(lossPercent);
    return static_cast<int>(m_lossPercents.size()) - 1;
}

void RtspServer::accept(int descriptor)
{
    prune();
    auto* viewer = new RtspViewer(
        descriptor, [this](RtspViewer& from, const RtspRequest& request) { return answer(from, request); },
        this);
    m_viewers.emplace_back(viewer);
    if (m_viewers.size() > kMaxViewers + m_lossPercents.size() * kMaxSessions)
        delete viewer;
}

// Ends what nobody asks for any more: sessions, then connections that are silent without one.
void RtspServer::prune()
{
    m_sessions.erase(std::remove_if(m_sessions.begin(), m_sessions.end(),
                         [](const auto& session) { return session->isOver(); }),
        m_sessions.end());
    for (const auto& viewer : m_viewers) {
        if (viewer != nullptr && viewer->silence() > 1000LL * RtspSession::kTimeoutSeconds)
            viewer->deleteLater(); // may be the one that asks
    }
    m_viewers.erase(std::remove(m_viewers.begin(), m_viewers.end(), nullptr), m_viewers.end());
}

void RtspServer::sendPicture(int stream, const QByteArray& jpeg)
{
    for (const auto& session : m_sessions) {
        if (session->stream() == stream)
            session->sendPicture(jpeg);
    }
}

int RtspServer::streamOf(const RtspRequest& request, bool* track) const
{
    QString path = request.path();
    *track = path.endsWith(QLatin1Char('/') + QLatin1String(kTrack));
    if (*track)
        path = path.section(QLatin1Char('/'), 0, -2);
    for (std::size_t i = 0; i < m_lossPercents.size(); ++i) {
        if (path == pathOf(static_cast<int>(i)))
            return static_cast<int>(i);
    }
    return -1;
}

RtspSession* RtspServer::find(const RtspViewer& viewer, const RtspRequest& request)
{
    const auto found = std::find_if(m_sessions.begin(), m_sessions.end(), [&](const auto& session) {
        return session->id() == request.session() && session->isOf(viewer) && !session->isOver();
    });
    return found == m_sessions.end() ? nullptr : found->get();
}

QByteArray RtspServer::answer(RtspViewer& viewer, const RtspRequest& request)
{
    if (request.version() != QLatin1String("RTSP/1.0"))
        return message(request, 505);
    if (request.value(QStringLiteral("CSeq")).isEmpty())
        return message(request, 400);
    if (request.hasKey(QStringLiteral("Require")))
        return message(request, 551, field("Unsupported", request.value(QStringLiteral("Require"))));
    if (request.method() == QLatin1String("OPTIONS"))
        return message(request, 200, field("Public", QLatin1String(kMethods)));
    const QString credentials = request.value(QStringLiteral("Authorization"));
    if (m_guard.admits(request.method(), request.url(), credentials))
        return admitted(viewer, request);
    QByteArray challenges;
    for (const QString& challenge : m_guard.challenges())
        challenges += field("WWW-Authenticate", challenge);
    return message(request, 401, challenges);
}

QByteArray RtspServer::admitted(RtspViewer& viewer, const RtspRequest& request)
{
    if (!QString::fromLatin1(kMethods).split(QStringLiteral(", ")).contains(request.method()))
        return message(request, 501, field("Public", QLatin1String(kMethods)));
    bool bTrack = false;
    const int stream = streamOf(request, &bTrack);
    if (stream < 0)
        return message(request, 404);
    if (request.method() == QLatin1String("DESCRIBE"))
        return describe(viewer, request, stream);
    const bool bSetUp = request.method() == QLatin1String("SETUP");
    if (!request.hasKey(QStringLiteral("Session"))
        && (bSetUp || request.method().endsWith(QLatin1String("_PARAMETER"))))
        return bSetUp ? bTrack ? setUp(viewer, request, stream) : message(request, 459)
                      : message(request, request.contentLength() == 0 ? 200 : 451);
    RtspSession* session = find(viewer, request);
    if (session == nullptr || session->stream() != stream)
        return message(request, 454);
    session->refresh();
    return control(*session, request);
}

QByteArray RtspServer::describe(RtspViewer& viewer, const RtspRequest& request, int stream) const
{
    const QByteArray body = RtpSource::description(stream, viewer.localAddress().toString(), 0,
        QStringLiteral("a=control:*\r\n"), QStringLiteral("a=control:%1\r\n").arg(QLatin1String(kTrack)));
    return message(request, 200,
        field("Content-Base", baseOf(request)) + field("Content-Type", QStringLiteral("application/sdp")),
        body);
}

QByteArray RtspServer::setUp(RtspViewer& viewer, const RtspRequest& request, int stream)
{
    const auto transport = RtspTransport::choose(request.value(QStringLiteral("Transport")));
    if (!transport)
        return message(request, 461);
    prune();
    const auto sessions = std::count_if(m_sessions.begin(), m_sessions.end(),
        [stream](const auto& session) { return session->stream() == stream; });
    if (static_cast<std::size_t>(sessions) >= kMaxSessions)
        return message(request, 453);
    auto session = std::make_unique<RtspSession>(
        stream, *transport, viewer, m_lossPercents[static_cast<std::size_t>(stream)]);
    if (!session->isValid())
        return message(request, 500);
    const QByteArray fields = sessionField(*session) + field("Transport", session->transport());
    m_sessions.push_back(std::move(session));
    return message(request, 200, fields);
}

// What is asked of a session.
QByteArray RtspServer::control(RtspSession& session, const RtspRequest& request)
{
    QByteArray fields = sessionField(session);
    const QString& method = request.method();
    if (method == QLatin1String("SETUP"))
        return message(request, 455, fields + field("Allow", QStringLiteral("PLAY, PAUSE, TEARDOWN")));
    if (method.endsWith(QLatin1String("_PARAMETER")))
        return message(request, request.contentLength() == 0 ? 200 : 451, fields);
    if (method == QLatin1String("TEARDOWN")) {
        m_sessions.erase(std::find_if(
            m_sessions.begin(), m_sessions.end(), [&](const auto& each) { return each.get() == &session; }));
        return message(request, 200);
    }
    session.setPlaying(method == QLatin1String("PLAY"));
    if (session.isPlaying()) {
        fields += field("Range", QStringLiteral("npt=now-"));
        fields += field("RTP-Info",
            QStringLiteral("url=%1;seq=%2;rtptime=%3")
                .arg(baseOf(request) + QLatin1String(kTrack))
                .arg(session.source().nextSequence())
                .arg(session.source().mediaTime()));
    }
    return message(request, 200, fields);
}
