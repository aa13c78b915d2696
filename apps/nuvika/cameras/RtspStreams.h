// A session with an RTSP camera that keeps a record of each of its tracks, over all of its sessions.
#pragma once

#include "StreamRecord.h"
#include "base/Target.h"

#include <KepNuvikaUtil/RtspClient.h>

#include <QtCore/QElapsedTimer>

#include <map>

class RtspStreams : public QObject
{
    Q_OBJECT
public:
    RtspStreams(const Target& camera, RtspOptions options);

    RtspClient& client() { return m_client; }
    const RtspClient& client() const { return m_client; }
    void start();
    // Counts what came since the last second.
    void closeInterval();
    // The same once a second where nothing plays.
    void closeSilence();

    // By track.
    const std::map<int, StreamRecord>& records() const { return m_records; }
    // Of the last second.
    const RtspTrackStatistics& statistics(int track) const;
    // The first of pictures, else the first of all; -1 without one.
    int mainTrack() const;

signals:
    // Each second, once the records have it.
    void updated();

private:
    void beginSession();
    void takeReports(int track, RtcpCompound rtcp, const RtpArrival& arrival);

    Target m_camera;
    RtspClient m_client;
    std::map<int, StreamRecord> m_records;
    QVector<RtspTrackStatistics> m_statistics;
    QElapsedTimer m_sinceInterval;
};

// "UDP", "TCP", "multicast"
QString shownTransport(RtspOptions::Transport transport);
// "H264/90000"
QString shownEncoding(const RtspTrack& track);
// "avc1.640028, 1920x1080": codec, size, rate, as far as they are known.
QString shownParameters(const RtpMediaParameters& parameters);
