#include "CameraStream.h"

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
constexpr std::size_t kMostPeriods = 1000;
} // namespace

CameraStream::CameraStream(const QString& name, const Target& target)
    : m_name(name), m_target(target), m_client(target.makeClient(true))
{
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &CameraStream::request);
    connect(m_client.get(), &HttpsClient::multipartReplaceContent, this,
        [this](int, const HttpResponseHeader&, const char*, const char* data, int size, Marker) {
            takePicture(data, size);
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
    header.addValue(
        QStringLiteral("Host"), QStringLiteral("%1:%2").arg(m_target.host, QString::number(m_target.port)));
    constexpr int kOnlyWhenAsked = 1; // no password before a challenge
    m_client->request(header, false, nullptr, m_target.user, m_target.password, kOnlyWhenAsked);
}

void CameraStream::takePicture(const char* data, int size)
{
    m_silence.start();
    m_nPauseMs = 0;
    m_bReceiving = true;
    m_state = QStringLiteral("receiving");
    ++m_nPictures;
    m_nBytes += static_cast<quint64>(size);
    m_sample.pictures += 1;
    m_sample.bytes += size;
    m_picture = QByteArray(data, size);
    extendRecording();
    emit picture(m_picture);
}

void CameraStream::extendRecording()
{
    const NTPTimestamp now = NTPTimestamp::fromDateTime(QDateTime::currentDateTimeUtc());
    const NTPTimestamp gap = NTPTimestamp::fromMilliseconds(kGapMs);
    if (!m_recorded.empty() && now >= m_recorded.back().end() && now - m_recorded.back().end() < gap)
        m_recorded.back().end() = now;
    else
        m_recorded.emplace_back(now, now);
    if (m_recorded.size() > kMostPeriods)
        m_recorded.pop_front();
}

void CameraStream::takeAnswer(int status, const QByteArray& type, const char* data, int size)
{
    if (status == 200 && type.toLower().startsWith("image/")) {
        takePicture(data, size);
        m_retry.start(kSnapshotIntervalMs); // a camera of single pictures is asked again
    } else if (status == 401) {
        interrupted(m_target.user.isEmpty() ? QStringLiteral("asks for a password")
                                            : QStringLiteral("wrong user or password"));
    } else if (status == 200) {
        interrupted(QStringLiteral("sends no pictures"));
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
