#include "RtspCamera.h"

#include <KepNuvikaUtil/NuvikaError.h>
#include <KepNuvikaUtil/SocketError.h>

namespace
{
constexpr int kUnauthorised = 401;
} // namespace

RtspCamera::RtspCamera(const QString& name, const Target& target)
    : Camera(name, target), m_streams(target, target.rtspOptions())
{
    RtspClient* client = &m_streams.client();
    connect(client, &RtspClient::described, this, &RtspCamera::takeDescription);
    connect(client, &RtspClient::playing, this,
        [this] { setState(QStringLiteral("plays, nothing has come yet")); });
    connect(client, &RtspClient::unitReceived, this, &RtspCamera::takeUnit);
    connect(client, &RtspClient::error, this, [this](int code) {
        m_streams.closeInterval();
        interrupted(whyFailed(code));
    });
}

const StreamRecord* RtspCamera::stream() const
{
    const auto found = m_streams.records().find(m_nMain);
    return found == m_streams.records().end() ? nullptr : &found->second;
}

void RtspCamera::takeDescription()
{
    m_nMain = m_streams.mainTrack();
    const RtspTrack track = m_streams.client().tracks().value(m_nMain);
    m_encoding = track.encoding;
    m_bVideo = track.media == QLatin1String("video");
    m_bPictures = m_encoding == QLatin1String("JPEG");
}

void RtspCamera::takeUnit(int track, const RtspUnit& unit)
{
    const RtspClient& client = m_streams.client();
    count(unit.nSize,
        QStringLiteral("receiving %1 over %2").arg(m_encoding, shownTransport(client.transport())));
    if (track != m_nMain)
        return;
    if (m_bVideo)
        countPicture();
    else
        countOther();
    if (m_bPictures)
        show(QByteArray(reinterpret_cast<const char*>(unit.pData), static_cast<int>(unit.nSize)));
    else if (unit.bParametersChanged || m_format.isEmpty())
        m_format = QStringLiteral("%1 %2").arg(m_encoding, shownParameters(client.parameters(track)));
}

QString RtspCamera::whyFailed(int code) const
{
    if (code == kUnauthorised)
        return loginProblem();
    if (code == NuvikaError::eHostNotFound)
        return QStringLiteral("host not found");
    QString why = m_streams.client().errorString();
    const QString lead = target().authority() + QLatin1String(": ");
    if (why.startsWith(lead))
        why.remove(0, lead.size());
    return why == SocketError::format(code) ? why.toLower() : why;
}
