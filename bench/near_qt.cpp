// Qt's own network classes.
#include "Common.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkReply>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <algorithm>

using namespace bench;

namespace
{
void finish() { QCoreApplication::quit(); }

void stream(const Arguments& a)
{
    static const QByteArray block(1 << 16, 'x');
    static long long left = a.amount;
    static char buffer[1 << 16];
    QTcpSocket socket;
    QObject::connect(&socket, &QTcpSocket::connected, [] { watch.start(); });
    const auto sendMore = [&socket] {
        while (left > 0 && socket.bytesToWrite() < (3 << 20)) {
            socket.write(block.constData(), std::min<long long>(left, block.size()));
            left -= block.size();
        }
    };
    if (a.mode == "recv") {
        QObject::connect(&socket, &QTcpSocket::readyRead, [&socket] {
            while (socket.read(buffer, sizeof buffer) > 0) { }
        });
        QObject::connect(&socket, &QTcpSocket::disconnected, finish);
    } else if (a.mode == "send") {
        QObject::connect(&socket, &QTcpSocket::connected, sendMore);
        QObject::connect(&socket, &QTcpSocket::bytesWritten, sendMore);
        QObject::connect(&socket, &QTcpSocket::readyRead, finish);
    } else {
        socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        QObject::connect(
            &socket, &QTcpSocket::connected, [&socket] { socket.write(block.constData(), kPingSize); });
        QObject::connect(&socket, &QTcpSocket::readyRead, [&socket] {
            if (socket.bytesAvailable() < kPingSize)
                return;
            socket.read(buffer, sizeof buffer);
            --left > 0 ? void(socket.write(block.constData(), kPingSize)) : finish();
        });
    }
    socket.connectToHost(QString::fromLatin1(farHost()), a.port);
    QCoreApplication::exec();
}

void serve(const Arguments& a)
{
    static long long left = a.amount;
    static bool bStarted = false;
    QTcpServer server;
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (QTcpSocket* socket = server.nextPendingConnection()) {
            if (!bStarted)
                watch.start();
            bStarted = true;
            if (a.mode != "echo") { // a descriptor comes with a socket on it
                delete socket;
                if (--left == 0)
                    finish();
                continue;
            }
            QObject::connect(socket, &QTcpSocket::readyRead, [socket] {
                socket->write(socket->readAll());
                if (--left == 0)
                    finish();
            });
            QObject::connect(socket, &QTcpSocket::disconnected, finish);
        }
    });
    server.setMaxPendingConnections(10000);
    if (!server.listen(QHostAddress::LocalHost, a.port))
        std::exit(1);
    ready();
    QCoreApplication::exec();
    watch.report();
    std::_Exit(0);
}

void connects(const Arguments& a)
{
    static long long left = a.amount;
    QTcpSocket socket;
    const auto next = [&] { socket.connectToHost(QString::fromLatin1(farHost()), a.port); };
    QObject::connect(&socket, &QTcpSocket::disconnected, [&] { --left > 0 ? next() : finish(); });
    watch.start();
    next();
    QCoreApplication::exec();
}

void httpGet(const Arguments& a)
{
    static long long left = a.amount;
    QNetworkAccessManager manager;
    const QNetworkRequest request(QUrl(QStringLiteral("http://%1:%2/%3")
                                           .arg(QString::fromLatin1(farHost()))
                                           .arg(a.port)
                                           .arg(QString::fromStdString(a.variant))));
    const auto next = [&] { manager.get(request); };
    QObject::connect(&manager, &QNetworkAccessManager::finished, [&](QNetworkReply* reply) {
        if (reply->readAll().isEmpty())
            std::exit(1);
        reply->deleteLater();
        --left > 0 ? next() : finish();
    });
    watch.start();
    next();
    QCoreApplication::exec();
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    if (a.mode == "http")
        httpGet(a);
    else if (a.mode == "echo" || a.mode == "accept" || a.mode == "acceptsocket")
        serve(a);
    else if (a.mode == "connect")
        connects(a);
    else
        stream(a);
    watch.report();
    return 0;
}
