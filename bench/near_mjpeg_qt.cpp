// Qt in the MJPEG rows, with the limit row's parser: QTcpSocket where the cameras are many, because
// QNetworkAccessManager keeps six connections to a server; with VARIANT "manager" that one.
#include "Pictures.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QTcpSocket>

using namespace bench;

namespace
{
void read(QIODevice& device, PartReader& reader)
{
    static char buffer[1 << 16];
    for (qint64 n; (n = device.read(buffer, sizeof buffer)) > 0;)
        reader.feed(buffer, static_cast<std::size_t>(n));
}

int watchByManager(const Arguments& a)
{
    QNetworkAccessManager manager;
    PartReader reader(a);
    const QUrl url(QStringLiteral("http://%1:%2/pictures").arg(QString::fromLatin1(farHost())).arg(a.port));
    QNetworkReply* reply = manager.get(QNetworkRequest(url));
    // It keeps the head of the answer for itself.
    QObject::connect(reply, &QNetworkReply::readyRead, [&reader, reply] { read(*reply, reader); });
    QObject::connect(reply, &QNetworkReply::finished, [] { std::exit(1); });
    return QCoreApplication::exec();
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    if (a.variant == "manager")
        return watchByManager(a);
    std::vector<std::unique_ptr<QTcpSocket>> sockets;
    std::vector<std::unique_ptr<PartReader>> readers;
    for (int i = 0; i < a.connections; ++i) {
        sockets.push_back(std::make_unique<QTcpSocket>());
        readers.push_back(std::make_unique<PartReader>(a));
        QTcpSocket* socket = sockets.back().get();
        PartReader* reader = readers.back().get();
        QObject::connect(socket, &QTcpSocket::connected,
            [socket] { socket->write(kPicturesRequest, sizeof kPicturesRequest - 1); });
        QObject::connect(socket, &QTcpSocket::readyRead, [socket, reader] { read(*socket, *reader); });
        QObject::connect(socket, &QTcpSocket::disconnected, [] { std::exit(1); });
        socket->connectToHost(QString::fromLatin1(farHost()), a.port);
    }
    return QCoreApplication::exec();
}
