// The RTP stream of one camera: asks the camera for it by HTTP, receives it, and asks again so that it goes
// on.
#pragma once

#include "RtpReceiver.h"
#include "base/Target.h"

#include <KepNuvikaUtil/HttpClient.h>

#include <QtCore/QTimer>

#include <memory>

class CameraMedia : public QObject
{
public:
    // The camera answers GET /stream.sdp?rtp=PORT&rtcp=PORT with a description of what it will send there, or
    // of the group that it sends to.
    explicit CameraMedia(const Target& camera);

    void start();
    // Null where none could be made; problem() tells why.
    const RtpReceiver* receiver() const { return m_receiver.get(); }
    RtpReceiver* receiver() { return m_receiver.get(); }
    const QString& problem() const { return m_problem; }
    const QString& description() const { return m_description; }

private:
    bool openUnicast();
    void ask();
    void takeDescription(const QString& text);

    Target m_camera;
    HttpClient m_client;
    QTimer m_askAgain;
    QString m_description;
    QString m_problem;
    std::unique_ptr<RtpReceiver> m_receiver;
};
