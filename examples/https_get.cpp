// HTTPS client: one GET, and who answered: https_get HOST PORT PATH [TRUSTED.pem].
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 4)
        return 2;
    KepNuvikaUtilInit();

    HttpsClient client(arguments.at(1), arguments.at(2).toUShort(), true, NuvikaSslSocket::eSslAny12,
        QString(), arguments.value(4), QString());
    QObject::connect(&client, &HttpsClient::requestFinished,
        [&client](int, const HttpResponseHeader& header, const char* content, int size) {
            const NuvikaSslSocket::PeerCertificate peer = client.peerCertificate();
            std::printf("%s, valid until %s\n%d, %d bytes\n%.*s", qUtf8Printable(peer.subject),
                qUtf8Printable(peer.validUntil.toString(Qt::ISODate)), header.statusCode(), size, size,
                size > 0 ? content : "");
            QCoreApplication::exit(header.statusCode() == 200 ? 0 : 1);
        });
    QObject::connect(&client, &HttpsClient::requestFailed, [&client] {
        std::fprintf(stderr, "%s\n", qUtf8Printable(client.errorString()));
        QCoreApplication::exit(1);
    });
    client.get(arguments.at(3), QString(), QString(), false);
    const int result = QCoreApplication::exec();
    client.shutdown();
    KepNuvikaUtilCleanup();
    return result;
}
