#include "CameraThread.h"

CameraThread::CameraThread(int count, const SimulatedCamera::Media& media, unsigned short rtspPort)
    : m_nRtspPort(rtspPort)
{
    start();
    if (!isRunning())
        return; // no thread is to be had, and no camera
    m_context.moveToThread(this);
    QMetaObject::invokeMethod(
        &m_context, [this, count, media] { makeCameras(count, media); }, Qt::BlockingQueuedConnection);
}

CameraThread::~CameraThread()
{
    if (!isRunning())
        return;
    QMetaObject::invokeMethod(
        &m_context,
        [this] {
            m_cameras.clear();
            m_rtsp.reset();
        },
        Qt::BlockingQueuedConnection);
    quit();
    wait();
}

void CameraThread::makeCameras(int count, const SimulatedCamera::Media& media)
{
    m_rtsp = std::make_unique<RtspServer>(
        DigestGuard("camera", SimulatedCamera::kUser, SimulatedCamera::kPassword));
    m_rtsp->listen(QHostAddress(QHostAddress::LocalHost), m_nRtspPort);
    m_nRtspPort = m_rtsp->port();
    for (int i = 0; i < count; ++i) {
        m_cameras.push_back(std::make_unique<SimulatedCamera>(i, media, *m_rtsp));
        if (!m_cameras.back()->listen())
            return;
        m_ports.push_back(m_cameras.back()->port());
    }
}
