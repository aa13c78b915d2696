#include "SimulatedCamera.h"

#include "Picture.h"

#include <QtCore/QUrlQuery>

#include <algorithm>

namespace
{
constexpr unsigned short kGroupPort = 5004;
constexpr int kStreamMs = 30000;

QHostAddress groupOf(int camera)
{
    return QHostAddress(0xEFFF4D00U + static_cast<quint32>(camera) + 1); // 239.255.77.x
}
} // namespace

SimulatedCamera::SimulatedCamera(int number, const Media& media, RtspServer& rtsp)
    : m_nNumber(number), m_nFrame(number * 7), m_media(media), m_guard("camera", kUser, kPassword),
      m_server([this](HttpResponseClient& connection, const HttpRequestHeader& request) {
          handle(connection, request);
      }),
      m_rtsp(rtsp), m_nRtspStream(rtsp.addStream(lossPercent()))
{
    connect(&m_timer, &QTimer::timeout, this, &SimulatedCamera::tick);
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.start(1000 / kPicturesPerSecond);
    if (media.bMulticast)
        refresh(groupOf(number), kGroupPort, kGroupPort + 1);
}

void SimulatedCamera::refuse(HttpResponseClient& connection)
{
    HttpResponseHeader header(401, QStringLiteral("Unauthorized"));
    for (const QString& challenge : m_guard.challenges())
        header.addValue(QStringLiteral("WWW-Authenticate"), challenge);
    header.setContentLength(0);
    connection.response(header, false, nullptr);
}

void SimulatedCamera::handle(HttpResponseClient& connection, const HttpRequestHeader& request)
{
    if (!m_guard.admits(request.method(), request.path(), request.value(QStringLiteral("Authorization")))) {
        refuse(connection);
    } else if (request.path() == QLatin1String("/snapshot.jpg")) {
        m_server.answer(connection, 200, Picture::frame(m_nNumber, m_nFrame), "image/jpeg");
    } else if (request.path() == QLatin1String("/live")) {
        m_viewers.add(connection);
    } else if (request.path().startsWith(QLatin1String("/stream.sdp"))) {
        const QString query = request.path().section(QLatin1Char('?'), 1);
        const QByteArray description = openStream(connection.peerAddress(), query);
        m_server.answer(connection, description.isEmpty() ? 400 : 200, description, "application/sdp");
    } else {
        m_server.answer(connection, 404, "no such picture\n", "text/plain");
    }
}

// The description, or nothing for a query without ports.
QByteArray SimulatedCamera::openStream(const QHostAddress& host, const QString& query)
{
    QHostAddress to = groupOf(m_nNumber);
    unsigned short port = kGroupPort;
    unsigned short rtcpPort = kGroupPort + 1;
    if (!m_media.bMulticast) {
        const QUrlQuery values(query);
        to = host;
        port = values.queryItemValue(QStringLiteral("rtp")).toUShort();
        rtcpPort = values.queryItemValue(QStringLiteral("rtcp")).toUShort();
        if (port == 0 || rtcpPort == 0)
            return QByteArray();
        refresh(to, port, rtcpPort);
    }
    return RtpSource::description(m_nNumber,
        to.toString() + (to.isMulticast() ? QStringLiteral("/0") : QString()), port, QString(),
        QStringLiteral("a=rtcp:%1\r\n").arg(rtcpPort));
}

void SimulatedCamera::refresh(const QHostAddress& host, unsigned short port, unsigned short rtcpPort)
{
    auto known = std::find_if(m_streams.begin(), m_streams.end(),
        [&](const auto& stream) { return stream->host == host && stream->nPort == port; });
    if (known == m_streams.end())
        known = m_streams.insert(known,
            std::make_unique<Stream>(Stream{
                host, port, RtpSource(std::make_unique<UdpSink>(host, port, rtcpPort), lossPercent()), {}}));
    (*known)->sinceAsked.start();
}

void SimulatedCamera::tick()
{
    ++m_nFrame;
    const QByteArray& picture = Picture::frame(m_nNumber, m_nFrame);
    for (const auto& stream : m_streams)
        stream->source.sendPicture(picture);
    if (!m_media.bMulticast)
        m_streams.erase(std::remove_if(m_streams.begin(), m_streams.end(),
                            [](const auto& stream) { return stream->sinceAsked.elapsed() > kStreamMs; }),
            m_streams.end());
    m_rtsp.sendPicture(m_nRtspStream, picture);
    m_viewers.send(picture, "image/jpeg");
}
