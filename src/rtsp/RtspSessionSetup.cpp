// From the description to PLAY: which tracks, by which transport.
#include "rtsp/RtspSession_p.h"

#include <algorithm>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kUnsupportedTransport = 461;
constexpr int kUnsupportedMedia = 415;
constexpr int kLeastPort = 2; // 0 and 1 mean that the server does not say
constexpr int kMostChannel = 255;

PortPair usable(const PortPair& ports)
{
    return {ports.nFirst >= kLeastPort ? ports.nFirst : -1, ports.nSecond >= kLeastPort ? ports.nSecond : -1};
}

const char* nameOf(RtspOptions::Transport transport)
{
    return transport == RtspOptions::eTcp ? "TCP" : transport == RtspOptions::eUdp ? "UDP" : "multicast";
}

bool isAny(const QHostAddress& address)
{
    return address == QHostAddress(QHostAddress::AnyIPv4) || address == QHostAddress(QHostAddress::AnyIPv6);
}

quint32 ipv4Of(const QHostAddress& address)
{
    bool bIPv4 = false;
    const quint32 value = address.toIPv4Address(&bIPv4);
    return bIPv4 ? value : 0;
}
} // namespace

// --- the description -------------------------------------------------------------------------------------

void RtspSession::sendDescribe()
{
    m_phase = Phase::Describe;
    m_pConnection->reader().awaitDescription(true);
    request(Purpose::Describe, QStringLiteral("DESCRIBE"), m_url.toString(),
        {{QStringLiteral("Accept"), QStringLiteral("application/sdp")}});
}

void RtspSession::takeDescription(const RtspHead& answer, const QByteArray& body)
{
    const QString base = m_url.base(
        answer.value(QStringLiteral("Content-Base")), answer.value(QStringLiteral("Content-Location")));
    const SdpDescription description = SdpDescription::read(body);
    if (m_bDescribed) { // another transport: the same tracks, if it is the same description
        if (description.media.size() == m_description.media.size())
            placeTracks(description, base);
        beginSetup();
        return;
    }
    if (description.media.isEmpty()) {
        fail(kUnsupportedMedia,
            QStringLiteral("%1: the description (%2 bytes) has no tracks")
                .arg(m_url.authority())
                .arg(body.size()));
        return;
    }
    m_description = description;
    m_tracks.clear();
    const int count = std::min(description.media.size(), m_current.limits.nTracks);
    for (int i = 0; i < count; ++i)
        m_tracks.append(trackOf(description, i, base, m_current.unitFormat));
    m_setups = std::vector<Setup>(static_cast<std::size_t>(count));
    placeTracks(description, base);
    m_bDescribed = true;
    m_phase = Phase::Described;
    const QVector<RtspTrack> tracks = m_tracks;
    const Watched::Watch watch = m_session.watch();
    emit m_client.described(description, tracks);
    if (!watch.holds())
        return;
    m_deadlines.clear(RtspDeadlines::eAnswer); // of a play() in a handler
    if (m_bPlayCalled || m_current.bPlayAtOnce)
        beginSetup();
}

void RtspSession::placeTracks(const SdpDescription& description, const QString& base)
{
    m_base = base;
    m_controlled = QStringList(encodedUrl(description.sessionUrl(base)));
    m_bControlChosen = false;
    for (RtspTrack& track : m_tracks)
        track.url = encodedUrl(description.trackUrl(track.index, base));
}

// Some servers describe once only: the first description still holds.
void RtspSession::refusedDescription(const Request& request, const RtspHead& answer)
{
    if (m_bDescribed && answer.status() != 401)
        beginSetup();
    else
        refused(request, answer);
}

// --- what to set up --------------------------------------------------------------------------------------

QVector<int> RtspSession::usableTracks() const
{
    QVector<int> usable;
    for (const RtspTrack& track : m_tracks) {
        const bool bChosen = m_selected.contains(track.index) && track.payloadType >= 0;
        if (m_selected.isEmpty() ? track.problem.isEmpty() : bChosen)
            usable.append(track.index);
    }
    return usable;
}

QString RtspSession::unusableTracks() const
{
    QStringList problems;
    for (const RtspTrack& track : m_tracks)
        problems.append(QStringLiteral("%1: %2").arg(track.media, track.problem));
    return problems.join(QStringLiteral("; "));
}

RtspOptions::Transport RtspSession::firstTransport() const
{
    if (m_forced)
        return *m_forced;
    if (m_url.bTls)
        return RtspOptions::eTcp;
    if (m_current.transport != RtspOptions::eAutomatic)
        return m_current.transport;
    if (m_remembered.first == m_started.toString())
        return m_remembered.second;
    // Units are as large as they please there, and their datagrams come in fragments.
    for (const int i : usableTracks()) {
        const SdpFormat* format = m_tracks.at(i).description.format(m_tracks.at(i).payloadType);
        if (m_tracks.at(i).encoding == QLatin1String("H264")
            && format->parameter(QStringLiteral("packetization-mode")) == QLatin1String("0"))
            return RtspOptions::eTcp;
    }
    return RtspOptions::eUdp;
}

// What is left to try where the server refuses one.
std::optional<RtspOptions::Transport> RtspSession::nextTransport() const
{
    if (m_current.transport != RtspOptions::eAutomatic || m_url.bTls)
        return std::nullopt;
    for (const auto transport : {RtspOptions::eUdp, RtspOptions::eTcp, RtspOptions::eMulticast}) {
        if (!m_tried.test(transport))
            return transport;
    }
    return std::nullopt;
}

void RtspSession::beginSetup()
{
    m_transport = firstTransport();
    m_phase = Phase::Setup;
    m_nLastRefusal = 0;
    m_timeline = RtpTimeline();
    m_timeline.setClockBound(m_current.clockBoundUs);
    if (usableTracks().isEmpty())
        fail(kUnsupportedMedia,
            QStringLiteral("%1 offers nothing that we can play: %2")
                .arg(m_url.authority(), unusableTracks()));
    else
        setupNext();
}

void RtspSession::setupNext()
{
    bool bAny = false;
    for (const int i : usableTracks()) {
        const Setup& setup = m_setups[static_cast<std::size_t>(i)];
        bAny = bAny || setup.bDone;
        if (!setup.bDone && !setup.bRefused) {
            sendSetup(i);
            return;
        }
    }
    if (bAny)
        sendPlay();
    else
        fail(m_nLastRefusal,
            QStringLiteral("%1: no track can be set up: %2").arg(m_url.authority(), unusableTracks()));
}

void RtspSession::sendSetup(int track)
{
    m_tried.set(m_transport);
    Setup& setup = m_setups[static_cast<std::size_t>(track)];
    RtspTransportField field;
    field.lower = m_transport == RtspOptions::eTcp ? RtspTransportField::eTcp : RtspTransportField::eUdp;
    field.bMulticast = m_transport == RtspOptions::eMulticast;
    if (m_transport == RtspOptions::eTcp) {
        const auto isDone = [](const Setup& each) { return each.bDone; };
        const auto done = static_cast<int>(std::count_if(m_setups.begin(), m_setups.end(), isDone));
        setup.channels = field.interleaved = {2 * done, 2 * done + 1};
    } else if (m_transport == RtspOptions::eUdp) {
        setup.pPorts = std::make_unique<RtspUdpPorts>(*this, track);
        if (!setup.pPorts->open(m_localAddress, m_current.nUdpReceiveBuffer)) {
            failPorts(*setup.pPorts);
            return;
        }
        field.clientPort = {setup.pPorts->rtpPort(), setup.pPorts->rtcpPort()};
    }
    m_nSettingUp = track;
    request(Purpose::Setup, QStringLiteral("SETUP"), m_tracks.at(track).url,
        {{QStringLiteral("Transport"), field.toString()}});
}

// --- answers to SETUP ------------------------------------------------------------------------------------

void RtspSession::setupAnswered(const RtspHead& answer)
{
    Setup& setup = m_setups[static_cast<std::size_t>(m_nSettingUp)];
    const RtspTransportField field = RtspTransportField::parse(answer.value(QStringLiteral("Transport")));
    if (m_transport == RtspOptions::eTcp ? !takeInterleaved(setup, field)
            : field.bMulticast           ? !takeMulticast(setup, field)
                                         : !takeUdp(setup, field))
        return;
    makeInput(m_nSettingUp, field);
    setup.bDone = true;
    assignChannels();
    setupNext();
}

// Nothing said: what was asked for.
bool RtspSession::takeInterleaved(Setup& setup, const RtspTransportField& field)
{
    if (field.lower == RtspTransportField::eUdp && field.serverPort.isSaid()) {
        fail(kUnsupportedTransport,
            m_url.authority() + QStringLiteral(": the server answers with UDP to a SETUP for TCP"));
        return false;
    }
    if (field.interleaved.isSaid() && field.interleaved.nSecond <= kMostChannel)
        setup.channels = field.interleaved;
    return true;
}

bool RtspSession::takeUdp(Setup& setup, const RtspTransportField& field)
{
    if (field.lower == RtspTransportField::eTcp) {
        const QString reason = QStringLiteral("the server answers with TCP to a SETUP for UDP");
        if (m_current.transport == RtspOptions::eAutomatic)
            reopen(RtspOptions::eTcp, reason);
        else
            fail(kUnsupportedTransport, m_url.authority() + QStringLiteral(": ") + reason);
        return false;
    }
    takeSource(setup, field);
    setup.serverPorts = usable(field.serverPort);
    if (!setup.pPorts) { // a group was asked for
        fail(kUnsupportedTransport,
            m_url.authority() + QStringLiteral(": the server has no group for a multicast"));
        return false;
    }
    return true;
}

// Where packets come from: the address that is named, or the server's own.
void RtspSession::takeSource(Setup& setup, const RtspTransportField& field)
{
    const QHostAddress source(field.source);
    const bool bAddress = !source.isNull() && !isAny(source);
    setup.server = bAddress ? source : m_peerAddress;
    setup.nServerIPv4 = ipv4Of(setup.server);
    setup.bAnySender = !bAddress && source.isNull() && !field.source.isEmpty();
}

// The group of the answer, else that of the description.
bool RtspSession::takeMulticast(Setup& setup, const RtspTransportField& field)
{
    const SdpMedia& media = m_tracks.at(m_nSettingUp).description;
    QHostAddress group(field.destination);
    if (!group.isMulticast())
        group = QHostAddress(media.connection.address);
    const PortPair ports = usable(field.port.isSaid() ? field.port : PortPair{media.port, media.port + 1});
    if (!group.isMulticast() || ports.nFirst < 0 || ports.nSecond < 0) {
        fail(kUnsupportedTransport,
            m_url.authority() + QStringLiteral(": the server names no group and ports"));
        return false;
    }
    takeSource(setup, field);
    setup.bAnySender = setup.bAnySender || field.source.isEmpty();
    setup.serverPorts = ports;
    setup.bGroup = true;
    setup.pPorts = std::make_unique<RtspUdpPorts>(*this, m_nSettingUp);
    if (setup.pPorts->join(group, static_cast<quint16>(ports.nFirst), static_cast<quint16>(ports.nSecond),
            m_localAddress, m_current.nUdpReceiveBuffer))
        return true;
    failPorts(*setup.pPorts);
    return false;
}

void RtspSession::failPorts(const RtspUdpPorts& ports)
{
    fail(ports.problemCode(), m_url.authority() + QStringLiteral(": ") + ports.problem());
}

void RtspSession::setupRefused(const Request& request, const RtspHead& answer)
{
    const std::optional<RtspOptions::Transport> other = nextTransport();
    if (answer.status() == kUnsupportedTransport && other) {
        const QString reason
            = QStringLiteral("the server refuses %1 (461)").arg(QLatin1String(nameOf(m_transport)));
        const bool bFirst
            = std::none_of(m_setups.begin(), m_setups.end(), [](const Setup& each) { return each.bDone; });
        if (!bFirst) {
            reopen(*other, reason);
        } else if (changeTransport(*other, reason)) {
            m_setups[static_cast<std::size_t>(m_nSettingUp)] = Setup();
            setupNext();
        }
        return;
    }
    if (answer.status() == kUnsupportedTransport)
        m_remembered = {}; // it does not work any more
    constexpr int kSessionNotFound = 454;
    if (answer.status() == 401 || answer.status() == kSessionNotFound || usableTracks().size() == 1) {
        refused(request, answer);
        return;
    }
    m_nLastRefusal = answer.status();
    m_setups[static_cast<std::size_t>(m_nSettingUp)] = Setup();
    m_setups[static_cast<std::size_t>(m_nSettingUp)].bRefused = true;
    RtspTrack& track = m_tracks[m_nSettingUp];
    track.problem
        = QStringLiteral("its SETUP (CSeq %1) was refused with %2").arg(request.cseq).arg(answer.status());
    const QString reason = track.problem;
    const Watched::Watch watch = m_session.watch();
    emit m_client.trackRefused(track.index, reason);
    if (watch.holds())
        setupNext();
}

void RtspSession::makeInput(int track, const RtspTransportField& field)
{
    Setup& setup = m_setups[static_cast<std::size_t>(track)];
    setup.pInput = std::make_shared<RtspTrackInput>(m_tracks.at(track), m_current);
    if (m_transport == RtspOptions::eTcp)
        setup.pInput->setInterleaved();
    else
        setup.pInput->setOrdering(m_current.nReorderPackets, m_current.nReorderMs);
    setup.pInput->announceSource(field.ssrc);
    setup.nTimeline = m_timeline.addTrack(m_tracks.at(track).clockRate);
}

void RtspSession::assignChannels()
{
    RtspMessageReader::Channels channels;
    for (const Setup& setup : m_setups) {
        if (!setup.bDone || !setup.channels.isSaid())
            continue;
        channels.set(static_cast<std::size_t>(setup.channels.nFirst));
        channels.set(static_cast<std::size_t>(setup.channels.nSecond));
    }
    m_pConnection->reader().setChannels(channels);
}

// --- PLAY ------------------------------------------------------------------------------------------------

void RtspSession::sendPlay()
{
    m_phase = Phase::Play;
    for (const Setup& setup : m_setups)
        openFirewall(setup);
    control(Purpose::Play, {{QStringLiteral("Range"), QStringLiteral("npt=0.000-")}});
}

void RtspSession::takeRtpInfo(const RtspHead& answer)
{
    const QVector<RtpInfo> infos = parseRtpInfo(answer.value(QStringLiteral("RTP-Info")));
    const auto isDone = [](const Setup& each) { return each.bDone; };
    const bool bOne = std::count_if(m_setups.begin(), m_setups.end(), isDone) == 1;
    for (std::size_t i = 0; i < m_setups.size(); ++i) {
        for (const RtpInfo& info : infos) {
            const bool bSame = bOne || mayBeSameTrack(m_tracks.at(static_cast<int>(i)).url, info.url);
            if (m_setups[i].bDone && bSame)
                m_setups[i].pInput->announceFirst(info);
        }
    }
}

void RtspSession::playAnswered()
{
    for (const Setup& setup : m_setups) {
        if (setup.pInput)
            setup.pInput->takeStatistics(monotonicUs()); // the first second begins
    }
    m_phase = Phase::Playing;
    beginWaiting();
    emit m_client.playing();
}

void RtspSession::beginWaiting()
{
    const RtspTimeouts& limits = m_current.timeouts;
    const bool bTrial = m_transport == RtspOptions::eUdp && m_current.transport == RtspOptions::eAutomatic;
    m_lastMediaUs = monotonicUs();
    if (!m_bMediaSeen && !hasOnlyData())
        m_deadlines.setLimit(RtspDeadlines::eFirstPacket, bTrial ? limits.nUdpTrial : limits.nFirstPacket);
    else
        m_deadlines.setLimit(RtspDeadlines::eSilence, limits.nSilence);
    m_deadlines.setAbout(RtspDeadlines::eKeepAlive, RtspKeepAlive::intervalMs(m_nTimeout));
    m_deadlines.setAbout(RtspDeadlines::eReport, m_current.nReportMs);
    m_deadlines.setAbout(RtspDeadlines::eStatistics, kStatisticsMs);
}
