// HTTPS client: one GET, in time or not at all, and who answered: https_get HOST PORT PATH [TRUSTED.pem
// [PIN]].
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
    if (arguments.size() > 5) // of a camera that signs its certificate itself
        client.setPins({TlsPin::fromText(arguments.at(5))});
    HttpTimeLimits limits;
    limits.nConnect = 10000;
    limits.nSilence = 30000;
    client.setTimeLimits(limits);
    client.setRetryPolicy({HttpRetryPolicy::eIdempotent, 0}); // not where it cannot help
    QObject::connect(&client, &HttpsClient::requestFinished,
        [&client](int, const HttpResponseHeader& header, const char* content, int size) {
            const NuvikaSslSocket::PeerCertificate peer = client.peerCertificate();
            std::printf("%s, valid until %s\n%d, %d bytes\n%.*s", qUtf8Printable(peer.subject),
                qUtf8Printable(peer.validUntil.toString(Qt::ISODate)), header.statusCode(), size, size,
                size > 0 ? content : "");
            QCoreApplication::exit(header.statusCode() == 200 ? 0 : 1);
        });
    QObject::connect(&client, &HttpsClient::requestFailed, [&client](int id) {
        const HttpFailure failure = client.failureOf(id);
        std::fprintf(stderr, "%s\n", qUtf8Printable(failure.text));
        QCoreApplication::exit(failure.reason == HttpFailure::eTimeLimit ? 28 : 1);
    });
    client.get(arguments.at(3), QString(), QString(), false);
    const int result = QCoreApplication::exec();
    client.shutdown();
    KepNuvikaUtilCleanup();
    return result;
}
