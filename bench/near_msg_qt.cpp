// QDataStream over QTcpSocket, with its transactions.
#include "Messages.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QTcpSocket socket;
    QDataStream stream(&socket);
    long long left = a.amount;
    const QByteArray message(kMessageSize, 'm');
    if (a.mode == "msgsend") {
        const auto send = [&] {
            while (left > 0 && socket.bytesToWrite() < (3 << 20)) {
                stream << quint32(0x46445443) << message;
                --left;
            }
        };
        QObject::connect(&socket, &QTcpSocket::connected, [&] {
            watch.start();
            send();
        });
        QObject::connect(&socket, &QTcpSocket::bytesWritten, send);
        QObject::connect(&socket, &QTcpSocket::readyRead, [] { QCoreApplication::quit(); });
    } else {
        QObject::connect(&socket, &QTcpSocket::connected, [] { watch.start(); });
        QObject::connect(&socket, &QTcpSocket::readyRead, [&] {
            for (;;) {
                quint32 magic = 0;
                QByteArray bytes;
                stream.startTransaction();
                stream >> magic >> bytes;
                if (!stream.commitTransaction())
                    return;
                if (--left == 0)
                    QCoreApplication::quit();
            }
        });
    }
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), a.port);
    QCoreApplication::exec();
    watch.report();
    std::_Exit(0);
}
