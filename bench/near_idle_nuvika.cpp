// The library's side of the idle rows.
#include "Idle.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <memory>
#include <vector>

using namespace bench;

namespace
{
NuvikaTcpSocket::LOAD_PROFILE profileOf(const std::string& variant)
{
    return variant[0] == 'l' ? NuvikaTcpSocket::eLight
        : variant[0] == 'h'  ? NuvikaTcpSocket::eHeavy
                             : NuvikaTcpSocket::eMedium;
}

std::unique_ptr<NuvikaTcpSocket> make(const Arguments& a, NuvikaTcpSocket*)
{
    return std::make_unique<NuvikaTcpSocket>(profileOf(a.variant), profileOf(a.variant));
}

std::unique_ptr<NuvikaSslSocket> make(const Arguments&, NuvikaSslSocket*)
{
    auto socket = std::make_unique<NuvikaSslSocket>();
    socket->setCertificateVerificationMode(NuvikaSslSocket::eVerifyNone);
    socket->initSsl(false, NuvikaSslSocket::eSslAny12, QString(), QString(), QString());
    return socket;
}

template <class Socket>
int hold(const Arguments& a)
{
    std::vector<std::unique_ptr<Socket>> sockets;
    std::unique_ptr<IdleRow> row;
    const auto connectNext = [&] {
        sockets.push_back(make(a, static_cast<Socket*>(nullptr)));
        Socket* socket = sockets.back().get();
        QObject::connect(socket, &Socket::connected, [&row] { row->connected(); });
        QObject::connect(socket, &Socket::dataReceived, [&row] { row->used(); });
        QObject::connect(socket, &Socket::error, [] { std::exit(1); });
        socket->connectToHost(QHostAddress(QString::fromLatin1(farHost())), a.port);
    };
    row = std::make_unique<IdleRow>(a, connectNext,
        [&](int i) { sockets[static_cast<std::size_t>(i)]->sendData(idleMessage.data(), kEchoSize); });
    connectNext();
    return QCoreApplication::exec();
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    return a.mode == "tls" ? hold<NuvikaSslSocket>(a) : hold<NuvikaTcpSocket>(a);
}
