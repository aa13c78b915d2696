#include "WebServer.h"

#include <array>

namespace
{
const char* reason(int code)
{
    switch (code) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 404:
        return "Not Found";
    case 421:
        return "Misdirected Request";
    default:
        return "Error";
    }
}

constexpr int kMaxRequestHead = 65536;
constexpr int kMaxRequestBody = 1 << 20;
constexpr char kBoundary[] = "nuvika-picture";
// Browsers keep what they do not use, and viewers that are only paused come back.
constexpr HttpServerTimeLimits kTimeLimits{60000, 20000, 20000, 300000};
} // namespace

WebServer::WebServer(Handler handler) : m_handler(std::move(handler)), m_pool(new SharedBufferPool)
{
    connect(&m_server, &NuvikaTcpServer::newConnectionDesc, this, &WebServer::accept);
}

WebServer::~WebServer() { m_pool->release(); }

bool WebServer::useTls(const QString& certificate, QString* problem)
{
    m_certificate = certificate;
    m_pTls = std::make_unique<NuvikaSslSocket>();
    const bool bGood = m_pTls->initSsl(true, NuvikaSslSocket::eSslAny12, certificate, QString(), QString());
    *problem = m_pTls->errorString();
    return bGood;
}

HttpResponseClient* WebServer::connectionOf(int descriptor)
{
    if (!m_pTls)
        return new HttpResponseClient(descriptor, false, this);
    return new HttpResponseClient(
        descriptor, NuvikaSslSocket::eSslAny12, m_certificate, QString(), QString(), this);
}

void WebServer::accept(int descriptor)
{
    HttpResponseClient* connection = connectionOf(descriptor);
    connection->setTimeLimits(kTimeLimits);
    HttpReadLimits limits;
    limits.nHead = kMaxRequestHead;
    limits.nContent = kMaxRequestBody;
    connection->setReadLimits(limits);
    connect(connection, &HttpResponseClient::requestReceived, this,
        [this, connection](const HttpRequestHeader& request) { m_handler(*connection, request); });
    connect(connection, &HttpResponseClient::contentChunk, this,
        [this, connection](const HttpRequestHeader& request, const char*, int size) {
            if (size == 0) // the end of a chunked request, whose content nobody here wants
                m_handler(*connection, request);
        });
    connect(connection, &HttpResponseClient::error, this, [this, connection] {
        if (connection->isConnected())
            answer(*connection, 400, "bad request\n", "text/plain");
    });
    connect(connection, &HttpResponseClient::disconnected, connection, &QObject::deleteLater);
}

void WebServer::answer(HttpResponseClient& connection, int code, const QByteArray& body, const char* type)
{
    HttpResponseHeader header(code, QLatin1String(reason(code)));
    header.addValue(QStringLiteral("Content-Type"), QLatin1String(type));
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-store"));
    header.setContentLength(body.size());
    SharedPoolBuffer content = m_pool->getBuffer();
    content.setData(body.constData(), body.size());
    connection.response(header, false, &content);
}

void WebServer::beginPictures(HttpResponseClient& connection)
{
    HttpResponseHeader header(200, QStringLiteral("OK"));
    header.addValue(QStringLiteral("Content-Type"),
        QStringLiteral("multipart/x-mixed-replace; boundary=%1").arg(QLatin1String(kBoundary)));
    header.addValue(QStringLiteral("Cache-Control"), QStringLiteral("no-store"));
    connection.response(header, true, nullptr);
}

void WebServer::sendPicture(HttpResponseClient& connection, const QByteArray& picture, const char* type)
{
    const QByteArray head = QByteArray("--") + kBoundary + "\r\nContent-Type: " + type
        + "\r\nContent-Length: " + QByteArray::number(picture.size()) + "\r\n\r\n";
    const std::array<KepNuvikaUtil::BUFFER, 3> ranges{
        {{head.constData(), head.size()}, {picture.constData(), picture.size()}, {"\r\n", 2}}};
    connection.sendContent(ranges.data(), static_cast<int>(ranges.size()));
}
