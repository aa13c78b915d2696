#include "HttpCamera.h"

#include "PictureKind.h"

#include <KepNuvikaUtil/SocketError.h>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kSilenceMs = 10000;
constexpr int kSnapshotIntervalMs = 500;

QString whyFailed(const HttpFailure& failure)
{
    switch (failure.reason) {
    case HttpFailure::eLookup:
        return QStringLiteral("host not found");
    case HttpFailure::eConnect:
        return SocketError::format(failure.code).toLower();
    case HttpFailure::eLost:
        return failure.code == 0 ? QStringLiteral("connection lost")
                                 : SocketError::format(failure.code).toLower();
    default:
        return failure.text;
    }
}

QString noPicture(const QByteArray& type, int size)
{
    constexpr int kLongest = 40; // of what the camera says
    if (size == 0)
        return QStringLiteral("sends nothing in place of pictures");
    if (type.isEmpty())
        return QStringLiteral("sends what is no picture");
    const QString shown = QString::fromLatin1(type.left(kLongest));
    return (type.toLower().startsWith("image/") ? QStringLiteral("sends %1 that is no picture")
                                                : QStringLiteral("sends %1, no pictures"))
        .arg(shown);
}
} // namespace

HttpCamera::HttpCamera(const QString& name, const Target& target)
    : Camera(name, target), m_client(target.makeClient(true))
{
    connect(m_client.get(), &HttpsClient::multipartReplaceContent, this,
        [this](int, const HttpResponseHeader&, const char* type, const char* data, int size, Marker) {
            takePart(type, data, size);
        });
    connect(m_client.get(), &HttpsClient::requestFinished, this,
        [this](int, const HttpResponseHeader& header, const char* data, int size, Marker) {
            takeAnswer(header.statusCode(), header.contentType().toLatin1(), data, size);
        });
    connect(m_client.get(), &HttpsClient::requestFailed, this,
        [this](int id) { interrupted(whyFailed(m_client->failureOf(id))); });
    HttpTimeLimits limits;
    limits.nConnect = kSilenceMs;
    limits.nFirstByte = kSilenceMs;
    m_client->setTimeLimits(limits);
}

void HttpCamera::open()
{
    m_silence.start();
    HttpRequestHeader header(QStringLiteral("GET"), target().path);
    header.addValue(QStringLiteral("Host"), target().authority());
    constexpr int kOnlyWhenAsked = 1; // no password before a challenge
    m_client->request(header, false, nullptr, target().user, target().password, kOnlyWhenAsked);
}

bool HttpCamera::takePicture(const char* data, int size)
{
    if (pictureKindOf(QByteArray::fromRawData(data, size)) == nullptr)
        return false;
    m_silence.start();
    count(size, QStringLiteral("receiving"));
    countPicture();
    show(QByteArray(data, size));
    return true;
}

void HttpCamera::takePart(const QByteArray& type, const char* data, int size)
{
    if (takePicture(data, size))
        return;
    m_silence.start(); // whatever it sends, the camera lives
    complain(noPicture(type, size));
}

void HttpCamera::takeAnswer(int status, const QByteArray& type, const char* data, int size)
{
    if (status == 200 && takePicture(data, size)) {
        openAgain(kSnapshotIntervalMs); // a camera of single pictures is asked again
    } else if (status == 401) {
        interrupted(loginProblem());
    } else if (status == 200) {
        interrupted(noPicture(type, size));
    } else {
        interrupted(QStringLiteral("answers with status %1").arg(status));
    }
}

void HttpCamera::lookAtSilence()
{
    if (isPausing() || m_silence.elapsed() <= kSilenceMs)
        return;
    m_client->shutdown();
    interrupted(QStringLiteral("silent for %1 seconds").arg(kSilenceMs / 1000));
}
