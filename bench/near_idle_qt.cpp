// QTcpSocket and QSslSocket in the idle rows.
#include "Idle.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QSslSocket>

#include <memory>
#include <vector>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    std::vector<std::unique_ptr<QTcpSocket>> sockets;
    std::unique_ptr<IdleRow> row;
    const auto connectNext = [&] {
        auto* tls = a.mode == "tls" ? new QSslSocket : nullptr;
        sockets.emplace_back(tls != nullptr ? tls : new QTcpSocket);
        QTcpSocket* socket = sockets.back().get();
        QObject::connect(socket, &QTcpSocket::readyRead, [&row, socket] {
            if (!socket->readAll().isEmpty())
                row->used();
        });
        QObject::connect(socket, &QTcpSocket::disconnected, [] { std::exit(1); });
        if (tls == nullptr) {
            QObject::connect(socket, &QTcpSocket::connected, [&row] { row->connected(); });
            socket->connectToHost(QString::fromLatin1(farHost()), a.port);
        } else {
            tls->setPeerVerifyMode(QSslSocket::VerifyNone);
            QObject::connect(tls, &QSslSocket::encrypted, [&row] { row->connected(); });
            tls->connectToHostEncrypted(QString::fromLatin1(farHost()), a.port);
        }
    };
    row = std::make_unique<IdleRow>(a, connectNext,
        [&](int i) { sockets[static_cast<std::size_t>(i)]->write(idleMessage.data(), kEchoSize); });
    connectNext();
    return QCoreApplication::exec();
}
