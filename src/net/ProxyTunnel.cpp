#include "net/ProxyTunnel_p.h"

#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>
#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "platform/Clock_p.h"
#include "platform/ErrorCodes_p.h"

#include <QtCore/QUrl>
#include <QtNetwork/QHostAddress>

#include <algorithm>
#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kTickMs = 500;
constexpr quint32 kAnswerMs = 10000;
constexpr int kMostHead = 64 << 10; // of all heads before the way is open
constexpr int kMostReason = 100;
constexpr int kInterim = 100;
constexpr char kProtocol[] = "HTTP/1.";
constexpr int kProtocolSize = sizeof kProtocol - 1;

// As it stands before a port; empty for what is no name.
QString authorityOf(const QString& host)
{
    QHostAddress address(host);
    if (address.isNull()) {
        const QString name = QString::fromLatin1(QUrl::toAce(host));
        const auto isForeign
            = [](QChar c) { return c <= QLatin1Char(' ') || QStringLiteral("/?#@:[]\\\x7f").contains(c); };
        return std::any_of(name.begin(), name.end(), isForeign) ? QString() : name;
    }
    address.setScopeId(QString()); // which is ours
    const QString text = address.toString();
    return text.contains(QLatin1Char(':')) ? QLatin1Char('[') + text + QLatin1Char(']') : text;
}

// Three digits behind the version; 0 for anything else.
int statusOf(const QByteArray& line)
{
    bool bNumber = false;
    const int status = line.mid(kProtocolSize + 2, 3).toInt(&bNumber);
    const char behind = line.size() > kProtocolSize + 5 ? line.at(kProtocolSize + 5) : ' ';
    return line.size() >= kProtocolSize + 5 && line.at(kProtocolSize + 1) == ' ' && bNumber && status >= 100
            && behind == ' '
        ? status
        : 0;
}

// The status and its words, which are the proxy's.
QString printable(const QByteArray& line)
{
    QByteArray words = line.mid(kProtocolSize + 2, kMostReason);
    std::replace_if(
        words.begin(), words.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return QString::fromLatin1(words);
}

int endOfHead(const QByteArray& bytes, int from)
{
    for (int lf = bytes.indexOf('\n', from); lf >= 0; lf = bytes.indexOf('\n', lf + 1)) {
        const int next = lf + 1 + (lf + 1 < bytes.size() && bytes.at(lf + 1) == '\r' ? 1 : 0);
        if (next < bytes.size() && bytes.at(next) == '\n')
            return next + 1;
    }
    return -1;
}
} // namespace

ProxyTunnel::ProxyTunnel(NuvikaTcpSocketQueued& owner) : m_owner(owner)
{
    QObject::connect(&m_timer, &QTimer::timeout, &m_owner, [this] { watchTime(); });
}

void ProxyTunnel::set(NuvikaTcpSocketQueued& socket, const ProxyAddress& proxy)
{
    if (!socket.m_pTunnel) {
        socket.m_pTunnel = std::make_unique<ProxyTunnel>(socket);
        socket.m_pTunnel->setReader(socket.m_pPlacer);
        ReceivePlacer::set(*socket.m_pSocket, *socket.m_pTunnel);
    }
    socket.m_pTunnel->m_wanted = proxy;
    socket.m_pTunnel->m_bFailed = false;
}

bool ProxyTunnel::failedLast(const NuvikaTcpSocketQueued& socket)
{
    return socket.m_pTunnel && socket.m_pTunnel->m_bFailed;
}

QString ProxyTunnel::proxyName() const
{
    return QStringLiteral("the proxy %1:%2").arg(m_proxy.host).arg(m_proxy.nPort);
}

// --- the connection --------------------------------------------------------------------------------------

void ProxyTunnel::connectTo(const QString& host, quint16 port)
{
    if (m_owner.getState() != NuvikaTcpSocket::eUnconnected) {
        NUVIKA_WARNING(lcNet, "NuvikaTcpSocket::connectToHost() failed; invalid state");
        return;
    }
    m_proxy = m_wanted;
    m_state = eConnecting;
    m_bFailed = false;
    m_nBegin = Clock::monotonicMs();
    const QString authority = authorityOf(host);
    if (authority.isEmpty()) {
        failLater(ErrorCodes::kHostNotFound, QStringLiteral("\"%1\" is no host's name").arg(host));
        return;
    }
    m_target = authority + QLatin1Char(':') + QString::number(port);
    m_owner.m_pSocket->connectToHost(m_proxy.host, m_proxy.nPort);
}

void ProxyTunnel::reset()
{
    m_watched.endSession();
    m_timer.stop();
    m_state = ePassing;
    m_problem.clear();
    m_answer.clear();
    m_nHead = 0;
    m_nScanned = 0;
}

void ProxyTunnel::tcpConnected()
{
    m_state = eAsking;
    m_nAsked = Clock::monotonicMs();
    m_timer.start(m_owner.m_nConnectTimeLimit > 0 ? std::min(m_owner.m_nConnectTimeLimit, kTickMs) : kTickMs);
    const QByteArray bytes = request();
    m_owner.m_pSocket->sendData(bytes.constData(), bytes.size());
}

// The owner's limit of connecting counts the TCP connection, too.
void ProxyTunnel::watchTime()
{
    const quint32 now = Clock::monotonicMs();
    const auto limit = static_cast<quint32>(m_owner.m_nConnectTimeLimit);
    if (limit > 0 && now - m_nBegin >= limit)
        fail(ErrorCodes::kTimedOut,
            QStringLiteral("%1 did not open a way to %2 within %3 ms").arg(proxyName(), m_target).arg(limit));
    else if (now - m_nAsked > kAnswerMs)
        fail(ErrorCodes::kTimedOut, QStringLiteral("%1 did not answer within 10 seconds").arg(proxyName()));
}

QByteArray ProxyTunnel::request() const
{
    const QByteArray target = m_target.toLatin1();
    QByteArray head = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (!m_proxy.user.isEmpty())
        head += "Proxy-Authorization: Basic "
            + (m_proxy.user + QLatin1Char(':') + m_proxy.password).toUtf8().toBase64() + "\r\n";
    return head + "\r\n";
}

void ProxyTunnel::tcpEnded(int code)
{
    const QString end = code == 0
        ? QStringLiteral("%1 ended the connection without an answer").arg(proxyName())
        : proxyName() + QLatin1String(": ") + SocketError::format(code);
    fail(code == 0 ? ErrorCodes::kConnectionAborted : code, end);
}

void ProxyTunnel::failLater(int code, const QString& problem)
{
    QTimer::singleShot(0, &m_owner, [this, code, problem, watch = m_watched.watch()] {
        if (watch.holds())
            fail(code, problem);
    });
}

// Nothing of this object is touched behind it.
void ProxyTunnel::fail(int code, const QString& problem)
{
    reset();
    m_state = eFailed;
    m_bFailed = true;
    m_problem = problem;
    m_owner.m_pSocket->close();
    m_owner.slotError(code);
}

// --- the answer ------------------------------------------------------------------------------------------

iovec ProxyTunnel::target()
{
    return m_state == ePassing && m_pReader != nullptr ? m_pReader->target() : iovec{};
}

void ProxyTunnel::placed(int size) { m_pReader->placed(size); }

bool ProxyTunnel::read(const char* data, int size)
{
    if (m_state != eAsking)
        return m_pReader != nullptr && m_pReader->read(data, size);
    m_answer.append(data, size);
    takeAnswer();
    return true;
}

// Heads of interim answers are passed over.
void ProxyTunnel::takeAnswer()
{
    int end = 0;
    do {
        end = endOfHead(m_answer, m_nScanned);
        const QByteArray line = end < 0 ? QByteArray() : statusLine();
        const int status = end < 0 ? kInterim : statusOf(line);
        if (!speaksHttp() || status == 0 || (end < 0 ? m_answer.size() : end) > kMostHead) {
            fail(ErrorCodes::kConnectionAborted,
                QStringLiteral("%1 sends what is no answer to CONNECT").arg(proxyName()));
            return;
        }
        if (status >= 200) {
            status < 300 ? open(end) : refused(status, line);
            return;
        }
        m_nHead = m_nScanned = std::max(m_nHead, end);
    } while (end >= 0);
    m_nScanned = std::max(m_nHead, m_answer.size() - 2);
}

bool ProxyTunnel::speaksHttp() const
{
    const QByteArray begin = m_answer.mid(m_nHead, kProtocolSize);
    return QByteArray::fromRawData(kProtocol, kProtocolSize).startsWith(begin);
}

QByteArray ProxyTunnel::statusLine() const
{
    return m_answer.mid(m_nHead, m_answer.indexOf('\n', m_nHead) - m_nHead).trimmed();
}

void ProxyTunnel::refused(int status, const QByteArray& line)
{
    const char* why = status != 407 ? ""
        : m_proxy.user.isEmpty()    ? " (it asks for user and password)"
                                    : " (user or password are not accepted)";
    fail(ErrorCodes::kConnectionRefused,
        QStringLiteral("%1 refuses a way to %2: %3%4")
            .arg(proxyName(), m_target, printable(line), QLatin1String(why)));
}

// What stands behind the head is the host's.
void ProxyTunnel::open(int end)
{
    const QByteArray rest = m_answer.mid(end);
    reset();
    const Watched::Watch watch = m_watched.watch();
    emit m_owner.connected();
    if (!watch.holds() || rest.isEmpty()
        || (m_pReader != nullptr && m_pReader->read(rest.constData(), rest.size())))
        return;
    emit m_owner.dataReceived(rest.constData(), rest.size(), NuvikaTcpSocket::QueuedConnNotAllowed());
}
