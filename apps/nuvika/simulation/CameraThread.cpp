#include "CameraThread.h"

CameraThread::CameraThread(int count, const SimulatedCamera::Media& media)
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
        &m_context, [this] { m_cameras.clear(); }, Qt::BlockingQueuedConnection);
    quit();
    wait();
}

void CameraThread::makeCameras(int count, const SimulatedCamera::Media& media)
{
    for (int i = 0; i < count; ++i) {
        m_cameras.push_back(std::make_unique<SimulatedCamera>(i, media));
        if (!m_cameras.back()->listen())
            return;
        m_ports.push_back(m_cameras.back()->port());
    }
}
