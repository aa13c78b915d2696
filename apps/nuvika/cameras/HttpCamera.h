// A camera that gives its pictures by HTTP, plain or over TLS.
#pragma once

#include "Camera.h"

#include <QtCore/QElapsedTimer>

class HttpCamera : public Camera
{
public:
    HttpCamera(const QString& name, const Target& target);

private:
    void open() override;
    void lookAtSilence() override;
    // False for what is no picture.
    bool takePicture(const char* data, int size);
    void takePart(const QByteArray& type, const char* data, int size);
    void takeAnswer(int status, const QByteArray& type, const char* data, int size);

    std::unique_ptr<HttpsClient> m_client;
    QElapsedTimer m_silence;
};
