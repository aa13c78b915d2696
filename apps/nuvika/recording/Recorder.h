// The recorder: its cameras, the page that shows them, and what keeps their pictures.
#pragma once

#include "PictureSaver.h"
#include "cameras/Camera.h"
#include "cameras/CameraMedia.h"
#include "page/HostNames.h"
#include "page/Viewers.h"
#include "page/WebServer.h"

#include <memory>
#include <unordered_map>
#include <vector>

class Recorder : public QObject
{
public:
    Recorder();

    void addCamera(const QString& name, const Target& target);
    // Receives the RTP stream of the camera added last, too.
    void receiveMedia(const Target& target);
    // Keeps every picture as a file in this folder, which is made. False with a sentence.
    bool saveTo(const QString& folder, QString* problem);
    // The page answers under this name, too; false for what is no name.
    bool answerTo(const QString& host) { return m_hosts.add(host); }
    // The page comes over TLS. False with a sentence.
    bool useTls(const QString& certificate, QString* problem)
    {
        return m_server.useTls(certificate, problem);
    }
    bool isTls() const { return m_server.isTls(); }
    bool listen(unsigned short port) { return m_server.listen(QHostAddress(QHostAddress::LocalHost), port); }
    unsigned short port() const { return m_server.port(); }
    void start();
    // Once a second.
    void tick();
    // What is still to be saved or counted, before the last figures are shown.
    void finish();

    const std::vector<std::unique_ptr<Camera>>& cameras() const { return m_cameras; }
    // "cam_camera1_0001": stable as long as the camera's name and place are.
    QString identifier(int camera) const;
    int receivingCameras() const;
    // Of its RTP stream; null without one.
    const StreamRecord* rtp(int camera) const;
    const CameraMedia* media(int camera) const;
    int viewers(int camera) const { return m_viewers[static_cast<std::size_t>(camera)].count(); }
    // Every camera sent pictures, and RTP where it was asked for.
    bool haveAllDelivered() const;
    // One sentence on RTP streams that cannot be received; empty without such.
    QString mediaProblem() const;
    Camera::Sample total() const;
    quint64 skippedPictures() const { return m_nSkipped; }
    bool isSaving() const { return m_saver != nullptr; }
    PictureSaver::Figures saved() const { return m_saver ? m_saver->figures() : PictureSaver::Figures(); }

private:
    void handle(HttpResponseClient& connection, const HttpRequestHeader& request);
    void takePicture(int camera, const QByteArray& picture);
    const CameraMedia* mediaOfPath(const QString& path) const;

    std::vector<std::unique_ptr<Camera>> m_cameras;
    std::unordered_map<int, std::unique_ptr<CameraMedia>> m_media; // by camera
    std::vector<Viewers> m_viewers; // by camera
    std::unique_ptr<PictureSaver> m_saver;
    quint64 m_nSkipped = 0; // pictures that slow viewers did not get
    QByteArray m_page;
    HostNames m_hosts;
    WebServer m_server;
};
