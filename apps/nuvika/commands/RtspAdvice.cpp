#include "RtspAdvice.h"

#include "base/Exit.h"

#include <array>
#include <cmath>

namespace
{
struct Entry {
    int code; // of RtspClient::error()
    int exitCode;
    const char* next;
};
constexpr int kTimedOut = 10060;
constexpr int kUnauthorised = 401;
constexpr int kUnreadable = 10053;
constexpr int kReset = 10054;

constexpr std::array<Entry, 16> kEntries{{
    {5, Exit::kTimeout,
        "this port may be one without TLS: try rtsp:// (rtsps has its own port, usually 322)"},
    {10013, Exit::kCertificate, "trust its certificate with --ca FILE, or whoever answers with --insecure"},
    {10048, Exit::kFailure,
        "another program on this machine, such as the server itself, shares the group's port with nobody: "
        "receive on another machine, or try --tcp or --udp"},
    {10050, Exit::kNoConnection, "this machine has no network to it: look at cables and routes"},
    {10051, Exit::kNoConnection, "no route leads there: the camera may be in another network"},
    {10054, Exit::kLost, "it hung up: it may be out of sessions (close other viewers), or no RTSP server"},
    {10061, Exit::kNoConnection,
        "nobody listens there: switch RTSP on in the camera's settings, which name its port too (usually "
        "554)"},
    {10065, Exit::kNoConnection, "nobody has this address: is the camera on, and the address its own?"},
    {11001, Exit::kNoHost, "no such host is known: check the name, or take the camera's address"},
    {403, Exit::kHttpError, "this user may not see the stream: look at its rights in the camera's settings"},
    {404, Exit::kHttpError,
        "the camera has no stream of this path: its manual or its settings name the paths (often one for "
        "each channel and quality)"},
    {415, Exit::kFailure,
        "choose another codec in the camera's settings: H.264, H.265, JPEG; AAC, G.711, Opus"},
    {453, Exit::kHttpError, "the camera is at its limit: close other viewers, or lower its bit rate"},
    {454, Exit::kLost, "the camera forgot the session: try again, or restart it"},
    {461, Exit::kHttpError, "the camera does not send this way: try another of --tcp, --udp and --multicast"},
    {503, Exit::kHttpError, "the camera is busy: close other viewers, or restart it"},
}};

QString nextAfterSilence(RtspStage stage, RtspOptions::Transport transport)
{
    if (stage == RtspStage::Connecting)
        return QStringLiteral(
            "no answer from this address: is the camera on, the address right, a firewall between?");
    if (stage == RtspStage::Connected)
        return QStringLiteral("who listens there says nothing: is it the RTSP port (usually 554)?");
    if (stage == RtspStage::Answered)
        return QStringLiteral("the camera hangs or is overloaded: close other viewers, or restart it");
    if (transport == RtspOptions::eTcp)
        return QStringLiteral(
            "the camera plays and sends nothing: is this stream switched on in its settings?");
    return QStringLiteral("a firewall or address translation may keep %1 away: try --tcp")
        .arg(shownTransport(transport));
}

RtspAdvice adviceForLogin(const Target& camera)
{
    return {Exit::kLoginDenied,
        camera.user.isEmpty()
            ? QStringLiteral("name them: rtsp://USER:PASSWORD@%1%2, or --user and --password")
                  .arg(camera.authority(), camera.path)
            : QStringLiteral(
                "check user and password; some cameras keep users of their own for RTSP, and lock "
                "out who was wrong too often")};
}

QString shownSpan(double seconds)
{
    constexpr double kDay = 86400;
    constexpr double kMinutes = 600;
    if (seconds > 2 * kDay)
        return QStringLiteral("%1 days").arg(seconds / kDay, 0, 'f', 1);
    return seconds > kMinutes ? QStringLiteral("%1 minutes").arg(seconds / 60, 0, 'f', 0)
                              : QStringLiteral("%1 s").arg(seconds, 0, 'f', 1);
}

class Findings
{
public:
    Findings(const RtspStreams& streams, double seconds) : m_streams(streams), m_seconds(seconds) { }

    QStringList take()
    {
        for (const RtspTrack& track : m_streams.client().tracks()) {
            const auto record = m_streams.records().find(track.index);
            if (record != m_streams.records().end() && track.problem.isEmpty())
                look(track, record->second);
        }
        return m_findings;
    }

private:
    void look(const RtspTrack& track, const StreamRecord& record)
    {
        m_name = QStringLiteral("Track %1 (%2)").arg(QString::number(track.index + 1), track.media);
        if (record.figures().allPackets == 0)
            add(QStringLiteral("delivered nothing: is it switched on in the camera's settings?"));
        else if (track.media != QLatin1String("application"))
            lookAtMedia(track, record);
    }
    void lookAtMedia(const RtspTrack& track, const StreamRecord& record)
    {
        if (record.figures().allLost > 0)
            add(lossFinding(record.figures()));
        if (const quint64 strangers = m_streams.statistics(track.index).nStrangers; strangers > 0)
            add(QStringLiteral("brought %1 packets of another source, which were left out: it started again, "
                               "or somebody else sends to our ports")
                    .arg(strangers));
        if (m_streams.statistics(track.index).nUnknownTypes > 0)
            add(QStringLiteral("also sends payload types that its description does not name: left out"));
        if (track.media == QLatin1String("video") && record.figures().keyFrames == 0)
            add(QStringLiteral(
                "brought no key frame in %1 s: shorten the camera's key frame interval (\"GOP\")")
                    .arg(m_seconds, 0, 'f', 0));
        lookAtClock(record);
    }
    void lookAtClock(const StreamRecord& record)
    {
        constexpr double kPatience = 8; // reports come every 5 s or so
        constexpr double kTolerated = 1;
        if (!record.clockErrorUs()) {
            if (m_seconds >= kPatience)
                add(QStringLiteral(
                    "sends no wall clock (sender reports): its times will be those of arrival"));
            return;
        }
        const double error = static_cast<double>(*record.clockErrorUs()) / 1e6;
        if (std::abs(error) > kTolerated)
            add(QStringLiteral("has a clock that is %1 %2 ours: set the camera's time server (NTP), or ours")
                    .arg(shownSpan(std::abs(error)),
                        error > 0 ? QStringLiteral("before") : QStringLiteral("behind")));
    }
    QString lossFinding(const StreamRecord::Figures& f) const
    {
        const QString lost = QStringLiteral("lost %1 % of its packets: ").arg(f.allLossPercent(), 0, 'f', 2);
        return lost
            + (m_streams.client().transport() == RtspOptions::eTcp
                    ? QStringLiteral("over TCP the camera itself drops them: lower its bit rate, close other "
                                     "viewers")
                    : QStringLiteral("try --tcp, and look for a crowded link (wireless, 100 Mbit/s ports)"));
    }
    void add(const QString& what) { m_findings.append(m_name + QLatin1Char(' ') + what); }

    const RtspStreams& m_streams;
    double m_seconds;
    QString m_name;
    QStringList m_findings;
};
} // namespace

RtspAdvice adviceFor(int code, RtspStage stage, const Target& camera, RtspOptions::Transport transport)
{
    if (code == kTimedOut)
        return {Exit::kTimeout, nextAfterSilence(stage, transport)};
    if (code == kUnauthorised)
        return adviceForLogin(camera);
    if ((code == kUnreadable || code == kReset) && stage == RtspStage::Playing)
        return {Exit::kLost,
            QStringLiteral("the camera, or the way to it, went away: it may have restarted; try again")};
    if (code == kUnreadable && stage < RtspStage::Answered)
        return {camera.bTls && stage == RtspStage::Connecting ? Exit::kTls : Exit::kLost,
            QStringLiteral("is this a port of %1? -v shows what came")
                .arg(camera.bTls ? QStringLiteral("rtsps") : QStringLiteral("RTSP"))};
    for (const Entry& entry : kEntries) {
        if (entry.code == code)
            return {entry.exitCode, QLatin1String(entry.next)};
    }
    const bool bStatus = code >= 300 && code < 600;
    return {bStatus ? Exit::kHttpError : Exit::kLost, QStringLiteral("-v shows what was asked and answered")};
}

QStringList findingsOf(const RtspStreams& streams, double seconds)
{
    return Findings(streams, seconds).take();
}
