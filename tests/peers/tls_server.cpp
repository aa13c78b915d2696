// A small HTTPS server on our server side, for clients of other makers: tls_server CERTIFICATE [TRUSTED].
// Prints its port, then what becomes of each connection.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

namespace
{
void say(const QString& text)
{
    std::printf("%s\n", qUtf8Printable(text));
    std::fflush(stdout);
}

void serve(int descriptor)
{
    const QStringList files = QCoreApplication::arguments();
    auto* socket = new NuvikaSslSocket; // deletes itself
    const auto on
        = [socket](auto signal, auto handler) { QObject::connect(socket, signal, socket, handler); };
    on(&NuvikaSslSocket::connected, [socket] { say(QStringLiteral("connected ") + socket->protocolName()); });
    on(&NuvikaSslSocket::dataReceived,
        [socket, request = QByteArray()](
            const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed) mutable {
            request.append(data, size);
            if (!request.contains("\r\n\r\n"))
                return;
            const QByteArray body(request.startsWith("GET /large") ? 20000000 : 5, 'x');
            const QByteArray answer
                = "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
            request.clear();
            socket->sendData(answer.constData(), answer.size());
        });
    on(&NuvikaSslSocket::disconnected, [socket](unsigned long how) {
        say(QStringLiteral("disconnected ") + QString::number(how));
        socket->deleteLater();
    });
    on(&NuvikaSslSocket::error, [socket] {
        say(QStringLiteral("error ") + socket->errorString());
        socket->deleteLater();
    });
    socket->initSsl(true, NuvikaSslSocket::eSslAny12, files.value(1), files.value(2), QString());
    socket->setSocketDescriptor(descriptor);
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, &application, serve);
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;
    say(QString::number(server.serverPort()));
    return QCoreApplication::exec();
}
