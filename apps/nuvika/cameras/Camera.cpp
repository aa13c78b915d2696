#include "Camera.h"

#include "HttpCamera.h"
#include "RtspCamera.h"

#include <QtCore/QDateTime>

#include <utility>

namespace
{
constexpr int kGapMs = 2000; // between two recorded periods
} // namespace

std::unique_ptr<Camera> Camera::create(const QString& name, const Target& target)
{
    if (target.bRtsp)
        return std::make_unique<RtspCamera>(name, target);
    return std::make_unique<HttpCamera>(name, target);
}

Camera::Camera(QString name, Target target) : m_name(std::move(name)), m_target(std::move(target))
{
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &Camera::open);
}

void Camera::count(qint64 bytes, const QString& state)
{
    m_bReceiving = true;
    m_state = state;
    m_backOff.reset();
    m_nBytes += static_cast<quint64>(bytes);
    m_sample.bytes += static_cast<double>(bytes);
}

void Camera::countPicture()
{
    ++m_nPictures;
    m_sample.pictures += 1;
    countOther();
}

void Camera::countOther()
{
    const NTPTimestamp now = NTPTimestamp::fromDateTime(QDateTime::currentDateTimeUtc());
    m_recorded.add(now, now, NTPTimestamp::fromMilliseconds(kGapMs));
}

void Camera::show(const QByteArray& bytes)
{
    m_picture = bytes;
    emit picture(m_picture);
}

void Camera::complain(const QString& state)
{
    m_bReceiving = false;
    m_state = state;
}

void Camera::interrupted(const QString& why)
{
    m_nInterruptions += m_bReceiving ? 1 : 0;
    complain(why);
    m_retry.start(m_backOff.nextMs());
}

QString Camera::loginProblem() const
{
    return m_target.user.isEmpty() ? QStringLiteral("asks for a password")
                                   : QStringLiteral("wrong user or password");
}

void Camera::tick()
{
    m_history.push_back(m_sample);
    if (m_history.size() > kHistorySeconds)
        m_history.erase(m_history.begin());
    m_sample = {0, 0};
    lookAtSilence();
}
