#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtcpCompound.h>
#include <KepNuvikaUtil/RtspOptions.h>
#include <KepNuvikaUtil/RtspTrack.h>

#include <QtCore/QObject>
#include <QtCore/QVector>
#include <QtNetwork/QHostAddress>

#include <memory>

namespace Nuvika
{
class RtspSession;
}

/// Plays from one RTSP server (RFC 2326), such as a camera: rtsp:// over UDP, TCP or multicast, rtsps:// over
/// TLS; Basic and Digest.
///
///     start() -> described() -> [play()] -> playing() -> packetReceived(), unitReceived()...
///             -> stop() -> stopped(), or error()
///
/// One session at a time: stopped() or error() ends it, once, and start() may follow, also inside their
/// handlers. Nothing reconnects by itself. A session is ended by TEARDOWN, also before error() where the
/// connection allows it: what is told then comes up to four seconds after its cause (twice nTeardown).
///
/// Threads: owned by the thread that made it, which needs an event loop and may have a thousand of them; the
/// library must be initialised for host names.
/// Lifetime: a handler of any signal may stop, reuse or delete the client; the destructor sends TEARDOWN, as
/// far as the system takes it at once, and waits for nothing. Packets, RTCP and units are valid during the
/// emission only, and cannot pass a queued connection.
/// Signals are never emitted inside a call of this class, but messageSent().
///
/// Errors: error(int) with the status where the server refused (401, 404, 461, ...), 415 when nothing that it
/// offers can be played, and else SocketError's code: 10060 when a time limit has passed, 10053 for what
/// cannot be read, 10048 where another program has a group's port for itself, and those of NuvikaSslSocket.
/// errorString() tells what happened in a sentence.
class KEPNUVIKAUTIL_EXPORT RtspClient : public QObject
{
    Q_OBJECT
public:
    enum State {
        eIdle,
        eOpening, ///< connecting, asking for the description
        eDescribed, ///< play() is waited for
        eSettingUp,
        ePlaying,
        ePaused,
        eEnding ///< stopped() or error() follows
    };

    explicit RtspClient(QObject* parent = nullptr);
    ~RtspClient() override;

    /// For sessions that begin from now on.
    void setOptions(const RtspOptions& options);
    const RtspOptions& options() const;

    /// Opens the URL and plays. Without \a user, the URL's own credentials count ("user:password@"); they are
    /// never sent as a part of it. False, and nothing happens, unless idle; a URL that is none is told by
    /// error().
    bool start(const QString& url, const QString& user = QString(), const QString& password = QString());
    /// Which tracks to play, by index; in a handler of described(), or behind it with bPlayAtOnce false.
    /// Empty: all that have no problem. False in any other state.
    bool play(const QVector<int>& tracks = QVector<int>());
    /// False unless playing.
    bool pause();
    /// Goes on where pause() stopped. False unless paused.
    bool resume();
    /// Ends the session; stopped() follows, and nothing else before it. Without a session nothing follows.
    void stop();

    State state() const;
    /// Of the last error(); empty after start().
    QString errorString() const;
    const SdpDescription& description() const;
    const QVector<RtspTrack>& tracks() const;
    /// As of the last unit: codec, sizes, configuration record.
    RtpMediaParameters parameters(int track) const;
    QVector<RtspTrackStatistics> trackStatistics() const;
    /// What is used now or was last: eTcp, eUdp or eMulticast.
    RtspOptions::Transport transport() const;
    /// The server's name for the session, and how many seconds after our last request it forgets it; empty
    /// and 0 without one.
    QString sessionId() const;
    int sessionTimeout() const;
    /// When that will be, in milliseconds since 1970-01-01 UTC.
    qint64 sessionExpiryMs() const;
    QHostAddress peerAddress() const;
    /// Interleaved packets of no track, and bytes that were neither packet nor message, on this connection.
    quint64 droppedPackets() const;
    quint64 strayBytes() const;

signals:
    /// The description was read; again where a redirect has led to another. Unless told otherwise, the tracks
    /// are set up when the handlers return.
    void described(const SdpDescription& description, const QVector<RtspTrack>& tracks);
    /// The server has agreed to PLAY. Packets may come before.
    void playing();
    void paused();
    /// Each packet with a payload as it comes, before it is put in order.
    void packetReceived(int track, const RTPPacket& packet, const RtpArrival& arrival);
    /// Copy the view to walk over it.
    void rtcpReceived(int track, const RtcpCompound& rtcp, const RtpArrival& arrival);
    void unitReceived(int track, const RtspUnit& unit);
    /// Each second while playing.
    void statistics(const QVector<RtspTrackStatistics>& tracks);
    /// Another transport is tried, and why.
    void transportChanged(RtspOptions::Transport transport, const QString& reason);
    /// A track is left out after all: its SETUP was refused.
    void trackRefused(int track, const QString& reason);
    void stopped();
    void error(int errorCode);
    /// For traces: requests and answers as they go out (credentials left out), and messages of the server.
    void messageSent(const QByteArray& text);
    void messageReceived(const QByteArray& text);

private:
    std::unique_ptr<Nuvika::RtspSession> d;
    friend class Nuvika::RtspSession;
};
