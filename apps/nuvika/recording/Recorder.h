// The recorder: its cameras, the page that shows them, and what keeps their pictures.
#pragma once

#include "cameras/CameraMedia.h"
#include "cameras/CameraStream.h"
#include "page/WebServer.h"

#include <QtCore/QDir>
#include <QtCore/QHash>
#include <QtCore/QPointer>

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
    // Keeps every picture as a file below this folder.
    bool saveTo(const QString& folder);
    bool listen(unsigned short port) { return m_server.listen(QHostAddress(QHostAddress::LocalHost), port); }
    unsigned short port() const { return m_server.port(); }
    void start();
    // Once a second.
    void tick();

    const std::vector<std::unique_ptr<CameraStream>>& cameras() const { return m_cameras; }
    // "cam_camera1_0001": stable as long as the camera's name and place are.
    QString identifier(int camera) const;
    int receivingCameras() const;
    // Of its RTP stream; null without one.
    const RtpReceiver* rtp(int camera) const;
    CameraStream::Sample total() const;
    quint64 skippedPictures() const { return m_nSkipped; }
    quint64 unsavedPictures() const { return m_nUnsaved; }

private:
    void handle(HttpResponseClient& connection, const HttpRequestHeader& request);
    void showPicture(int camera, const QByteArray& jpeg);
    void save(int camera, const QByteArray& jpeg);
    QByteArray stateJson() const;
    const CameraMedia* media(int camera) const;
    const CameraMedia* mediaOfPath(const QString& path) const;

    std::vector<std::unique_ptr<CameraStream>> m_cameras;
    std::unordered_map<int, std::unique_ptr<CameraMedia>> m_media; // by camera
    QHash<int, QList<QPointer<HttpResponseClient>>> m_viewers; // by camera
    std::unique_ptr<QDir> m_folder;
    quint64 m_nSkipped = 0; // pictures that slow viewers did not get
    quint64 m_nUnsaved = 0;
    QByteArray m_page;
    WebServer m_server;
};
