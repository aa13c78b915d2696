// A download into a file and the upload of that file, with their progress: http_transfer HOST PORT PATH FILE.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 5)
        return 2;
    KepNuvikaUtilInit();

    QFile file(arguments.at(4));
    file.open(QIODevice::ReadWrite | QIODevice::Truncate);
    HttpClient client(arguments.at(1), arguments.at(2).toUShort(), true);
    const auto show = [](int, qint64 done, qint64 total) { std::printf("%lld of %lld\n", done, total); };
    QObject::connect(&client, &HttpClient::downloadProgress, show);
    QObject::connect(&client, &HttpClient::uploadProgress, show);
    QObject::connect(&client, &HttpClient::streamFinished, [&] {
        file.seek(0);
        HttpRequestHeader header(QStringLiteral("PUT"), arguments.at(3));
        header.addValue(QStringLiteral("Host"), arguments.at(1));
        header.addValue(QStringLiteral("Expect"), QStringLiteral("100-continue"));
        client.upload(header, &file);
    });
    // The answer to the upload, or one to the download that is no success.
    QObject::connect(&client, &HttpClient::requestFinished, [](int, const HttpResponseHeader& header) {
        QCoreApplication::exit(header.statusCode() / 100 == 2 ? 0 : 1);
    });
    QObject::connect(&client, &HttpClient::requestFailed, [&client] {
        std::fprintf(stderr, "%s\n", qUtf8Printable(client.errorString()));
        QCoreApplication::exit(1);
    });
    client.download(arguments.at(3), &file, QString(), QString(), true);
    const int result = QCoreApplication::exec();
    client.shutdown();
    KepNuvikaUtilCleanup();
    return result;
}
