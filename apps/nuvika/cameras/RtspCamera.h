// A camera that is played by RTSP. Pictures of JPEG are shown; of other streams key frames and bytes are
// told.
#pragma once

#include "Camera.h"
#include "RtspStreams.h"

class RtspCamera : public Camera
{
public:
    RtspCamera(const QString& name, const Target& target);

    void finish() override { m_streams.closeInterval(); }
    QString format() const override { return m_format; }
    const StreamRecord* stream() const override;

private:
    void open() override { m_streams.start(); }
    void lookAtSilence() override { m_streams.closeSilence(); } // the session itself has a time limit
    void takeDescription();
    void takeUnit(int track, const RtspUnit& unit);
    QString whyFailed(int code) const;

    RtspStreams m_streams;
    int m_nMain = -1; // the track that is shown
    bool m_bVideo = false;
    bool m_bPictures = false; // it is of JPEG
    QString m_encoding;
    QString m_format;
};
