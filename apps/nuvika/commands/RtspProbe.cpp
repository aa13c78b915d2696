#include "RtspProbe.h"

#include "StreamLines.h"
#include "base/Exit.h"
#include "base/Output.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace
{
QString nameOf(const RtspTrack& track)
{
    return QStringLiteral("%1 %2 %3")
        .arg(QString::number(track.index + 1), track.media, shownEncoding(track));
}

void trace(char direction, const QByteArray& text)
{
    Output::flush();
    for (const QByteArray& line : text.trimmed().split('\n'))
        std::fprintf(
            stderr, "%c %s\n", direction, Output::shown(QString::fromUtf8(line).trimmed()).constData());
}

void print(const QString& line) { Output::write(Output::shown(line) + '\n'); }
} // namespace

RtspProbe::RtspProbe(const Settings& settings)
    : m_settings(settings), m_streams(settings.camera, settings.options), m_client(m_streams.client())
{
    connect(&m_client, &RtspClient::messageReceived, this, &RtspProbe::takeServer);
    connect(&m_client, &RtspClient::messageSent, this,
        [this] { m_stage = std::max(m_stage, RtspStage::Connected); });
    if (settings.bTrace) {
        connect(&m_client, &RtspClient::messageSent, this, [](const QByteArray& text) { trace('>', text); });
        connect(
            &m_client, &RtspClient::messageReceived, this, [](const QByteArray& text) { trace('<', text); });
    }
    connect(&m_client, &RtspClient::described, this, &RtspProbe::showTracks);
    connect(&m_client, &RtspClient::trackRefused, this, [](int track, const QString& reason) {
        print(QStringLiteral("Track %1 is left out: %2").arg(QString::number(track + 1), reason));
    });
    connect(&m_client, &RtspClient::transportChanged, this,
        [](RtspOptions::Transport transport, const QString& reason) {
            print(QStringLiteral("%1 is tried next: %2.").arg(shownTransport(transport), reason));
        });
    m_end.setSingleShot(true);
    connect(&m_end, &QTimer::timeout, this, &RtspProbe::finish);
    connect(&m_client, &RtspClient::playing, this, &RtspProbe::showPlaying);
    connect(&m_client, &RtspClient::unitReceived, this, &RtspProbe::takeUnit);
    connect(&m_streams, &RtspStreams::updated, this, &RtspProbe::showSecond);
    connect(&m_client, &RtspClient::error, this, &RtspProbe::fail);
}

bool RtspProbe::start()
{
    if (!m_settings.saveTo.isEmpty() && !m_file.open(m_settings.saveTo)) {
        Output::complain(m_file.problem());
        return false;
    }
    print(m_settings.camera.shown());
    m_streams.start();
    return true;
}

// --- while it runs ---------------------------------------------------------------------------------------

void RtspProbe::takeServer(const QByteArray& message)
{
    m_stage = std::max(m_stage, RtspStage::Answered);
    const int at = message.toLower().indexOf("\nserver:");
    if (at >= 0 && m_server.isEmpty())
        m_server = QString::fromUtf8(message.mid(at + 8, message.indexOf('\n', at + 8) - at - 8)).trimmed();
}

// A track's name, as wide as the longest.
QString RtspProbe::column(const RtspTrack& track) const
{
    int width = 0;
    for (const RtspTrack& each : m_client.tracks())
        width = std::max(width, nameOf(each).size());
    return nameOf(track).leftJustified(width);
}

void RtspProbe::showTracks()
{
    if (!m_server.isEmpty())
        print(QStringLiteral("Server: %1").arg(m_server));
    for (const RtspTrack& track : m_client.tracks()) {
        QString what = shownParameters(track.parameters);
        if (track.description.frameRate > 0)
            what += QStringLiteral(", %1 pictures/s as declared").arg(track.description.frameRate);
        if (!track.problem.isEmpty())
            what = QStringLiteral("left out: %1").arg(track.problem);
        print(QStringLiteral("  %1  %2").arg(column(track), what));
    }
    Output::flush();
    if (m_file.isOpen())
        chooseSaved();
}

void RtspProbe::chooseSaved()
{
    static const QStringList savable{QStringLiteral("H264"), QStringLiteral("H265"), QStringLiteral("JPEG")};
    m_saved = m_streams.mainTrack();
    if (m_saved >= 0 && savable.contains(m_client.tracks().at(m_saved).encoding))
        return;
    Output::complain(QStringLiteral("no track has H.264, H.265 or JPEG: nothing can be saved"));
    end(Exit::kFailure);
}

void RtspProbe::showPlaying()
{
    m_stage = RtspStage::Playing;
    print(QStringLiteral("Playing over %1; the session ends %2 s after our last request.")
              .arg(shownTransport(m_client.transport()), QString::number(m_client.sessionTimeout())));
    Output::flush();
    m_played.start();
    m_bFirst = true;
    endAfter(m_settings.options.timeouts.nFirstPacket); // where only data is played, which may be silent
}

void RtspProbe::endAfter(int patienceMs)
{
    constexpr int kFiguresMs = 200; // the last second's figures come first
    if (m_settings.seconds > 0)
        m_end.start(m_settings.seconds * 1000 + kFiguresMs + patienceMs);
}

void RtspProbe::showSecond()
{
    const int second = static_cast<int>((m_played.elapsed() + 500) / 1000);
    for (const RtspTrack& track : m_client.tracks()) {
        const auto found = m_streams.records().find(track.index);
        if (found == m_streams.records().end() || !track.problem.isEmpty())
            continue;
        QByteArray line = secondLine(second, column(track), found->second);
        line += QByteArray::number(found->second.figures().unitRate, 'f', 1);
        line += track.media == QLatin1String("video") ? " pictures/s" : " units/s";
        Output::write(line + '\n');
    }
    if (!Output::flush())
        finish();
}

// A camera that restarts behind the same connection, sets its clock or changes its settings. That its first
// sender report moves the wall clock is no change.
void RtspProbe::tellChange(int track, const RtspUnit& unit)
{
    const auto [at, bFirst] = m_seen.try_emplace(track);
    Seen& seen = at->second;
    QStringList changes;
    if (!bFirst && unit.time.bNewRun && (seen.bWallBySender || !unit.time.bWallBySender))
        changes += QStringLiteral("begins a new run: it started again, or its clock was set");
    seen.bWallBySender = unit.time.bWallBySender;
    if (bFirst || unit.bParametersChanged) {
        const QString parameters = shownParameters(m_client.parameters(track));
        if (!bFirst && parameters != seen.parameters)
            changes += QStringLiteral("is now %1").arg(parameters);
        seen.parameters = parameters;
    }
    for (const QString& change : qAsConst(changes))
        print(QStringLiteral("%1 s  %2  %3")
                  .arg(QString::number(seconds(), 'f', 0).rightJustified(4),
                      column(m_client.tracks().at(track)), change));
}

// Whole units from the first key frame on.
void RtspProbe::takeUnit(int track, const RtspUnit& unit)
{
    if (std::exchange(m_bFirst, false)) {
        m_played.start();
        endAfter(0);
    }
    tellChange(track, unit);
    if (!m_file.isOpen() || track != m_saved || (m_file.units() == 0 && !unit.bKeyFrame))
        return;
    if (!m_file.write(reinterpret_cast<const char*>(unit.pData), unit.nSize))
        finish();
}

// --- the end ---------------------------------------------------------------------------------------------

void RtspProbe::fail(int code)
{
    m_streams.closeInterval();
    const RtspAdvice advice = adviceFor(code, m_stage, m_settings.camera, m_client.transport());
    if (m_stage == RtspStage::Playing)
        showSummary(true);
    const int file = finishFile();
    Output::flush();
    Output::complain(m_client.errorString());
    Output::complain(advice.next);
    end(file == Exit::kWrite ? file : advice.exitCode);
}

void RtspProbe::finish()
{
    m_streams.closeInterval();
    if (m_stage != RtspStage::Playing || !m_file.problem().isEmpty()) {
        const int file = finishFile();
        end(file == Exit::kOk ? Exit::kFailure : file);
        return;
    }
    showSummary(false);
    const int file = finishFile();
    bool bAll = true;
    for (const auto& record : m_streams.records())
        bAll = bAll && record.second.figures().allPackets > 0;
    end(file != Exit::kOk || bAll ? file : Exit::kFailure);
}

void RtspProbe::end(int code)
{
    m_end.stop();
    disconnect(&m_client, nullptr, this, nullptr);
    disconnect(&m_streams, nullptr, this, nullptr);
    connect(&m_client, &RtspClient::stopped, this, [code] { QCoreApplication::exit(code); });
    connect(&m_client, &RtspClient::error, this, [code] { QCoreApplication::exit(code); });
    if (m_client.state() == RtspClient::eIdle)
        QCoreApplication::exit(code);
    else
        m_client.stop(); // the camera's place is free again
}

void RtspProbe::showSummary(bool bBroken)
{
    for (const RtspTrack& track : m_client.tracks()) {
        if (m_streams.records().count(track.index) > 0)
            showTrackSummary(track);
    }
    const QStringList findings = findingsOf(m_streams, seconds());
    for (const QString& finding : findings)
        print(finding.endsWith(QLatin1Char('?')) ? finding : finding + QLatin1Char('.'));
    if (findings.isEmpty() && !bBroken)
        print(QStringLiteral("All is well: every track delivers, and nothing was lost."));
}

void RtspProbe::showTrackSummary(const RtspTrack& track)
{
    const StreamRecord& record = m_streams.records().at(track.index);
    const StreamRecord::Figures& f = record.figures();
    const RtspTrackStatistics& s = m_streams.statistics(track.index);
    Output::write(summaryLine(nameOf(track), record) + '\n');
    QStringList parts;
    const bool bVideo = track.media == QLatin1String("video");
    parts += QStringLiteral("%1 %2").arg(
        QString::number(f.units), bVideo ? QStringLiteral("pictures") : QStringLiteral("units"));
    if (bVideo)
        parts += QStringLiteral("%1 key frames").arg(f.keyFrames);
    if (s.nUnitsLost > 0)
        parts += QStringLiteral("%1 damaged and left out").arg(s.nUnitsLost);
    parts += shownParameters(m_client.parameters(track.index));
    if (track.clockRate > 0)
        parts += QStringLiteral("jitter %1 ms").arg(1000.0 * s.nJitter / track.clockRate, 0, 'f', 1);
    if (const auto errorUs = record.clockErrorUs())
        parts += QString::asprintf(
            "clock %+.3f s", static_cast<double>(qRound64(static_cast<double>(*errorUs) / 1000)) / 1000);
    parts.removeAll(QString());
    print(QStringLiteral("  ") + parts.join(QLatin1String(", ")));
}

int RtspProbe::finishFile()
{
    if (!m_file.isOpen())
        return Exit::kOk;
    if (!m_file.finish()) {
        Output::flush();
        Output::complain(m_file.problem());
        return Exit::kWrite;
    }
    print(QStringLiteral("Saved %1 pictures, %2 bytes, in %3.")
              .arg(QString::number(m_file.units()), QString::number(m_file.bytes()), m_file.name()));
    return m_file.units() > 0 ? Exit::kOk : Exit::kFailure;
}
