#include "CameraMedia.h"

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kAskIntervalMs = 10000;
constexpr int kOnlyWhenAsked = 1; // no password before a challenge
} // namespace

CameraMedia::CameraMedia(const Target& camera) : m_camera(camera), m_client(camera.host, camera.port, false)
{
    connect(&m_askAgain, &QTimer::timeout, this, &CameraMedia::ask);
    connect(&m_client, &HttpClient::requestFinished, this,
        [this](int, const HttpResponseHeader& header, const char* data, int size, Marker) {
            if (header.statusCode() == 200)
                takeDescription(QString::fromUtf8(data, size));
        });
}

void CameraMedia::start()
{
    if (!openUnicast())
        return;
    ask();
    m_askAgain.start(kAskIntervalMs);
}

bool CameraMedia::openUnicast()
{
    MediaDescription media; // before the camera has told: where it may send to
    media.kind = QStringLiteral("video");
    auto receiver = std::make_unique<RtpReceiver>(media);
    if (!receiver->open(QHostAddress(QHostAddress::LocalHost), &m_problem))
        return false;
    m_receiver = std::move(receiver);
    return true;
}

void CameraMedia::ask()
{
    if (m_client.numOfPendingRequests() > 0)
        return;
    const QString path
        = QStringLiteral("/stream.sdp?rtp=%1&rtcp=%2")
              .arg(QString::number(m_receiver->rtpPort()), QString::number(m_receiver->rtcpPort()));
    HttpRequestHeader header(QStringLiteral("GET"), path);
    header.addValue(QStringLiteral("Host"), m_camera.authority());
    header.addValue(QStringLiteral("Connection"), QStringLiteral("close"));
    m_client.request(header, false, nullptr, m_camera.user, m_camera.password, kOnlyWhenAsked);
}

void CameraMedia::takeDescription(const QString& text)
{
    if (text == m_description)
        return;
    QStringList problems;
    const std::vector<MediaDescription> media = MediaDescription::of(SDP::fromSDPString(text), &problems);
    if (media.empty())
        return;
    m_description = text;
    if (!media.front().address.isMulticast())
        return;
    auto receiver = std::make_unique<RtpReceiver>(media.front());
    if (receiver->open(QHostAddress(QHostAddress::LocalHost), &m_problem))
        m_receiver = std::move(receiver);
}
