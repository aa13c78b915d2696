// Simulated cameras on a thread of their own, so that the recorder's thread does the recorder's work only.
#pragma once

#include "SimulatedCamera.h"

#include <QtCore/QThread>

class CameraThread : public QThread
{
public:
    // A taken rtspPort leaves the cameras without RTSP; 0 takes a free one.
    CameraThread(int count, const SimulatedCamera::Media& media, unsigned short rtspPort);
    ~CameraThread() override;

    // Of those that could listen: the first ones.
    const std::vector<unsigned short>& ports() const { return m_ports; }
    // 0: without.
    unsigned short rtspPort() const { return m_nRtspPort; }

private:
    void makeCameras(int count, const SimulatedCamera::Media& media);

    QObject m_context; // lives on the thread
    std::unique_ptr<RtspServer> m_rtsp;
    unsigned short m_nRtspPort;
    std::vector<std::unique_ptr<SimulatedCamera>> m_cameras;
    std::vector<unsigned short> m_ports;
};
