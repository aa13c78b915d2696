// HTTP server: a stream of live "pictures" whose slow viewers skip some, and a viewer that takes three.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    KepNuvikaUtilInit();

    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&server](int descriptor) {
        auto* viewer = new HttpResponseClient(descriptor, false, &server);
        QObject::connect(viewer, &HttpResponseClient::disconnected, viewer, &QObject::deleteLater);
        QObject::connect(viewer, &HttpResponseClient::requestReceived, [viewer] {
            HttpResponseHeader header(200, QStringLiteral("OK"));
            header.addValue(
                QStringLiteral("Content-Type"), QStringLiteral("multipart/x-mixed-replace; boundary=frame"));
            viewer->response(header, true, nullptr);
            auto* clock = new QTimer(viewer);
            QObject::connect(clock, &QTimer::timeout, [viewer] {
                const QByteArray picture
                    = "--frame\r\nContent-Type: text/plain\r\nContent-Length: 7\r\n\r\npicture\r\n";
                if (viewer->canSendContent()) // a slow viewer skips this one
                    viewer->sendContent(picture.constData(), picture.size());
            });
            clock->start(10);
        });
    });
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;

    int pictures = 0;
    HttpClient viewer(QStringLiteral("localhost"), server.serverPort(), true);
    QObject::connect(&viewer, &HttpClient::multipartReplaceContent,
        [&pictures](int, const HttpResponseHeader&, const char* type, const char* data, int size) {
            std::printf("%s: %.*s\n", type, size, data);
            if (++pictures == 3)
                QCoreApplication::quit();
        });
    viewer.get(QStringLiteral("/"), QString(), QString(), true);
    const int result = QCoreApplication::exec();
    KepNuvikaUtilCleanup();
    return result;
}
