// A small HTTPS server on our server side, for clients of other makers: tls_server CERTIFICATE [TRUSTED].
// Prints its port, then what becomes of each connection.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

namespace
{
class Connection : public NuvikaSslSocket
{
public:
    Connection(int descriptor, const QStringList& files)
    {
        connect(this, &NuvikaSslSocket::connected, this, [this] { say("connected", protocolName()); });
        connect(this, &NuvikaSslSocket::dataReceived, this,
            [this](const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed) { take(data, size); });
        connect(this, &NuvikaSslSocket::disconnected, this, [this](unsigned long how) {
            say("disconnected", QString::number(how));
            deleteLater();
        });
        connect(this, &NuvikaSslSocket::error, this, [this] {
            say("error", errorString());
            deleteLater();
        });
        initSsl(true, eSslAny12, files.value(1), files.value(2), QString());
        setSocketDescriptor(descriptor);
    }

private:
    static void say(const char* what, const QString& more)
    {
        std::printf("%s %s\n", what, qUtf8Printable(more));
        std::fflush(stdout);
    }
    void take(const char* data, int size)
    {
        m_request.append(data, size);
        if (!m_request.contains("\r\n\r\n"))
            return;
        const QByteArray body(m_request.startsWith("GET /large") ? 20000000 : 5, 'x');
        const QByteArray answer
            = "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
        m_request.clear();
        sendData(answer.constData(), answer.size());
    }

    QByteArray m_request;
};
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, &application,
        [](int descriptor) { new Connection(descriptor, QCoreApplication::arguments()); }); // deletes itself
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;
    std::printf("%hu\n", server.serverPort());
    std::fflush(stdout);
    return QCoreApplication::exec();
}
