// QSslSocket in the TLS rows.
#include "Tls.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslSocket>

#include <functional>
#include <vector>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setSslOption(QSsl::SslOptionDisableSessionPersistence, a.variant != "resumed");
    configuration.setSslOption(QSsl::SslOptionDisableSessionTickets, false);
    configuration.setCaCertificates({});
    const QByteArray block(kBlock, 'x');
    std::vector<char> buffer(kBlock);
    long long left = a.amount;
    QSslSocket* socket = nullptr;
    std::function<void()> connectNow;
    const auto send = [&] {
        for (; left > 0 && socket->bytesToWrite() + socket->encryptedBytesToWrite() < (1 << 20);
             left -= kBlock)
            socket->write(block);
    };
    connectNow = [&] {
        socket = new QSslSocket;
        socket->setSslConfiguration(configuration);
        socket->setPeerVerifyMode(QSslSocket::VerifyNone);
        QObject::connect(socket, &QSslSocket::encrypted, [&] {
            if (a.mode != "tlshello")
                watch.start();
            if (a.mode == "tlssend")
                send();
        });
        if (a.mode == "tlssend")
            QObject::connect(socket, &QSslSocket::encryptedBytesWritten, send);
        QObject::connect(socket, &QSslSocket::readyRead, [&] {
            for (qint64 n; (n = socket->read(buffer.data(), kBlock)) > 0;)
                left -= a.mode == "tlshello" ? 1 : n;
            if (a.mode == "tlssend" || left <= 0) {
                QCoreApplication::quit();
            } else if (a.mode == "tlshello") {
                if (a.variant == "resumed")
                    configuration.setSessionTicket(socket->sslConfiguration().sessionTicket());
                socket->disconnect();
                socket->disconnectFromHost();
                socket->deleteLater();
                connectNow();
            }
        });
        socket->connectToHostEncrypted(QString::fromLatin1(farHost()), a.port);
    };
    if (a.mode == "tlshello")
        watch.start();
    connectNow();
    QCoreApplication::exec();
    watch.report();
    std::_Exit(0);
}
