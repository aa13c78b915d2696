// HTTP client: one GET, of the URL's parts given, or of a server in the same program.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    KepNuvikaUtilInit();

    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&server](int descriptor) {
        auto* connection = new HttpResponseClient(descriptor, false, &server);
        QObject::connect(connection, &HttpResponseClient::requestReceived, [connection] {
            connection->response(HttpResponseHeader(200, QStringLiteral("OK")), false, nullptr);
        });
    });
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;

    const QStringList arguments = QCoreApplication::arguments(); // [host port path [user password]]
    const bool bGiven = arguments.size() > 3;
    HttpClient client(bGiven ? arguments.at(1) : QStringLiteral("localhost"),
        bGiven ? arguments.at(2).toUShort() : server.serverPort(), true);
    QObject::connect(&client, &HttpClient::requestFinished,
        [](int, const HttpResponseHeader& header, const char* content, int size) {
            std::printf("%d, %d bytes\n%.*s", header.statusCode(), size, size, size > 0 ? content : "");
            QCoreApplication::exit(header.statusCode() == 200 ? 0 : 1);
        });
    QObject::connect(&client, &HttpClient::requestFailed, [] { QCoreApplication::exit(1); });
    client.get(bGiven ? arguments.at(3) : QStringLiteral("/"), arguments.value(4), arguments.value(5), false);
    const int result = QCoreApplication::exec();
    KepNuvikaUtilCleanup();
    return result;
}
