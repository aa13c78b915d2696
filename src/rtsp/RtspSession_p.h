// Private: one session with one server, from the connect to the TEARDOWN.
//
//     connecting -> OPTIONS -> DESCRIBE -> (play) -> SETUP... -> PLAY -> playing <-> paused
//          ^                                                        |
//          +---- another URL or transport ---- TEARDOWN <-----------+---- stop, errors
//
// One request is open at a time, and beside it one keep-alive. Every session ends through end(): it says what
// follows, sends TEARDOWN where there is something to tear down, and finishEnd() does what follows.
//
// Whatever emits is followed by a look whether the session is still the same: m_session.
#pragma once

#include <KepNuvikaUtil/RtspClient.h>

#include "core/Watched_p.h"
#include "rtsp/RtspConnection_p.h"
#include "rtsp/RtspDeadlines_p.h"
#include "rtsp/RtspFields_p.h"
#include "rtsp/RtspKeepAlive_p.h"
#include "rtsp/RtspLogin_p.h"
#include "rtsp/RtspTrackInput_p.h"
#include "rtsp/RtspUdpPorts_p.h"
#include "rtsp/RtspUrl_p.h"

#include <QtCore/QPair>

#include <bitset>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

namespace Nuvika
{
class RtspSession final : public RtspConnectionListener, public RtspDatagramListener
{
public:
    explicit RtspSession(RtspClient& client);
    ~RtspSession();
    RtspSession(const RtspSession&) = delete;
    RtspSession& operator=(const RtspSession&) = delete;

    bool start(const QString& url, const QString& user, const QString& password);
    bool play(const QVector<int>& tracks);
    bool pause();
    bool resume();
    void stop();

    RtspClient::State state() const;
    QVector<RtspTrackStatistics> statistics() const;
    RtpMediaParameters parameters(int track) const;
    qint64 expiryMs() const { return m_sessionId.isEmpty() ? 0 : m_lastRequestWallMs + m_nTimeout * 1000LL; }
    QHostAddress peerAddress() const { return m_peerAddress; }
    quint64 strayBytes() const { return m_pConnection ? m_pConnection->reader().strayBytes() : 0; }

    RtspOptions m_options; // for sessions to come
    QString m_errorString;
    SdpDescription m_description;
    QVector<RtspTrack> m_tracks;
    QString m_sessionId;
    int m_nTimeout = 0;
    RtspOptions::Transport m_transport = RtspOptions::eTcp;
    quint64 m_nDroppedPackets = 0;

private:
    enum class Phase {
        Idle,
        Connecting,
        Options,
        Describe,
        Described,
        Setup,
        Play,
        Playing,
        Pausing,
        Paused,
        Ending
    };
    enum class Purpose { Options, Describe, Setup, Play, Pause, Teardown, KeepAlive };
    static bool isControl(Purpose purpose)
    {
        return purpose == Purpose::Play || purpose == Purpose::Pause || purpose == Purpose::Teardown;
    }
    enum class Outcome { Stopped, Failed, Reopened }; // what follows the end
    using Fields = QVector<QPair<QString, QString>>;

    struct Request {
        Purpose purpose = Purpose::Options;
        qint64 cseq = 0;
        QString method;
        QString url;
        Fields fields;
        bool bLoginTried = false;
    };
    // What was set up for a track.
    struct Setup {
        bool bDone = false;
        bool bRefused = false;
        bool bGroup = false; // of a multicast
        PortPair channels; // interleaved
        std::unique_ptr<RtspUdpPorts> pPorts;
        QHostAddress server; // where its packets come from and reports go
        quint32 nServerIPv4 = 0; // the same, 0 for IPv6
        bool bAnySender = false; // the server named a host that we cannot compare
        PortPair serverPorts; // usable ones
        quint16 nSeenPort = 0; // of the first packets
        quint16 nSeenRtcpPort = 0;
        std::shared_ptr<RtspTrackInput> pInput; // stays while the session does, and while units are told
        int nTimeline = -1;
    };
    struct Kept {
        int nTrack = 0;
        bool bRtcp = false;
        QByteArray bytes;
        RtpArrival arrival;
    };

    static constexpr int kStatisticsMs = 1000;
    static constexpr int kStalledMs = 1000; // from one look at a connection that does not send to the next
    static constexpr int kKeptHead = sizeof(Kept) + 32; // what a datagram without bytes takes, too

    // Opening and ending.
    void connectTo();
    void connected() override;
    void lost(int code, const QString& reason) override;
    void expired();
    void expire(RtspDeadlines::Kind kind);
    void fail(int code, const QString& sentence);
    void failLimit(int ms, const QString& what);
    void end(Outcome outcome);
    bool sendTeardown();
    bool retryTeardown();
    void finishEnd();
    void reopen(RtspOptions::Transport transport, const QString& reason);
    bool changeTransport(RtspOptions::Transport transport, const QString& reason);
    void closeMedia();
    bool isOver() const { return m_phase == Phase::Idle || m_phase == Phase::Ending; }

    // Requests and answers.
    void request(Purpose purpose, const QString& method, const QString& url, const Fields& fields = Fields());
    void send(Request& request);
    void sendText(const RtspHead& head);
    void message(const RtspHead& head, const QByteArray& headText, const QByteArray& body) override;
    bool takeOpen(const RtspHead& answer, Request* request);
    void answered(Request& request, const RtspHead& answer, const QByteArray& body);
    bool retryWithLogin(Request& request, const RtspHead& answer);
    bool followRedirect(const RtspHead& answer);
    void refused(const Request& request, const RtspHead& answer);
    void control(Purpose purpose, const Fields& fields = Fields());
    bool controlNext(const Request& request);
    bool controlOtherwise(const Request& request, const RtspHead& answer);
    void pauseAnswered();
    void takeSession(const Request& request, const RtspHead& answer);
    void serverAsks(const RtspHead& head);
    void keepAlive();

    // Setting up.
    void sendDescribe();
    void takeDescription(const RtspHead& answer, const QByteArray& body);
    void placeTracks(const SdpDescription& description, const QString& base);
    void refusedDescription(const Request& request, const RtspHead& answer);
    void beginSetup();
    RtspOptions::Transport firstTransport() const;
    std::optional<RtspOptions::Transport> nextTransport() const;
    QVector<int> usableTracks() const;
    QString unusableTracks() const;
    void setupNext();
    void sendSetup(int track);
    void setupAnswered(const RtspHead& answer);
    void setupRefused(const Request& request, const RtspHead& answer);
    bool takeInterleaved(Setup& setup, const RtspTransportField& field);
    bool takeUdp(Setup& setup, const RtspTransportField& field);
    void takeSource(Setup& setup, const RtspTransportField& field);
    bool takeMulticast(Setup& setup, const RtspTransportField& field);
    void failPorts(const RtspUdpPorts& ports);
    void makeInput(int track, const RtspTransportField& field);
    void assignChannels();
    void sendPlay();
    void takeRtpInfo(const RtspHead& answer);
    void playAnswered();
    void beginWaiting();

    // Media.
    bool takesMedia() const { return m_phase >= Phase::Play && m_phase <= Phase::Paused; }
    void packet(int channel, const char* data, int size) override;
    void datagram(int track, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram) override;
    void takeDatagram(int track, bool bRtcp, const char* data, int size, const RtpArrival& arrival);
    void keepDatagram(int track, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram);
    void takeKept();
    bool isFromServer(Setup& setup, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram) const;
    bool trackOfChannel(int channel, const RTPPacket& packet, int* track, bool* bRtcp) const;
    int trackOfType(int channel, const RTPPacket& packet) const;
    void takeMedia(int track, bool bRtcp, const RTPPacket& packet, const char* data, int size,
        const RtpArrival& arrival);
    bool beginSource(int track, quint32 ssrc, const RtpArrival& arrival);
    void takeRtp(int track, RTPPacket packet, const RtpArrival& arrival, bool bEmpty = false);
    bool takeOrdered(int track, const RtpOrderedPacket& ordered);
    bool tellUnits(int track, qint64 arrivalUs);
    bool takeHeld(int track, qint64 nowUs);
    void takeRtcp(int track, const char* data, int size, const RtpArrival& arrival);
    void noteReorder(RtspTrackInput& input);
    void takeDueHeld();
    void openFirewall(const Setup& setup);
    void sendReport(const Setup& setup);
    void sendReports();
    void lookAtSilence();
    void noteFirstPacket();
    void tellStatistics();
    bool hasOnlyData() const;

    RtspClient& m_client;
    RtspOptions m_current; // of this session
    Phase m_phase = Phase::Idle;
    RtspUrl m_url;
    RtspUrl m_started; // as start() was called
    std::optional<RtspUrl> m_redirected; // where to go behind the end
    RtspLogin m_login;
    int m_nRedirects = 0;
    std::unique_ptr<RtspConnection> m_pConnection;
    RtspDeadlines m_deadlines;
    QHostAddress m_peerAddress;
    QHostAddress m_localAddress;

    qint64 m_cseq = 0;
    std::optional<Request> m_open; // but keep-alives
    std::optional<Request> m_openKeepAlive;
    RtspKeepAlive m_keepAlive;
    qint64 m_lastRequestWallMs = 0;
    bool m_bProvisionalSession = false; // DESCRIBE named it already

    bool m_bDescribed = false;
    QString m_base;
    QStringList m_controlled; // what PLAY, PAUSE and TEARDOWN go to: the session, or each of its tracks
    int m_nControlled = 0; // those that have agreed
    bool m_bControlChosen = false; // by the server
    bool m_bPlayCalled = false;
    QVector<int> m_selected;
    std::vector<Setup> m_setups; // as m_tracks
    int m_nSettingUp = -1;
    int m_nLastRefusal = 0;
    std::optional<RtspOptions::Transport> m_forced; // by what the server did in this session
    std::bitset<4> m_tried; // transports
    QPair<QString, RtspOptions::Transport> m_remembered; // what worked for this URL

    quint32 m_nOwnSsrc = 0;
    QByteArray m_cname;
    RtpTimeline m_timeline;
    qint64 m_lastMediaUs = 0;
    qint64 m_wallOffsetUs = 0; // from the monotonic clock, when the last packet came
    bool m_bMediaSeen = false;
    bool m_bTaking = false; // of a datagram or what was held: a handler may be at work
    std::deque<Kept> m_kept; // datagrams behind it
    int m_nKept = 0; // their bytes

    Outcome m_outcome = Outcome::Stopped;
    int m_nErrorCode = 0;
    bool m_bTeardownRetried = false;
    Watched m_session;
};
} // namespace Nuvika
