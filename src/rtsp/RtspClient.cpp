#include <KepNuvikaUtil/RtspClient.h>

#include "rtsp/RtspSession_p.h"

RtspClient::RtspClient(QObject* parent) : QObject(parent), d(std::make_unique<Nuvika::RtspSession>(*this)) { }

// A trace of the TEARDOWN would see half an object.
RtspClient::~RtspClient() { blockSignals(true); }

void RtspClient::setOptions(const RtspOptions& options) { d->m_options = options; }
const RtspOptions& RtspClient::options() const { return d->m_options; }

bool RtspClient::start(const QString& url, const QString& user, const QString& password)
{
    return d->start(url, user, password);
}

bool RtspClient::play(const QVector<int>& tracks) { return d->play(tracks); }
bool RtspClient::pause() { return d->pause(); }
bool RtspClient::resume() { return d->resume(); }
void RtspClient::stop() { d->stop(); }

RtspClient::State RtspClient::state() const { return d->state(); }
QString RtspClient::errorString() const { return d->m_errorString; }
const SdpDescription& RtspClient::description() const { return d->m_description; }
const QVector<RtspTrack>& RtspClient::tracks() const { return d->m_tracks; }
RtpMediaParameters RtspClient::parameters(int track) const { return d->parameters(track); }
QVector<RtspTrackStatistics> RtspClient::trackStatistics() const { return d->statistics(); }
RtspOptions::Transport RtspClient::transport() const { return d->m_transport; }
QString RtspClient::sessionId() const { return d->m_sessionId; }
int RtspClient::sessionTimeout() const { return d->m_sessionId.isEmpty() ? 0 : d->m_nTimeout; }
qint64 RtspClient::sessionExpiryMs() const { return d->expiryMs(); }
QHostAddress RtspClient::peerAddress() const { return d->peerAddress(); }
quint64 RtspClient::droppedPackets() const { return d->m_nDroppedPackets; }
quint64 RtspClient::strayBytes() const { return d->strayBytes(); }
