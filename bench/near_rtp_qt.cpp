// QUdpSocket in the RTP row.
#include "Datagrams.h"
#include "RtpStreams.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QUdpSocket>

#include <memory>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    std::vector<std::unique_ptr<QUdpSocket>> sockets;
    std::vector<RtpStream> streams(static_cast<std::size_t>(a.connections));
    std::vector<unsigned short> ports;
    for (RtpStream& stream : streams) {
        sockets.push_back(std::make_unique<QUdpSocket>());
        QUdpSocket* socket = sockets.back().get();
        if (!socket->bind(QHostAddress(QHostAddress::LocalHost), 0))
            return 1;
        socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, kDatagramBuffer);
        ports.push_back(socket->localPort());
        QObject::connect(socket, &QUdpSocket::readyRead, [socket, &stream] {
            static char buffer[1500];
            while (socket->hasPendingDatagrams()) {
                QHostAddress from;
                quint16 port = 0;
                const qint64 n = socket->readDatagram(buffer, sizeof buffer, &from, &port);
                if (n > 0)
                    stream.took(buffer, static_cast<std::size_t>(n));
            }
        });
    }
    ready(printedPorts(ports));
    return QCoreApplication::exec();
}
