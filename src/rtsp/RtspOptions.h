#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/RtpTimeline.h>
#include <KepNuvikaUtil/RtpUnitFormat.h>

#include <QtCore/QString>

/// What a server may make a client keep; beyond a limit the session ends in an error.
struct RtspLimits {
    int nHead = 64 << 10; ///< bytes of a message's head
    int nBody = 1 << 20; ///< bytes of its body
    int nStray = 1 << 20; ///< bytes in a row that are neither a message nor a packet
    int nTracks = 32; ///< further ones are left out; the reader of descriptions stops at 32
    int nRedirects = 5; ///< for one start()
};

/// How long to wait, in milliseconds; 0: for ever.
struct RtspTimeouts {
    int nConnect = 10000; ///< name, TCP and TLS together
    int nAnswer = 10000; ///< each request but keep-alives
    int nFirstPacket = 10000; ///< behind the answer to PLAY
    int nUdpTrial = 3000; ///< the same where TCP is tried next
    int nSilence = 10000; ///< while playing
    int nTeardown = 2000;
};

/// Choices where servers differ and no answer suits all; the defaults bear with most.
struct RtspQuirks {
    /// What becomes of packets before those that the RTP-Info of an answer to PLAY names, by sequence number
    /// and by timestamp: some servers send what they had left from the time before.
    enum First { eAnyFirst, eFirstAsAnnounced };
    /// Which holds when answers to SETUP name several sessions.
    enum SessionId { eFirstSession, eLastSession };
    /// Packets of another source than the one that plays. Silent: for two seconds; over TCP, once it has
    /// played so long, for twice its longest pause, when two packets of the other one come in sequence.
    enum UnknownSource { eTakeWhenSilent, eDropUnknown, eTakeUnknown };
    /// Interleaved packets on channels that no answer to SETUP named.
    enum UnassignedChannel { eDropUnassigned, eByPayloadType };
    /// From which ports of the server packets are taken: where it named a usable one from that, else from
    /// any; from the first that sends; from any.
    enum ServerPort { eNamedPort, eFirstSeenPort, eAnyPort };

    First initialSequence = eAnyFirst;
    First initialTimestamp = eAnyFirst;
    SessionId sessionId = eFirstSession;
    UnknownSource unknownSource = eTakeWhenSilent;
    UnassignedChannel unassignedChannel = eDropUnassigned;
    ServerPort serverPort = eNamedPort;
};

/// How an RtspClient plays. A plain value; taken by start().
struct KEPNUVIKAUTIL_EXPORT RtspOptions {
    /// Automatic: UDP, TCP where that does not work, multicast where the server refuses both; TCP at once for
    /// H.264 with packetization-mode 0, for rtsps, and first what worked last for the same URL.
    enum Transport { eAutomatic, eTcp, eUdp, eMulticast };

    Transport transport = eAutomatic;
    RtspLimits limits;
    RtspTimeouts timeouts;
    RtspQuirks quirks;
    RtpUnitFormat unitFormat;
    bool bUnits = true; ///< false: no access units are made, only packets are told
    bool bPlayAtOnce = true; ///< false: behind described(), RtspClient::play() is waited for
    bool bCredentialsToOtherHosts = false; ///< user and password follow a redirect
    int nReorderPackets = RtpReorderBuffer::kDefaultPackets; ///< over UDP
    int nReorderMs = RtpReorderBuffer::kDefaultWaitMs;
    int nReportMs = 5000; ///< between receiver reports; 0: none
    int nUdpReceiveBuffer = 1 << 20; ///< bytes that the system keeps for a track; it may allow less
    qint64 clockBoundUs = RtpTimeline::kDefaultClockBoundUs; ///< as RtpTimeline::setClockBound()
    QString userAgent = QStringLiteral("KepNuvikaUtil");

    // For rtsps, as NuvikaSslSocket::initSsl().
    NuvikaSslSocket::SslProtocol tlsProtocol = NuvikaSslSocket::eSslAny12;
    NuvikaSslSocket::SslVerifyCertificateMode tlsVerify = NuvikaSslSocket::eVerifyChainAndHost;
    QString tlsCertificateFile;
    QString tlsTrusted;
    QString tlsPassPhrase;

    // As NuvikaSslSocket's; for every connection, a redirect's too. The time that a handler takes counts as
    // nConnect's.
    QList<TlsPin> tlsPins;
    NuvikaSslSocket::VerdictHandler tlsVerdict;
};
