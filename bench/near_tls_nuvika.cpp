// The library's side of the TLS rows.
#include "Tls.h"
#include "TunedBuffers.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <functional>

using namespace bench;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    NuvikaSslSocket socket;
    leaveBuffersToTheKernel(socket);
    socket.setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    const auto connectNow = [&] {
        socket.initSsl(false, NuvikaSslSocket::eSslAny12, QString(), QString(), QString());
        socket.connectToHost(QHostAddress(QString::fromLatin1(farHost())), a.port);
    };
    const QByteArray block(kBlock, 'x');
    long long left = a.amount;
    QObject::connect(&socket, &NuvikaSslSocket::error, [&] {
        std::fprintf(stderr, "%s\n", qUtf8Printable(socket.errorString()));
        std::exit(1);
    });
    const auto send = [&] {
        for (; left > 0 && socket.canSend(); left -= kBlock)
            socket.sendData(block.constData(), kBlock);
    };
    QObject::connect(&socket, &NuvikaSslSocket::connected, [&] {
        if (a.mode != "tlshello")
            watch.start();
        if (a.mode == "tlssend")
            send();
    });
    if (a.mode == "tlssend")
        QObject::connect(&socket, &NuvikaSslSocket::sigCanSend, send);
    QObject::connect(&socket, &NuvikaSslSocket::dataReceived, [&](const char*, int size, Marker) {
        left -= a.mode == "tlshello" ? 1 : size;
        if (a.mode == "tlssend" || left <= 0) {
            QCoreApplication::quit();
        } else if (a.mode == "tlshello") {
            socket.close();
            connectNow();
        }
    });
    if (a.mode == "tlshello")
        watch.start();
    connectNow();
    QCoreApplication::exec();
    watch.report();
    std::_Exit(0);
}
