// The library's side of every row.
#include "Common.h"
#include "TunedBuffers.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <memory>
#include <vector>

using namespace bench;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{

NuvikaTcpSocket::LOAD_PROFILE profileOf(const Arguments& a)
{
    return a.variant == "medium" ? NuvikaTcpSocket::eMedium : NuvikaTcpSocket::eHeavy;
}

void finish() { QCoreApplication::quit(); }

QHostAddress farQHost() { return QHostAddress(QString::fromLatin1(farHost())); }

void receiveStream(const Arguments& a, NuvikaTcpSocket& socket)
{
    QObject::connect(&socket, &NuvikaTcpSocket::connected, [] { watch.start(); });
    QObject::connect(&socket, &NuvikaTcpSocket::disconnected, finish);
    socket.connectToHost(farQHost(), a.port);
    QCoreApplication::exec();
}

void sendStream(const Arguments& a, NuvikaTcpSocket& socket)
{
    static const QByteArray block(1 << 16, 'x');
    static long long left = a.amount;
    QObject::connect(&socket, &NuvikaTcpSocket::connected, [] { watch.start(); });
    QObject::connect(&socket, &NuvikaTcpSocket::sigCanSend, [&socket] {
        while (left > 0 && socket.canSend()) {
            socket.sendData(block.constData(), static_cast<int>(std::min<long long>(left, block.size())));
            left -= block.size();
        }
    });
    QObject::connect(&socket, &NuvikaTcpSocket::dataReceived, finish);
    socket.connectToHost(farQHost(), a.port);
    QCoreApplication::exec();
}

void pingPong(const Arguments& a, NuvikaTcpSocket& socket)
{
    static const QByteArray message(kPingSize, 'p');
    static long long left = a.amount;
    static int got = 0;
    QObject::connect(&socket, &NuvikaTcpSocket::connected, [&socket] {
        watch.start();
        socket.sendData(message.constData(), kPingSize);
    });
    QObject::connect(&socket, &NuvikaTcpSocket::dataReceived, [&socket](const char*, int size, Marker) {
        got += size;
        if (got < kPingSize)
            return;
        got = 0;
        --left > 0 ? void(socket.sendData(message.constData(), kPingSize)) : finish();
    });
    socket.connectToHost(farQHost(), a.port);
    QCoreApplication::exec();
}

void serve(const Arguments& a)
{
    static long long left = a.amount;
    static std::vector<std::unique_ptr<NuvikaTcpSocket>> sockets;
    static bool bStarted = false;
    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&a](int descriptor) {
        if (!bStarted)
            watch.start();
        bStarted = true;
        if (a.mode == "accept") {
            close(descriptor);
            if (--left == 0)
                finish();
            return;
        }
        sockets.push_back(std::make_unique<NuvikaTcpSocket>());
        NuvikaTcpSocket* socket = sockets.back().get();
        socket->setSocketDescriptor(descriptor);
        if (a.mode == "acceptsocket") {
            sockets.clear();
            if (--left == 0)
                finish();
            return;
        }
        QObject::connect(
            socket, &NuvikaTcpSocket::dataReceived, [socket](const char* data, int size, Marker) {
                socket->sendData(data, size);
                if (--left == 0)
                    finish();
            });
        QObject::connect(socket, &NuvikaTcpSocket::disconnected, finish);
        QObject::connect(socket, &NuvikaTcpSocket::error, finish);
    });
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), a.port))
        std::exit(1);
    ready();
    QCoreApplication::exec();
    watch.report();
    std::_Exit(0); // thousands of sockets: their end is not part of the row
}

void connects(const Arguments& a, NuvikaTcpSocket& socket)
{
    static long long left = a.amount;
    const auto next = [&] { socket.connectToHost(farQHost(), a.port); };
    QObject::connect(&socket, &NuvikaTcpSocket::disconnected, [&, next] {
        socket.close();
        --left > 0 ? next() : finish();
    });
    QObject::connect(&socket, &NuvikaTcpSocket::error, [] { std::exit(1); });
    watch.start();
    next();
    QCoreApplication::exec();
}

void httpGet(const Arguments& a)
{
    static long long left = a.amount;
    HttpClient client(QString::fromLatin1(farHost()), a.port, true);
    leaveBuffersToTheKernel(client);
    const QString path = QLatin1Char('/') + QString::fromStdString(a.variant);
    const auto next = [&client, path] { client.get(path, QString(), QString(), true); };
    QObject::connect(&client, &HttpClient::requestFinished, [next] { --left > 0 ? next() : finish(); });
    QObject::connect(&client, &HttpClient::requestFailed, [] { std::exit(1); });
    watch.start();
    next();
    QCoreApplication::exec();
}

void httpServer(const Arguments& a)
{
    NuvikaTcpServer server;
    auto* pool = new SharedBufferPool;
    SharedPoolBuffer body = pool->getBuffer();
    body.setData(QByteArray(200, 'x').constData(), 200);
    HttpResponseHeader header(200, QStringLiteral("OK"));
    header.addValue(QStringLiteral("Content-Type"), QStringLiteral("text/plain"));
    header.setContentLength(200);
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&](int descriptor) {
        auto* connection = new HttpResponseClient(descriptor, false, &server);
        QObject::connect(connection, &HttpResponseClient::requestReceived,
            [&, connection] { connection->response(header, false, &body); });
        QObject::connect(connection, &HttpResponseClient::disconnected, connection, &QObject::deleteLater);
    });
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), a.port))
        std::exit(1);
    ready();
    QCoreApplication::exec(); // until the driver ends it
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    if (qEnvironmentVariableIsEmpty("NUVIKA_LOG"))
        QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    NuvikaTcpSocket socket(profileOf(a), profileOf(a));
    if (a.mode != "http")
        leaveBuffersToTheKernel(socket);
    if (a.mode == "recv")
        receiveStream(a, socket);
    else if (a.mode == "send")
        sendStream(a, socket);
    else if (a.mode == "ping")
        pingPong(a, socket);
    else if (a.mode == "connect")
        connects(a, socket);
    else if (a.mode == "http")
        httpGet(a);
    else if (a.mode == "httpserver")
        httpServer(a);
    else
        serve(a);
    watch.report();
    return 0;
}
