// The request engine's bodies: when they may leave, and in which pieces.
#include "http/HttpRequestEngine_p.h"

#include "platform/ErrorCodes_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
constexpr int kPieceSize = 65536; // of a device
}

HttpFailure HttpRequestEngine::deviceFailure(const QString& problem)
{
    return {HttpFailure::eDevice, ErrorCodes::kConnectionAborted, problem};
}

int HttpRequestEngine::upload(
    const HttpRequestHeader& header, QIODevice* device, const QString& user, const QString& password)
{
    const QString coding = QStringLiteral("Transfer-Encoding");
    const auto source = std::make_shared<HttpUploadSource>(device, m_uploadTimer);
    HttpRequestHeader head = header;
    if (!head.hasContentLength() && !head.hasKey(coding)) {
        if (source->size() >= 0)
            head.addValue(QStringLiteral("Content-Length"), QString::number(source->size()));
        else
            head.addValue(coding, QStringLiteral("chunked"));
    }
    Request request = makeRequest(head, false, nullptr, user, password, 0);
    if (request.problem.isEmpty())
        request.problem = source->problem();
    if (request.problem.isEmpty() && head.hasKey(coding) && !request.bUploadChunked)
        request.problem = QStringLiteral("the body has a transfer coding other than \"chunked\"");
    if (request.bUpload)
        request.source = source;
    return enqueue(std::move(request));
}

// --- after the head --------------------------------------------------------------------------------------

// A device may have to go back. Where it cannot, the request fails, from the event loop.
bool HttpRequestEngine::prepareUpload()
{
    Request& front = m_requests.front();
    front.nUploadLeft = front.nUploadLength;
    front.nHandedOver = 0;
    front.bUploadStarted = false;
    front.bUploadComplete = false;
    const auto source = front.source;
    if (!source)
        return true;
    const Watched::Watch watch = m_connection.watch();
    const bool bBegun = source->begin();
    if (!watch.holds())
        return false;
    if (!bBegun) {
        front.problem = source->problem();
        m_refusalTimer.start(0);
    }
    return bBegun;
}

void HttpRequestEngine::sendBody(const Request& request, bool bWithHead)
{
    if (!bWithHead && !request.body.isEmpty())
        m_transport.sendData(
            static_cast<const char*>(request.body.getBuffer()), request.body.getBufferSize());
    m_bTellRoom = request.bUpload;
    if (request.bUpload)
        m_uploadTimer.start(0);
}

// The server has said 100, or nothing for so long that it may not know how to.
void HttpRequestEngine::continueRequest()
{
    m_continueTimer.stop();
    if (m_state != eWaitingHeader || !m_requests.front().bAwaitsContinue)
        return;
    m_requests.front().bAwaitsContinue = false;
    sendBody(m_requests.front(), false);
    limitExchange();
}

// A 417 is answered once, by the same request without the field.
void HttpRequestEngine::handleExpectation(HttpBody* body)
{
    const Request& front = m_requests.front();
    if (m_pResponseHeader->statusCode() != 417 || !front.bExpects || !front.canRepeat())
        return;
    m_bRetry = true;
    body->bMultipart = false;
}

// --- pieces ----------------------------------------------------------------------------------------------

bool HttpRequestEngine::isUploading() const
{
    if (m_requests.empty() || !isExchanging())
        return false;
    const Request& front = m_requests.front();
    return front.bUpload && front.bPending && !front.bUploadComplete;
}

bool HttpRequestEngine::sendUploadContentChunk(int id, const char* data, int size, bool bLast)
{
    if (!isUploading() || m_requests.front().nId != id || size < 0)
        return false;
    Request& front = m_requests.front();
    if (front.bAwaitsContinue || front.source)
        return false;
    if (!front.bUploadChunked && size > front.nUploadLeft)
        return false; // it would be read as the next request
    return sendPiece(front, data, size, bLast);
}

bool HttpRequestEngine::sendPiece(Request& request, const char* data, int size, bool bLast)
{
    request.bUploadStarted = true;
    request.bUploadComplete = bLast;
    limitExchange();
    QByteArray framed;
    if (!request.bUploadChunked) {
        request.nUploadLeft -= size;
        framed = QByteArray::fromRawData(data, size);
    } else {
        if (size > 0)
            framed = QByteArray::number(size, 16) + "\r\n" + QByteArray(data, size) + "\r\n";
        if (bLast)
            framed += "0\r\n\r\n";
    }
    request.nHandedOver += framed.size();
    const bool bTaken = m_transport.sendData(framed.constData(), framed.size());
    m_bTellRoom = m_bTellRoom || !m_transport.canSend();
    return bTaken;
}

bool HttpRequestEngine::canSendUploadContent() const
{
    return isUploading() && !m_requests.front().bAwaitsContinue && !m_requests.front().source
        && m_transport.canSend();
}

qint64 HttpRequestEngine::bytesToUpload() const
{
    const bool bBegun = !m_requests.empty() && m_requests.front().bPending;
    return bBegun ? std::min<qint64>(m_transport.bytesToSend(), m_requests.front().nHandedOver) : 0;
}

// There is room, or more to read.
void HttpRequestEngine::continueUpload()
{
    if (isUploading() && m_requests.front().source) {
        pumpUpload();
    } else if (m_bTellRoom && canSendUploadContent()) {
        m_bTellRoom = false;
        m_listener.canSendUpload();
    }
}

// --- from a device ---------------------------------------------------------------------------------------

// A refusal has begun: what is still kept of the body is not wanted (RFC 9112, 9.5).
bool HttpRequestEngine::isRefused() const
{
    return m_state != eWaitingHeader && m_pResponseHeader->statusCode() >= 400;
}

void HttpRequestEngine::pumpUpload()
{
    while (isUploading() && mayPump() && pumpPiece()) { }
}

bool HttpRequestEngine::mayPump()
{
    const Request& front = m_requests.front();
    if (!front.source || isRefused() || front.source->isReading())
        return false;
    return !front.source->isUsable() || (!front.bAwaitsContinue && m_transport.canSend());
}

// False when there is no more for now; the request, and the engine, may be gone then. The device's signals
// may call back into its owner, who may do anything.
bool HttpRequestEngine::pumpPiece()
{
    Request& front = m_requests.front();
    const auto source = front.source;
    const int id = front.nId;
    const int most = front.bUploadChunked
        ? kPieceSize
        : static_cast<int>(std::min<long long>(kPieceSize, front.nUploadLeft));
    const Watched::Watch watch = m_connection.watch();
    const HttpUploadSource::Result result = source->read(most);
    if (!watch.holds() || !isUploading() || m_requests.front().source != source)
        return false;
    if (result == HttpUploadSource::eNotYet)
        return false;
    if (result == HttpUploadSource::eFailed) {
        failFront(deviceFailure(source->problem()), true);
        return false;
    }
    if (result == HttpUploadSource::eEnd)
        return endOfSource(front);
    const int size = source->piece().size();
    const bool bLast = !front.bUploadChunked && size == front.nUploadLeft;
    if (!sendPiece(front, source->piece().constData(), size, bLast))
        return false; // the connection's end follows
    m_listener.uploadProgress(id, source->bytesRead(), front.bUploadChunked ? -1 : front.nUploadLength);
    return watch.holds();
}

bool HttpRequestEngine::endOfSource(Request& request)
{
    if (request.bUploadChunked)
        sendPiece(request, nullptr, 0, true);
    else
        failFront(deviceFailure(QStringLiteral("the device to send from ended after %1 of %2 bytes")
                                    .arg(request.nUploadLength - request.nUploadLeft)
                                    .arg(request.nUploadLength)),
            true);
    return false;
}
