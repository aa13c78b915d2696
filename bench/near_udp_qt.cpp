// QUdpSocket.
#include "Datagrams.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QUdpSocket>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QUdpSocket socket;
    if (a.mode != "udprecv") {
        socket.bind(QHostAddress(QHostAddress::LocalHost), 0);
        const QHostAddress to(QHostAddress::LocalHost);
        timedSends(a, 1, [&](const Packets& packets) {
            socket.writeDatagram(packets.bytes[0].data(), static_cast<qint64>(kDatagramSize), to, a.port);
        });
    }
    long long left = a.amount;
    socket.bind(QHostAddress(QHostAddress::LocalHost), a.port);
    socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, kDatagramBuffer);
    QObject::connect(&socket, &QUdpSocket::readyRead, [&] {
        static char buffer[1500];
        while (socket.hasPendingDatagrams()) {
            QHostAddress from;
            quint16 port = 0;
            socket.readDatagram(buffer, sizeof buffer, &from, &port);
            if (left == a.amount)
                watch.start();
            if (--left == 0)
                QCoreApplication::quit();
        }
    });
    ready();
    QCoreApplication::exec();
    watch.report();
    std::_Exit(0);
}
