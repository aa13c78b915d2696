// Private: the TLS socket's connection, between its session and its TCP socket.
#pragma once

#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>

#include "core/Watched_p.h"
#include "net/PendingInput_p.h"
#include "net/ReceivePlacer_p.h"
#include "net/TlsSession_p.h"

#include <QtCore/QTimer>

#include <functional>

class NuvikaSslSocket::Private final : public Nuvika::TlsOutput,
                                       public Nuvika::InputReader,
                                       public Nuvika::ReceivePlacer
{
public:
    Private(NuvikaSslSocket& owner, int nSendQueueHint);
    ~Private() override;

    bool initialise(const Nuvika::TlsConfig& config);
    // The configuration is no good: connects fail until there is a better one.
    void refuse(const QString& problem);
    void connectTo(const QString& host, quint16 port, const std::function<void()>& connectSocket);
    void accept(int descriptor);
    void close();
    bool send(const KepNuvikaUtil::BUFFER* ranges, int count);
    void sendEndOfData();
    bool canSend() const { return m_state == eOpen && !m_pSession->isWaiting() && m_socket.canSend(); }
    void stall();
    void resume();
    bool hasPendingInput() const;
    bool notifyWhenAllSent();
    // Of who goes on sending behind the peer's end.
    void setEndHandler(std::function<void(bool bAnnounced)> peerEnded);
    qint64 bytesToSend() const;
    bool isSendLimitReached() const { return m_nSendLimit > 0 && bytesToSend() >= m_nSendLimit; }
    void setSendLimit(qint64 bytes);
    NuvikaTcpSocket::STATE state() const;

    NuvikaTcpSocketQueued m_socket;
    Nuvika::ReceivePlacer* m_pPlacer = nullptr; // of who reads the plain text
    QString m_certificateFileName;
    QString m_certificateFilePath;
    SslProtocol m_protocol = eSslAny12;
    SslVerifyCertificateMode m_verifyMode = eVerifyChainAndHost;
    QList<TlsPin> m_pins;
    VerdictHandler m_verdictHandler;
    QString m_problem; // why it failed, in words
    Nuvika::CertificatePointer m_pCertificate; // the peer's
    QString m_protocolName;
    QString m_cipherName;
    bool m_bResumed = false;

private:
    enum State { eIdle, eConnecting, eHandshake, eOpen, eClosing, eFailed };

    void sendEncrypted(const char* data, int size) override;
    int readInput(const char* data, int size) override;
    void readEnd(int code) override; // of TCP
    void stallSource(bool bStall) override;
    void beginConnection();
    void beginHandshake();
    void limitHandshake();
    void watchHandshake();
    bool read(const char* data, int size) override;
    bool continueHandshake(const Nuvika::Watched::Watch& watch);
    bool askForVerdict(const Nuvika::Watched::Watch& watch);
    PeerChain peerChain() const;
    bool deliver(const Nuvika::Watched::Watch& watch);
    Nuvika::TlsSession::Result deliverSome(char* buffer);
    Nuvika::TlsSession::Result readSome(char* buffer, std::size_t size, int* got);
    bool waitingHasEnded();
    void tellCaughtUp(const Nuvika::Watched::Watch& watch);
    bool tellPeerEnded(bool bAnnounced);
    void tcpEnded(int code); // 0: in good order
    void closeCompleted();
    void endSession();
    void fail(int code, const QString& problem);
    void failWithSession();
    void failSetUp(const QString& problem);
    void failLater(int code, const QString& problem);

    NuvikaSslSocket& m_owner;
    std::shared_ptr<Nuvika::TlsLibrary> m_pLibrary = Nuvika::TlsLibrary::acquire();
    std::shared_ptr<Nuvika::TlsContext> m_pContext; // of the last good initSsl()
    std::unique_ptr<Nuvika::TlsSession> m_pSession;
    QString m_configurationProblem = QStringLiteral("initSsl() was not called");
    State m_state = eIdle;
    QString m_host;
    quint16 m_nPort = 0;
    QTimer m_handshakeTimer;
    quint32 m_nHandshakeBegin = 0; // Clock::monotonicMs()
    QTimer m_closeTimer;
    std::function<void()> m_postponedConnect; // until the pending close has completed
    Nuvika::PendingInput m_input{*this};
    bool m_bStalled = false; // by the user, from the handshake's end on
    bool m_bEndOfData = false; // TCP's end is still to be sent
    bool m_bTellAllSent = false; // once nothing waits for the peer's handshake any more
    std::function<void(bool)> m_peerEnded; // instead of the end at the peer's end
    bool m_bPeerEnded = false; // it was told; nothing is read any more
    bool m_bReading = false; // what leaves now is nobody's wish but the peer's
    qint64 m_nSendLimit = 0;
    int m_nAnswers = 0; // such bytes, while the peer does not read
    Nuvika::Watched m_watched;
};
