// The library's side of the message rows.
#include "Messages.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

using namespace bench;
using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    BufferSocketFixedFifo socket(false, static_cast<int>(NuvikaTcpSocket::eHeavy));
    long long left = a.amount;
    long long checksum = 0;
    QObject::connect(&socket, &BufferSocketBase::incomingBuffer, [&](const char* data, int, Marker) {
        checksum += data[0];
        if (--left <= 0) // the last of them, or the receiver's word that it has them all
            QCoreApplication::quit();
    });
    const QByteArray message(kMessageSize, 'm');
    const auto send = [&] {
        while (left > 0 && socket.sendBuffer(message.constData(), kMessageSize))
            --left;
    };
    QObject::connect(&socket, &BufferSocketBase::connected, [&] {
        watch.start();
        if (a.mode == "msgsend")
            send();
    });
    if (a.mode == "msgsend")
        QObject::connect(&socket, &BufferSocketFixedFifo::sigCanSend, send);
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), a.port);
    QCoreApplication::exec();
    watch.report();
    std::_Exit(checksum < 0 ? 1 : 0);
}
