#include "SimulatedCamera.h"

#include "Picture.h"

SimulatedCamera::SimulatedCamera(int number)
    : m_nNumber(number), m_nFrame(number * 7), m_guard("camera", kUser, kPassword),
      m_server([this](HttpResponseClient& connection, const HttpRequestHeader& request) {
          handle(connection, request);
      })
{
    connect(&m_timer, &QTimer::timeout, this, &SimulatedCamera::tick);
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.start(1000 / kPicturesPerSecond);
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
        WebServer::beginPictures(connection);
        m_viewers.append(&connection);
    } else {
        m_server.answer(connection, 404, "no such picture\n", "text/plain");
    }
}

void SimulatedCamera::tick()
{
    ++m_nFrame;
    for (int i = m_viewers.size() - 1; i >= 0; --i) {
        HttpResponseClient* viewer = m_viewers.at(i);
        if (viewer == nullptr || !viewer->isConnected())
            m_viewers.removeAt(i);
        else if (viewer->canSendContent()) // a slow viewer skips this picture
            WebServer::sendPicture(*viewer, Picture::frame(m_nNumber, m_nFrame));
    }
}
