// Private: a way through an HTTP proxy, made by CONNECT (RFC 9110, 9.3.6) on the TCP connection to it, before
// the connection's owner hears of that. Then it is as one to the host itself: bytes pass, whoever reads them.
#pragma once

#include "core/Watched_p.h"
#include "net/ReceivePlacer_p.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QTimer>

namespace Nuvika
{
struct ProxyAddress {
    QString host; // empty: no proxy
    quint16 nPort = 0;
    QString user; // of Basic credentials, which leave with the first request
    QString password;
};

class ProxyTunnel final : public ReceivePlacer
{
public:
    // For the connections to come.
    static void set(NuvikaTcpSocketQueued& socket, const ProxyAddress& proxy);
    static void set(NuvikaSslSocket& socket, const ProxyAddress& proxy);
    // The last connection did not come about for the proxy's sake.
    static bool failedLast(const NuvikaTcpSocketQueued& socket);
    static bool failedLast(const NuvikaSslSocket& socket);

    explicit ProxyTunnel(NuvikaTcpSocketQueued& owner);
    ProxyTunnel(const ProxyTunnel&) = delete;
    ProxyTunnel& operator=(const ProxyTunnel&) = delete;

    void setReader(ReceivePlacer* reader) { m_pReader = reader; }
    bool isWanted() const { return !m_wanted.host.isEmpty(); }

    // Of the owner's connection. The tunnel's own failures reach it as slotError().
    void connectTo(const QString& host, quint16 port);
    bool isInTheWay() const { return m_state == eConnecting || m_state == eAsking; }
    bool hasFailed() const { return m_state == eFailed; }
    void tcpConnected();
    void tcpEnded(int code); // 0: in good order
    void reset();
    QString problem() const { return m_problem; }

    // Of the socket below.
    iovec target() override;
    void placed(int size) override;
    bool read(const char* data, int size) override;

private:
    enum State { ePassing, eConnecting, eAsking, eFailed };

    QByteArray request() const;
    QString proxyName() const;
    void watchTime();
    void takeAnswer();
    bool speaksHttp() const;
    QByteArray statusLine() const;
    void refused(int status, const QByteArray& line);
    void open(int end);
    void fail(int code, const QString& problem);
    void failLater(int code, const QString& problem);

    NuvikaTcpSocketQueued& m_owner;
    ReceivePlacer* m_pReader = nullptr; // the owner's
    ProxyAddress m_wanted;
    ProxyAddress m_proxy; // of this connection
    State m_state = ePassing;
    QString m_target; // "host:port"
    QByteArray m_answer;
    int m_nHead = 0; // where the head begins that is being read
    int m_nScanned = 0; // so far it does not end
    QString m_problem;
    bool m_bFailed = false; // until the next connection
    QTimer m_timer;
    quint32 m_nBegin = 0; // Clock::monotonicMs(), as the next
    quint32 m_nAsked = 0;
    Watched m_watched;
};
} // namespace Nuvika
