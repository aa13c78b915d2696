#include "CameraStream.h"

#include "PictureKind.h"

#include <KepNuvikaUtil/SocketError.h>

#include <QtCore/QDateTime>

#include <algorithm>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kFirstPauseMs = 1000;
constexpr int kLongestPauseMs = 30000;
constexpr int kSilenceMs = 10000;
constexpr int kSnapshotIntervalMs = 500;
constexpr int kHostNotFound = 11001;
constexpr int kVerificationRefused = 10013;
constexpr int kConnectionAborted = 10053;
constexpr int kGapMs = 2000; // between two recorded periods

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

CameraStream::CameraStream(const QString& name, const Target& target)
    : m_name(name), m_target(target), m_client(target.makeClient(true))
{
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &CameraStream::request);
    connect(m_client.get(), &HttpsClient::multipartReplaceContent, this,
        [this](int, const HttpResponseHeader&, const char* type, const char* data, int size, Marker) {
            takePart(type, data, size);
        });
    connect(m_client.get(), &HttpsClient::requestFinished, this,
        [this](int, const HttpResponseHeader& header, const char* data, int size, Marker) {
            takeAnswer(header.statusCode(), header.contentType().toLatin1(), data, size);
        });
    connect(m_client.get(), &HttpsClient::error, this, [this](int code) { m_nError = code; });
    connect(m_client.get(), &HttpsClient::requestFailed, this, [this] { interrupted(whyFailed()); });
}

QString CameraStream::whyFailed() const
{
    switch (m_nError) {
    case 0:
        return QStringLiteral("connection lost");
    case kHostNotFound:
        return QStringLiteral("host not found");
    case kVerificationRefused:
    case kConnectionAborted:
        return m_client->errorString();
    default:
        return SocketError::format(m_nError).toLower();
    }
}

void CameraStream::start() { request(); }

void CameraStream::request()
{
    m_nError = 0;
    m_silence.start();
    HttpRequestHeader header(QStringLiteral("GET"), m_target.path);
    header.addValue(QStringLiteral("Host"), m_target.authority());
    constexpr int kOnlyWhenAsked = 1; // no password before a challenge
    m_client->request(header, false, nullptr, m_target.user, m_target.password, kOnlyWhenAsked);
}

bool CameraStream::takePicture(const char* data, int size)
{
    if (pictureKindOf(QByteArray::fromRawData(data, size)) == nullptr)
        return false;
    m_silence.start();
    m_bReceiving = true;
    m_state = QStringLiteral("receiving");
    m_nPauseMs = 0;
    ++m_nPictures;
    m_nBytes += static_cast<quint64>(size);
    m_sample.pictures += 1;
    m_sample.bytes += size;
    m_picture = QByteArray(data, size);
    const NTPTimestamp now = NTPTimestamp::fromDateTime(QDateTime::currentDateTimeUtc());
    m_recorded.add(now, now, NTPTimestamp::fromMilliseconds(kGapMs));
    emit picture(m_picture);
    return true;
}

void CameraStream::takePart(const QByteArray& type, const char* data, int size)
{
    if (takePicture(data, size))
        return;
    m_silence.start(); // whatever it sends, the camera lives
    m_bReceiving = false;
    m_state = noPicture(type, size);
}

void CameraStream::takeAnswer(int status, const QByteArray& type, const char* data, int size)
{
    if (status == 200 && takePicture(data, size)) {
        m_retry.start(kSnapshotIntervalMs); // a camera of single pictures is asked again
    } else if (status == 401) {
        interrupted(m_target.user.isEmpty() ? QStringLiteral("asks for a password")
                                            : QStringLiteral("wrong user or password"));
    } else if (status == 200) {
        interrupted(noPicture(type, size));
    } else {
        interrupted(QStringLiteral("answers with status %1").arg(status));
    }
}

void CameraStream::interrupted(const QString& why)
{
    m_nInterruptions += m_bReceiving ? 1 : 0;
    m_bReceiving = false;
    m_state = why;
    m_nPauseMs = std::min(std::max(m_nPauseMs * 2, kFirstPauseMs), kLongestPauseMs);
    m_retry.start(m_nPauseMs);
}

void CameraStream::tick()
{
    m_history.push_back(m_sample);
    if (m_history.size() > kHistorySeconds)
        m_history.erase(m_history.begin());
    m_sample = {0, 0};
    if (!m_retry.isActive() && m_silence.elapsed() > kSilenceMs) {
        m_client->shutdown();
        interrupted(QStringLiteral("silent for %1 seconds").arg(kSilenceMs / 1000));
    }
}
