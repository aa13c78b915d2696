// An outside user: builds against an install, and uses a bit of every room.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    KepNuvikaUtilInit();
    NuvikaTcpServer server;
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [](int descriptor) {
        auto* connection = new HttpResponseClient(descriptor, false, qApp);
        QObject::connect(connection, &HttpResponseClient::requestReceived,
            [connection] { connection->response(HttpResponseHeader(204), false, nullptr); });
    });
    HttpClient client(QStringLiteral("localhost"), server.serverPort(), true);
    int status = 0;
    QObject::connect(&client, &HttpClient::requestFinished, [&status](int, const HttpResponseHeader& header) {
        status = header.statusCode();
        QCoreApplication::quit();
    });
    QObject::connect(&client, &HttpClient::requestFailed, &application, &QCoreApplication::quit);
    client.get(QStringLiteral("/"), QString(), QString(), true);
    QCoreApplication::exec();
    KepNuvikaUtilCleanup();
    return status == 204 && SocketError::format(0) == QLatin1String("Success") ? 0 : 1;
}
