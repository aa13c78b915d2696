// Fetches "/" through a proxy: proxy_get SCHEME HOST PORT TRUSTED PROXY-PORT [USER PASSWORD].
// Prints status and content, or why there are none; nothing is tried for more than 20 seconds.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>

#include <cstdio>

namespace
{
void say(const QString& text)
{
    std::printf("%s\n", qUtf8Printable(text));
    QCoreApplication::quit();
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments();
    const QString host = words.value(2);
    const unsigned short port = words.value(3).toUShort();
    std::unique_ptr<HttpClientBase> client;
    if (words.value(1) == QLatin1String("https"))
        client = std::make_unique<HttpsClient>(
            host, port, false, NuvikaSslSocket::eSslAny12, QString(), words.value(4), QString());
    else
        client = std::make_unique<HttpClient>(host, port, false);
    client->setProxy(QStringLiteral("127.0.0.1"), words.value(5).toUShort(), words.value(6), words.value(7));
    QObject::connect(client.get(), &HttpClientBase::requestFinished,
        [](int, const HttpResponseHeader& head, const char* data, int size,
            NuvikaTcpSocket::QueuedConnNotAllowed) {
            say(QStringLiteral("%1 %2").arg(head.statusCode()).arg(QString::fromUtf8(data, size)));
        });
    QObject::connect(client.get(), &HttpClientBase::requestFailed, [&client] { say(client->errorString()); });
    client->get(QStringLiteral("/"), QString(), QString(), false);
    QTimer::singleShot(20000, [] { say(QStringLiteral("nothing")); });
    return QCoreApplication::exec();
}
