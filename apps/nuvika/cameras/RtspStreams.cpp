#include "RtspStreams.h"

#include <algorithm>

namespace
{
QString shownSize(const QSize& size)
{
    return QStringLiteral("%1x%2").arg(QString::number(size.width()), QString::number(size.height()));
}
} // namespace

RtspStreams::RtspStreams(const Target& camera, RtspOptions options) : m_camera(camera)
{
    options.clockBoundUs = StreamRecord::kAnyClockUs;
    m_client.setOptions(options);
    connect(&m_client, &RtspClient::described, this, &RtspStreams::beginSession);
    connect(&m_client, &RtspClient::transportChanged, this, &RtspStreams::beginSession);
    connect(&m_client, &RtspClient::unitReceived, this,
        [this](int track, const RtspUnit& unit) { m_records[track].takeUnit(unit, unit.time); });
    connect(&m_client, &RtspClient::rtcpReceived, this,
        [this](int track, const RtcpCompound& rtcp, const RtpArrival& arrival) {
            takeReports(track, rtcp, arrival);
        });
    connect(&m_client, &RtspClient::statistics, this, [this] {
        closeInterval();
        emit updated();
    });
}

void RtspStreams::start() { m_client.start(m_camera.rtspUrl(), m_camera.user, m_camera.password); }

// Another connection counts from zero.
void RtspStreams::beginSession()
{
    for (auto& record : m_records)
        record.second.beginSession();
    m_sinceInterval.start();
    m_statistics.clear();
}

void RtspStreams::takeReports(int track, RtcpCompound rtcp, const RtpArrival& arrival)
{
    RtcpSenderInfo info;
    while (rtcp.next()) {
        if (rtcp.senderInfo(&info))
            m_records[track].takeReport(info.ntp, arrival);
    }
}

void RtspStreams::closeInterval()
{
    const QVector<RtspTrackStatistics> all = m_client.trackStatistics();
    if (all.isEmpty())
        return;
    m_statistics = all;
    const qint64 ms = m_sinceInterval.restart();
    for (const RtspTrackStatistics& s : all)
        m_records[s.track].closeInterval({s.nPackets, s.nBytes, s.nLost}, ms);
}

void RtspStreams::closeSilence()
{
    for (auto& record : m_records) {
        if (m_client.state() != RtspClient::ePlaying)
            record.second.closeSilence(1000);
    }
}

const RtspTrackStatistics& RtspStreams::statistics(int track) const
{
    static const RtspTrackStatistics none;
    const auto* const found = std::find_if(m_statistics.begin(), m_statistics.end(),
        [track](const RtspTrackStatistics& s) { return s.track == track; });
    return found == m_statistics.end() ? none : *found;
}

int RtspStreams::mainTrack() const
{
    int first = -1;
    for (const RtspTrack& track : m_client.tracks()) {
        if (!track.problem.isEmpty())
            continue;
        if (track.media == QLatin1String("video"))
            return track.index;
        first = first < 0 ? track.index : first;
    }
    return first;
}

QString shownTransport(RtspOptions::Transport transport)
{
    switch (transport) {
    case RtspOptions::eTcp:
        return QStringLiteral("TCP");
    case RtspOptions::eMulticast:
        return QStringLiteral("multicast");
    default:
        return QStringLiteral("UDP");
    }
}

QString shownEncoding(const RtspTrack& track)
{
    if (track.encoding.isEmpty())
        return QStringLiteral("payload type %1").arg(track.payloadType);
    return QStringLiteral("%1/%2").arg(track.encoding, QString::number(track.clockRate));
}

QString shownParameters(const RtpMediaParameters& p)
{
    QStringList parts;
    if (!p.codec.isEmpty())
        parts += QString::fromLatin1(p.codec);
    if (!p.shownSize.isEmpty())
        parts += shownSize(p.shownSize);
    if (!p.codedSize.isEmpty() && p.codedSize != p.shownSize)
        parts += QStringLiteral("coded as %1").arg(shownSize(p.codedSize));
    if (!p.pixelAspect.isEmpty() && p.pixelAspect.width() != p.pixelAspect.height())
        parts += QStringLiteral("pixels %1:%2")
                     .arg(QString::number(p.pixelAspect.width()), QString::number(p.pixelAspect.height()));
    if (p.nSampleRate > 0)
        parts += QStringLiteral("%1 Hz").arg(p.nSampleRate);
    if (p.nChannels > 0)
        parts += p.nChannels == 1 ? QStringLiteral("mono") : QStringLiteral("%1 channels").arg(p.nChannels);
    return parts.join(QLatin1String(", "));
}
