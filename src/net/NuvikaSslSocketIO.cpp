#include "net/HalfClose_p.h"
#include "net/NuvikaSslSocket_p.h"
#include "net/SendRoom_p.h"

#include <algorithm>
#include <utility>

using namespace Nuvika;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kReadSize = 64 * 1024; // plain text handed out at a time: four full records
constexpr int kAnswersLimit = 64 * 1024;

// Plain text on its way to a handler. The thread keeps one such buffer, not every connection; a second one
// exists while a handler runs an event loop of its own.
class ReadBuffer
{
public:
    ReadBuffer() : m_pBytes(std::move(kept()))
    {
        if (!m_pBytes)
            m_pBytes.reset(new char[kReadSize]);
    }
    ~ReadBuffer() { kept() = std::move(m_pBytes); }
    ReadBuffer(const ReadBuffer&) = delete;
    ReadBuffer& operator=(const ReadBuffer&) = delete;
    char* data() const { return m_pBytes.get(); }

private:
    static std::unique_ptr<char[]>& kept()
    {
        thread_local std::unique_ptr<char[]> t_pKept;
        return t_pKept;
    }
    std::unique_ptr<char[]> m_pBytes;
};
} // namespace

// --- receiving -------------------------------------------------------------------------------------------

bool NuvikaSslSocket::Private::read(const char* data, int size)
{
    if (m_pSession) // or a close is pending
        m_input.received(data, size);
    return true;
}

int NuvikaSslSocket::Private::readInput(const char* data, int size)
{
    const Watched::Watch watch = m_watched.watch();
    m_pSession->setInput(data, size);
    return continueHandshake(watch) && deliver(watch) ? size : kOver;
}

void NuvikaSslSocket::Private::stallSource(bool bStall)
{
    if (bStall)
        m_socket.stallRecv();
    else
        m_socket.resumeRecv();
}

// False when this connection is over.
bool NuvikaSslSocket::Private::deliver(const Watched::Watch& watch)
{
    if (m_state != eOpen || m_bPeerEnded)
        return true;
    const ReadBuffer buffer;
    for (;;) {
        const TlsSession::Result result = deliverSome(buffer.data());
        if (watch.holds() && waitingHasEnded())
            tellCaughtUp(watch);
        if (!watch.holds())
            return false;
        if (m_nAnswers > kAnswersLimit) {
            fail(TlsFailure::kOther,
                QStringLiteral("%1 asks for answers that it does not read").arg(m_pSession->failure().who()));
            return false;
        }
        switch (result) {
        case TlsSession::eMore:
            break;
        case TlsSession::eWantInput:
            return true;
        case TlsSession::eClosed:
            if (m_peerEnded)
                return tellPeerEnded(true);
            m_pSession->endWriting();
            endSession();
            m_socket.close();
            m_state = eIdle;
            emit m_owner.disconnected(0);
            return false;
        case TlsSession::eWantVerdict: // never within a connection
        case TlsSession::eFailed:
            failWithSession();
            return false;
        }
    }
}

// Plain text goes where the reader wants it, else through the buffer.
TlsSession::Result NuvikaSslSocket::Private::deliverSome(char* buffer)
{
    const iovec target = m_pPlacer != nullptr ? m_pPlacer->target() : iovec{};
    const bool bPlaced = target.iov_len > 0;
    int got = 0;
    const TlsSession::Result result = bPlaced ? readSome(static_cast<char*>(target.iov_base),
                                          std::min<std::size_t>(target.iov_len, kReadSize), &got)
                                              : readSome(buffer, kReadSize, &got);
    if (got > 0 && bPlaced)
        m_pPlacer->placed(std::exchange(got, 0));
    else if (got == 0)
        return result;
    if (m_pPlacer == nullptr || !m_pPlacer->read(buffer, got))
        emit m_owner.dataReceived(buffer, got, Marker());
    return result;
}

TlsSession::Result NuvikaSslSocket::Private::readSome(char* buffer, std::size_t size, int* got)
{
    m_bReading = true;
    const TlsSession::Result result = m_pSession->read(buffer, static_cast<int>(size), got);
    m_bReading = false;
    return result == TlsSession::eFailed || m_pSession->writeWaiting() ? result : TlsSession::eFailed;
}

void NuvikaSslSocket::Private::stall()
{
    m_bStalled = true;
    if (m_state == eOpen)
        m_input.setStalled(PendingInput::eByOwner, true);
}

void NuvikaSslSocket::Private::resume()
{
    m_bStalled = false;
    if (m_state == eOpen)
        m_input.setStalled(PendingInput::eByOwner, false);
}

bool NuvikaSslSocket::Private::hasPendingInput() const
{
    return m_socket.hasPendingInput() || (m_pSession && m_pSession->hasInput()) || !m_input.isEmpty();
}

// --- sending ---------------------------------------------------------------------------------------------

void NuvikaSslSocket::Private::sendEncrypted(const char* data, int size)
{
    SendRoom::sendPastLimit(m_socket, data, size);
    if (m_socket.isDynamicDataQueueEmpty())
        m_nAnswers = 0;
    else if (m_bReading)
        m_nAnswers += size;
}

bool NuvikaSslSocket::Private::send(const KepNuvikaUtil::BUFFER* ranges, int count)
{
    if (m_state != eOpen || count < 0 || isSendLimitReached())
        return false;
    const TlsFailure& failure = m_pSession->failure();
    const bool bFailed = failure.nCode != 0;
    if (!m_pSession->write(ranges, count)) {
        if (!bFailed && failure.nCode != 0)
            failLater(failure.nCode, QString(failure.text));
        return false;
    }
    waitingHasEnded();
    return true;
}

bool NuvikaSslSocket::Private::notifyWhenAllSent()
{
    if (m_state != eOpen)
        return false;
    m_bTellAllSent = m_pSession->isWaiting();
    return m_bTellAllSent || m_socket.notifyWhenAllSent();
}

void NuvikaSslSocket::Private::tellCaughtUp(const Watched::Watch& watch)
{
    if (std::exchange(m_bTellAllSent, false) && !m_socket.notifyWhenAllSent())
        emit m_owner.sigAllSent();
    if (watch.holds() && canSend())
        emit m_owner.sigCanSend();
}

qint64 NuvikaSslSocket::Private::bytesToSend() const
{
    return m_state == eOpen ? m_socket.bytesToSend() + m_pSession->waitingBytes() : 0;
}

// The TCP socket's limit refuses nothing here: it is what sigCanSend() comes by.
void NuvikaSslSocket::Private::setSendLimit(qint64 bytes)
{
    m_nSendLimit = bytes;
    m_socket.setSendLimit(bytes);
}

void NuvikaSslSocket::Private::sendEndOfData()
{
    if (m_state != eOpen)
        return;
    m_pSession->endWriting();
    m_bEndOfData = true;
    waitingHasEnded();
}

// After all that may change it: what waits to be sent has a time limit, and TCP's end stands behind it.
bool NuvikaSslSocket::Private::waitingHasEnded()
{
    const bool bWaited = m_handshakeTimer.isActive();
    if (m_pSession->isWaiting()) {
        if (!bWaited)
            limitHandshake();
        return false;
    }
    m_handshakeTimer.stop();
    if (std::exchange(m_bEndOfData, false))
        m_socket.finishSending();
    return bWaited;
}

// --- ending ----------------------------------------------------------------------------------------------

// Whoever is in the middle of delivering sees it, and leaves.
void NuvikaSslSocket::Private::endSession()
{
    m_watched.endSession();
    m_handshakeTimer.stop();
    m_closeTimer.stop();
    m_pSession.reset();
    m_input.reset();
    m_bEndOfData = false;
    m_bTellAllSent = false;
    m_bPeerEnded = false;
    m_nAnswers = 0;
}

void NuvikaSslSocket::Private::close()
{
    m_postponedConnect = nullptr;
    if (m_state == eClosing)
        return;
    const bool bOpen = m_state == eOpen;
    if (bOpen)
        m_pSession->endWriting();
    endSession();
    m_problem.clear();
    if (bOpen && m_socket.notifyWhenAllSent()) {
        m_state = eClosing;
        m_closeTimer.start();
        return;
    }
    m_socket.close();
    m_state = eIdle;
}

void NuvikaSslSocket::Private::closeCompleted()
{
    m_closeTimer.stop();
    m_socket.close();
    m_state = eIdle;
    if (const auto connectNow = std::exchange(m_postponedConnect, nullptr))
        connectNow();
}

void NuvikaSslSocket::Private::tcpEnded(int code)
{
    if (m_state == eClosing) {
        closeCompleted();
        return;
    }
    m_input.ended(code); // behind the bytes before it
}

void NuvikaSslSocket::Private::readEnd(int code)
{
    if (code != 0) {
        fail(code, m_socket.errorString());
    } else if (m_state == eHandshake) {
        fail(TlsFailure::kOther,
            QStringLiteral("%1 closed the connection during the TLS handshake")
                .arg(m_pSession->failure().who()));
    } else if (m_peerEnded) {
        tellPeerEnded(false);
    } else {
        endSession();
        m_state = eIdle;
        emit m_owner.disconnected(1);
    }
}

void NuvikaSslSocket::Private::setEndHandler(std::function<void(bool)> peerEnded)
{
    m_peerEnded = std::move(peerEnded);
    HalfClose::setHandler(m_socket, [this] { tcpEnded(0); });
}

// False when this connection is over.
bool NuvikaSslSocket::Private::tellPeerEnded(bool bAnnounced)
{
    if (std::exchange(m_bPeerEnded, true))
        return true;
    const Watched::Watch watch = m_watched.watch();
    const std::function<void(bool)> peerEnded = m_peerEnded; // may destroy this socket
    peerEnded(bAnnounced);
    return watch.holds();
}

void NuvikaSslSocket::Private::fail(int code, const QString& problem)
{
    endSession();
    m_socket.close();
    m_problem = problem;
    m_state = eFailed;
    emit m_owner.error(code);
}

void NuvikaSslSocket::Private::failWithSession()
{
    const TlsFailure failure = m_pSession->failure();
    if (failure.nCode != 0)
        fail(failure.nCode, failure.text);
    else
        fail(TlsFailure::kOther, QStringLiteral("%1 ended the TLS connection").arg(failure.who()));
}
