// HTTPS server: answers every GET, and closes what keeps it waiting: https_server CERTIFICATE.pem [PORT].
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QString certificate = QCoreApplication::arguments().value(1);
    KepNuvikaUtilInit();

    SharedBufferPool* pool = new SharedBufferPool;
    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&](int descriptor) {
        auto* connection = new HttpResponseClient(
            descriptor, NuvikaSslSocket::eSslAny12, certificate, QString(), QString(), &server);
        HttpServerTimeLimits limits;
        limits.nIdle = 60000;
        limits.nHead = limits.nBody = limits.nAnswer = 20000;
        connection->setTimeLimits(limits);
        QObject::connect(connection, &HttpResponseClient::requestReceived,
            [connection, pool](const HttpRequestHeader& request) {
                const QByteArray text = "You asked for " + request.path().toUtf8() + ".\n";
                SharedPoolBuffer body = pool->getBuffer();
                body.setData(text.constData(), text.size());
                HttpResponseHeader header(200, QStringLiteral("OK"));
                header.setContentLength(text.size());
                connection->response(header, false, &body);
            });
        QObject::connect(connection, &HttpResponseClient::disconnected, [connection] {
            const HttpFailure failure = connection->failure();
            if (failure.reason != HttpFailure::eNone)
                std::fprintf(stderr, "%s\n", qUtf8Printable(failure.text));
            connection->deleteLater();
        });
    });
    const auto port = QCoreApplication::arguments().value(2).toUShort(); // 0 takes a free one
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), port))
        return 1;
    std::printf("https://localhost:%hu/\n", server.serverPort());
    std::fflush(stdout);
    const int result = QCoreApplication::exec();
    pool->release();
    KepNuvikaUtilCleanup();
    return result;
}
