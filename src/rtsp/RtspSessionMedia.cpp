// What the session receives while it plays, and the reports that it sends.
#include "rtsp/RtspSession_p.h"

#include <algorithm>
#include <array>

using namespace Nuvika;

namespace
{
// On a port of RTP these are packets of RTCP all the same (RFC 5761, section 4).
bool isRtcp(const char* data, int size)
{
    constexpr unsigned char kFirstType = 200;
    constexpr unsigned char kLastType = 207;
    const auto type = size < 2 ? 0 : static_cast<unsigned char>(data[1]);
    return type >= kFirstType && type <= kLastType;
}

RTPPacket viewOf(const QByteArray& bytes)
{
    return RTPPacket(
        reinterpret_cast<const unsigned char*>(bytes.constData()), static_cast<unsigned int>(bytes.size()));
}

QByteArray interleaved(int channel, const QByteArray& bytes)
{
    QByteArray framed("$");
    framed += static_cast<char>(channel);
    framed += static_cast<char>(bytes.size() >> 8);
    framed += static_cast<char>(bytes.size() & 0xFF);
    return framed + bytes;
}

// A head of RTP without payload, and a receiver report about nothing: what they open is what counts.
const QByteArray kFirstRtp = QByteArray::fromHex("800000000000000000000000");
} // namespace

// --- whose it is -----------------------------------------------------------------------------------------

void RtspSession::packet(int channel, const char* data, int size)
{
    const RTPPacket rtp(reinterpret_cast<const unsigned char*>(data), static_cast<unsigned int>(size));
    int track = 0;
    bool bRtcp = false;
    if (takesMedia() && trackOfChannel(channel, rtp, &track, &bRtcp))
        takeMedia(
            track, bRtcp, rtp, data, size, RtpArrival(m_pConnection->lastReceived())); // a handler may end it
    else
        ++m_nDroppedPackets;
}

bool RtspSession::trackOfChannel(int channel, const RTPPacket& packet, int* track, bool* bRtcp) const
{
    *track = trackOfType(channel, packet);
    *bRtcp = false;
    for (std::size_t i = 0; *track < 0 && i < m_setups.size(); ++i) {
        const Setup& setup = m_setups[i];
        if (setup.pInput && setup.channels.nSecond == channel) {
            *track = static_cast<int>(i);
            *bRtcp = true;
        }
    }
    return *track >= 0;
}

// Tracks on one channel are told apart by their payload types; the first has what is of neither.
int RtspSession::trackOfType(int channel, const RTPPacket& packet) const
{
    int first = -1;
    bool bAssigned = false;
    for (std::size_t i = 0; i < m_setups.size(); ++i) {
        const Setup& setup = m_setups[i];
        if (!setup.pInput)
            continue;
        bAssigned = bAssigned || setup.channels.nFirst == channel || setup.channels.nSecond == channel;
        if (setup.channels.nFirst != channel)
            continue;
        if (first < 0)
            first = static_cast<int>(i);
        if (setup.pInput->hasPayloadType(packet.getPayloadType()))
            return static_cast<int>(i);
    }
    if (bAssigned || m_current.quirks.unassignedChannel != RtspQuirks::eByPayloadType)
        return first;
    const auto found = std::find_if(m_setups.begin(), m_setups.end(), [&packet](const Setup& setup) {
        return setup.pInput && setup.pInput->hasPayloadType(packet.getPayloadType());
    });
    return found == m_setups.end() ? -1 : static_cast<int>(found - m_setups.begin());
}

void RtspSession::datagram(int track, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram)
{
    Setup& setup = m_setups[static_cast<std::size_t>(track)];
    if (!takesMedia() || !setup.pInput || !isFromServer(setup, bRtcp, datagram))
        ++m_nDroppedPackets;
    else if (m_bTaking)
        keepDatagram(track, bRtcp, datagram);
    else
        takeDatagram(track, bRtcp, datagram.pData, datagram.nSize, arrivalNow());
}

void RtspSession::takeDatagram(int track, bool bRtcp, const char* data, int size, const RtpArrival& arrival)
{
    const Watched::Watch watch = m_session.watch();
    const RTPPacket packet(reinterpret_cast<const unsigned char*>(data), static_cast<unsigned int>(size));
    m_bTaking = true;
    takeMedia(track, bRtcp, packet, data, size, arrival);
    if (watch.holds())
        takeKept();
}

// What comes while a handler runs an event loop waits until it returns: the unit in its hand must stay as it
// is, and packets in their order.
void RtspSession::keepDatagram(int track, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram)
{
    constexpr int kMostKept = 1 << 20; // bytes; then they are lost, as where the system's buffer is full
    const int bytes = datagram.nSize + kKeptHead;
    if (m_nKept + bytes > kMostKept) {
        ++m_nDroppedPackets;
        return;
    }
    m_nKept += bytes;
    m_kept.push_back({track, bRtcp, QByteArray(datagram.pData, datagram.nSize), arrivalNow()});
}

void RtspSession::takeKept()
{
    const Watched::Watch watch = m_session.watch();
    while (watch.holds() && !m_kept.empty()) {
        const Kept kept = m_kept.front();
        m_kept.pop_front();
        m_nKept -= kept.bytes.size() + kKeptHead;
        takeMedia(kept.nTrack, kept.bRtcp, viewOf(kept.bytes), kept.bytes.constData(), kept.bytes.size(),
            kept.arrival);
    }
    if (watch.holds())
        m_bTaking = false;
}

bool RtspSession::isFromServer(Setup& setup, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram) const
{
    const bool bKnown = datagram.pIPv6 != nullptr
        ? QHostAddress(datagram.pIPv6).isEqual(setup.server)
            || QHostAddress(datagram.pIPv6).isEqual(m_peerAddress)
        : datagram.nIPv4 == setup.nServerIPv4 || datagram.nIPv4 == m_peerAddress.toIPv4Address();
    if (!bKnown && !setup.bAnySender)
        return false;
    const RtspQuirks::ServerPort rule = m_current.quirks.serverPort;
    if (setup.bGroup || rule == RtspQuirks::eAnyPort)
        return true;
    if (rule == RtspQuirks::eFirstSeenPort) {
        quint16& seen = bRtcp ? setup.nSeenRtcpPort : setup.nSeenPort;
        seen = seen == 0 ? datagram.nPort : seen;
        return seen == datagram.nPort;
    }
    const int named = bRtcp ? setup.serverPorts.nSecond : setup.serverPorts.nFirst;
    return named < 0 || named == datagram.nPort;
}

// --- taking it -------------------------------------------------------------------------------------------

void RtspSession::takeMedia(
    int track, bool bRtcp, const RTPPacket& packet, const char* data, int size, const RtpArrival& arrival)
{
    m_wallOffsetUs = arrival.wallUs - arrival.monotonicUs;
    if (bRtcp || isRtcp(data, size))
        takeRtcp(track, data, size, arrival);
    else if (packet.isHeaderValid())
        takeRtp(track, packet, arrival);
    else if (const QByteArray place = placeOf(data, size); !place.isEmpty())
        takeRtp(track, viewOf(place), arrival, true);
}

// What works is remembered.
void RtspSession::noteFirstPacket()
{
    m_bMediaSeen = true;
    m_deadlines.clear(RtspDeadlines::eFirstPacket);
    m_deadlines.setLimit(RtspDeadlines::eSilence, m_current.timeouts.nSilence);
    m_remembered = {m_started.toString(), m_transport};
}

// False when a handler has ended the session.
bool RtspSession::beginSource(int track, quint32 ssrc, const RtpArrival& arrival)
{
    if (!takeHeld(track, RtpReorderBuffer::kNever))
        return false;
    const Setup& setup = m_setups[static_cast<std::size_t>(track)];
    setup.pInput->beginSource(ssrc);
    m_timeline.setSource(setup.nTimeline, ssrc);
    const Watched::Watch watch = m_session.watch();
    if (const QByteArray rival = setup.pInput->takeRival(); !rival.isEmpty())
        takeRtp(track, viewOf(rival), arrival);
    return watch.holds();
}

void RtspSession::takeRtp(int track, RTPPacket packet, const RtpArrival& arrival, bool bEmpty)
{
    RtspTrackInput& input = *m_setups[static_cast<std::size_t>(track)].pInput;
    if (bEmpty && input.source() != packet.getSSRC())
        return; // of another source it says nothing
    const RtspTrackInput::Verdict verdict = input.admit(packet, arrival.monotonicUs);
    if (verdict == RtspTrackInput::Verdict::Dropped)
        return;
    m_lastMediaUs = arrival.monotonicUs;
    if (!m_bMediaSeen && m_phase == Phase::Playing)
        noteFirstPacket();
    if (verdict == RtspTrackInput::Verdict::NewSource && !beginSource(track, packet.getSSRC(), arrival))
        return;
    const Watched::Watch watch = m_session.watch();
    input.reception()->update(packet, arrival.monotonicUs);
    if (bEmpty)
        input.makeMute(&packet);
    else
        emit m_client.packetReceived(track, packet, arrival);
    if (!watch.holds())
        return;
    RtpOrderedPacket ordered;
    if (input.order().push(packet, arrival.monotonicUs, &ordered) && !takeOrdered(track, ordered))
        return;
    if (takeHeld(track, arrival.monotonicUs))
        noteReorder(input);
}

// False when a handler has ended the session.
bool RtspSession::takeOrdered(int track, const RtpOrderedPacket& ordered)
{
    const Setup& setup = m_setups[static_cast<std::size_t>(track)];
    RtspTrackInput& input = *setup.pInput;
    const bool bBroken = ordered.bNewRun && input.order().counts().nRuns > 1;
    if (bBroken)
        m_timeline.restart(setup.nTimeline);
    input.push(ordered, bBroken);
    return input.units() == nullptr || tellUnits(track, ordered.arrivalUs);
}

bool RtspSession::tellUnits(int track, qint64 arrivalUs)
{
    const int line = m_setups[static_cast<std::size_t>(track)].nTimeline;
    const std::shared_ptr<RtspTrackInput> input = m_setups[static_cast<std::size_t>(track)].pInput;
    RtspUnit unit;
    unit.arrival = {arrivalUs, arrivalUs + m_wallOffsetUs};
    const Watched::Watch watch = m_session.watch();
    while (input->units()->next(&unit)) {
        unit.time = m_timeline.stamp(line, unit.nTimestamp, unit.arrival);
        input->countUnit();
        emit m_client.unitReceived(track, unit);
        if (!watch.holds())
            return false;
    }
    return true;
}

bool RtspSession::takeHeld(int track, qint64 nowUs)
{
    RtpReorderBuffer& order = m_setups[static_cast<std::size_t>(track)].pInput->order();
    RtpOrderedPacket ordered;
    while (order.pop(nowUs, &ordered)) {
        if (!takeOrdered(track, ordered))
            return false;
    }
    return true;
}

void RtspSession::noteReorder(RtspTrackInput& input)
{
    const qint64 due = input.order().dueAt();
    if (due != RtpReorderBuffer::kNever)
        m_deadlines.setEarlier(RtspDeadlines::eReorder, due);
}

void RtspSession::takeDueHeld()
{
    constexpr int kAgainMs = 50;
    if (m_bTaking) {
        m_deadlines.setLimit(RtspDeadlines::eReorder, kAgainMs);
        return;
    }
    const qint64 now = monotonicUs();
    m_bTaking = true;
    for (std::size_t i = 0; i < m_setups.size(); ++i) {
        if (!m_setups[i].pInput)
            continue;
        if (!takeHeld(static_cast<int>(i), now))
            return;
        noteReorder(*m_setups[i].pInput);
    }
    takeKept();
}

void RtspSession::takeRtcp(int track, const char* data, int size, const RtpArrival& arrival)
{
    const Setup& setup = m_setups[static_cast<std::size_t>(track)];
    const RtcpCompound rtcp(reinterpret_cast<const unsigned char*>(data), static_cast<unsigned int>(size));
    RtcpCompound walk = rtcp;
    bool bAny = false;
    RtcpSenderInfo info;
    while (walk.next()) {
        bAny = true;
        if (walk.senderInfo(&info)) {
            if (setup.pInput->source() == info.nSsrc)
                setup.pInput->reception()->senderReport(info.ntp, arrival.monotonicUs);
            m_timeline.senderReport(setup.nTimeline, info.nSsrc, info.ntp, info.nRtpTimestamp, arrival);
        }
        for (int i = 0; walk.type() == eRtcpBYE && i < walk.count(); ++i)
            setup.pInput->sourceLeft(walk.byeSource(i));
    }
    if (bAny)
        emit m_client.rtcpReceived(track, rtcp, arrival);
}

// --- silence ---------------------------------------------------------------------------------------------

// Tracks of data may be silent for hours.
bool RtspSession::hasOnlyData() const
{
    return std::all_of(m_setups.begin(), m_setups.end(), [this](const Setup& setup) {
        const QString& media = m_tracks.at(static_cast<int>(&setup - m_setups.data())).media;
        return !setup.bDone
            || (media.compare(QLatin1String("video"), Qt::CaseInsensitive) != 0
                && media.compare(QLatin1String("audio"), Qt::CaseInsensitive) != 0);
    });
}

// Over TCP every byte is a sign of life; where only data is played the answers to keep-alives are, too.
void RtspSession::lookAtSilence()
{
    qint64 limitUs = m_current.timeouts.nSilence * 1000LL;
    qint64 lastUs = m_lastMediaUs;
    if (m_transport == RtspOptions::eTcp || hasOnlyData())
        lastUs = std::max(lastUs, m_pConnection->lastReceived().monotonicUs);
    if (hasOnlyData())
        limitUs = std::max(
            limitUs, 2000LL * RtspKeepAlive::intervalMs(m_nTimeout) + m_current.timeouts.nAnswer * 1000LL);
    if (monotonicUs() - lastUs < limitUs)
        m_deadlines.setAt(RtspDeadlines::eSilence, lastUs + limitUs);
    else
        failLimit(static_cast<int>(limitUs / 1000), QStringLiteral("nothing more came"));
}

// --- reports ---------------------------------------------------------------------------------------------

void RtspSession::openFirewall(const Setup& setup)
{
    if (!setup.pPorts || setup.bGroup)
        return;
    if (setup.serverPorts.nFirst > 0)
        setup.pPorts->send(false, setup.server, static_cast<quint16>(setup.serverPorts.nFirst), kFirstRtp);
    sendReport(setup);
}

void RtspSession::sendReport(const Setup& setup)
{
    std::array<unsigned char, RtpReception::kMaxReportSize> report{};
    RtpReception nothing(0, 0);
    RtpReception* reception = setup.pInput->reception();
    const int size = (reception != nullptr ? *reception : nothing)
                         .writeReport(report.data(), static_cast<int>(report.size()), m_nOwnSsrc, m_cname,
                             monotonicUs());
    const QByteArray bytes(reinterpret_cast<const char*>(report.data()), size);
    if (!setup.pPorts)
        m_pConnection->send(interleaved(setup.channels.nSecond, bytes));
    else if (setup.pPorts && setup.serverPorts.nSecond > 0)
        setup.pPorts->send(true, setup.server, static_cast<quint16>(setup.serverPorts.nSecond), bytes);
}

// None waits behind what the connection has not taken.
void RtspSession::sendReports()
{
    const bool bNow = m_transport != RtspOptions::eTcp || m_pConnection->isAllSent();
    m_deadlines.setAbout(
        RtspDeadlines::eReport, bNow ? m_current.nReportMs : std::min(m_current.nReportMs, kStalledMs));
    for (const Setup& setup : m_setups) {
        if (setup.pInput && bNow)
            sendReport(setup);
    }
}

// --- what is told of it ----------------------------------------------------------------------------------

void RtspSession::tellStatistics()
{
    m_deadlines.setAbout(RtspDeadlines::eStatistics, kStatisticsMs);
    if (m_phase != Phase::Playing)
        return;
    QVector<RtspTrackStatistics> all;
    for (const Setup& setup : m_setups) {
        if (setup.pInput)
            all.append(setup.pInput->takeStatistics(monotonicUs()));
    }
    emit m_client.statistics(all);
}

QVector<RtspTrackStatistics> RtspSession::statistics() const
{
    QVector<RtspTrackStatistics> all;
    for (const Setup& setup : m_setups) {
        if (setup.pInput)
            all.append(setup.pInput->statistics());
    }
    return all;
}

RtpMediaParameters RtspSession::parameters(int track) const
{
    if (track < 0 || track >= m_tracks.size())
        return RtpMediaParameters();
    const std::shared_ptr<RtspTrackInput>& input = m_setups[static_cast<std::size_t>(track)].pInput;
    return input && input->units() != nullptr ? input->parameters() : m_tracks.at(track).parameters;
}
