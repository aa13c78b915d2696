// Sockets: a server that echoes, and a client that says hello to it, on one thread.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    KepNuvikaUtilInit();

    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&server](int descriptor) {
        auto* socket
            = new NuvikaTcpSocket(NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eMedium, false, &server);
        socket->setSocketDescriptor(descriptor);
        QObject::connect(socket, &NuvikaTcpSocket::dataReceived,
            [socket](const char* data, int size, Marker) { socket->sendData(data, size); });
        QObject::connect(socket, &NuvikaTcpSocket::disconnected, socket, &QObject::deleteLater);
    });
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;

    NuvikaTcpSocket client;
    QObject::connect(&client, &NuvikaTcpSocket::connected, [&client] { client.sendData("hello", 5); });
    QObject::connect(&client, &NuvikaTcpSocket::dataReceived, [](const char* data, int size, Marker) {
        std::printf("%.*s\n", size, data);
        QCoreApplication::quit();
    });
    client.connectToHost(QStringLiteral("localhost"), server.serverPort());
    const int result = QCoreApplication::exec();
    KepNuvikaUtilCleanup();
    return result;
}
