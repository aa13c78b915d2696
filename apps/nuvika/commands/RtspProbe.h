// Plays from an RTSP camera for a while, and prints what it offers, what it sends, and what is wrong with it.
#pragma once

#include "RtspAdvice.h"
#include "recording/StreamFile.h"

#include <QtCore/QTimer>

#include <map>

class RtspProbe : public QObject
{
public:
    struct Settings {
        Target camera;
        RtspOptions options;
        int seconds = 0; // from the first packet on; 0: until finish()
        QString saveTo; // the first track of pictures; empty: nothing
        bool bTrace = false; // requests and answers, to standard error
    };

    explicit RtspProbe(const Settings& settings);

    // Ends the event loop with an exit code when it is through. False with a message when the file cannot be
    // written.
    bool start();
    // Prints what is known, and ends.
    void finish();

private:
    QString column(const RtspTrack& track) const;
    void showTracks();
    void chooseSaved();
    void showPlaying();
    void endAfter(int patienceMs);
    void showSecond();
    void showSummary(bool bBroken);
    void showTrackSummary(const RtspTrack& track);
    void takeUnit(int track, const RtspUnit& unit);
    void tellChange(int track, const RtspUnit& unit);
    void takeServer(const QByteArray& message);
    void fail(int code);
    void end(int code);
    int finishFile();
    double seconds() const { return static_cast<double>(m_played.elapsed()) / 1000; }

    Settings m_settings;
    RtspStreams m_streams;
    RtspClient& m_client;
    StreamFile m_file;
    int m_saved = -1; // the track
    RtspStage m_stage = RtspStage::Connecting;
    QString m_server;
    struct Seen { // of a track's last unit
        bool bWallBySender = false;
        QString parameters;
    };
    std::map<int, Seen> m_seen; // by track
    bool m_bFirst = false; // nothing has come yet
    QElapsedTimer m_played;
    QTimer m_end;
};
