#include "SimulatedCamera.h"

#include "Picture.h"

#include <QtCore/QUrlQuery>

#include <algorithm>

namespace
{
constexpr unsigned short kGroupPort = 5004;

QHostAddress groupOf(int camera)
{
    return QHostAddress(0xEFFF4D00U + static_cast<quint32>(camera) + 1); // 239.255.77.x
}
} // namespace

SimulatedCamera::SimulatedCamera(int number, const Media& media)
    : m_nNumber(number), m_nFrame(number * 7), m_media(media), m_guard("camera", kUser, kPassword),
      m_server([this](HttpResponseClient& connection, const HttpRequestHeader& request) {
          handle(connection, request);
      })
{
    connect(&m_timer, &QTimer::timeout, this, &SimulatedCamera::tick);
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.start(1000 / kPicturesPerSecond);
    if (media.bMulticast)
        m_sources.push_back(
            std::make_unique<RtpSource>(groupOf(number), kGroupPort, kGroupPort + 1, lossPercent()));
}

void SimulatedCamera::handle(HttpResponseClient& connection, const HttpRequestHeader& request)
{
    if (!m_guard.admits(request)) {
        HttpResponseHeader header(401, QStringLiteral("Unauthorized"));
        header.addValue(QStringLiteral("WWW-Authenticate"), m_guard.challenge());
        header.setContentLength(0);
        connection.response(header, false, nullptr);
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
        const auto known = std::find_if(
            m_sources.begin(), m_sources.end(), [&](const auto& source) { return source->isFor(to, port); });
        if (known != m_sources.end())
            (*known)->refresh();
        else
            m_sources.push_back(std::make_unique<RtpSource>(to, port, rtcpPort, lossPercent()));
    }
    const QString text
        = QStringLiteral("v=0\r\no=- %1 1 IN IP4 127.0.0.1\r\ns=camera %1\r\nc=IN IP4 %2\r\nt=0 0\r\n"
                         "m=video %3 RTP/AVP 26\r\na=rtcp:%4\r\n");
    return text
        .arg(QString::number(m_nNumber + 1),
            to.toString() + (to.isMulticast() ? QStringLiteral("/0") : QString()), QString::number(port),
            QString::number(rtcpPort))
        .toLatin1();
}

void SimulatedCamera::tick()
{
    ++m_nFrame;
    for (const auto& source : m_sources)
        source->sendPicture(Picture::frame(m_nNumber, m_nFrame));
    if (!m_media.bMulticast)
        m_sources.erase(std::remove_if(m_sources.begin(), m_sources.end(),
                            [](const auto& source) { return source->isOver(); }),
            m_sources.end());
    m_viewers.send(Picture::frame(m_nNumber, m_nFrame), "image/jpeg");
}
