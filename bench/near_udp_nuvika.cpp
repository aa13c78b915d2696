// The library's side of the datagram rows.
#include "Datagrams.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

using namespace bench;

namespace
{
void receive(const Arguments& a)
{
    static long long left = a.amount;
    NuvikaUdpReceiver receiver;
    unsigned short port = a.port;
    receiver.registerCallback(
        [](const NuvikaUdpReceiver::Datagram*, void* amount) {
            if (left == *static_cast<long long*>(amount))
                watch.start();
            if (--left == 0)
                QCoreApplication::quit();
        },
        const_cast<long long*>(&a.amount));
    if (!receiver.createUnicast(port, QHostAddress(QHostAddress::LocalHost)))
        std::exit(1);
    ready();
    QCoreApplication::exec();
}

void send(const Arguments& a)
{
    NuvikaUdpSender sender;
    NuvikaLLSock::ADDR_V4_V6 to;
    NuvikaLLSock::createSockAddr(&to, QHostAddress(QHostAddress::LocalHost), a.port);
    sender.bind(0, QHostAddress(QHostAddress::LocalHost));
    if (a.mode == "udpbatch") {
        timedSends(a, kBatchSize, [&](const Packets& packets) {
            std::array<KepNuvikaUtil::BUFFER, kBatchSize> datagrams;
            for (std::size_t i = 0; i < kBatchSize; ++i)
                datagrams[i] = {packets.bytes[i].data(), static_cast<qint32>(kDatagramSize)};
            sender.sendMany(datagrams.data(), kBatchSize, to);
        });
    }
    timedSends(a, 1, [&](const Packets& packets) {
        sender.sendTo(packets.bytes[0].data(), static_cast<int>(kDatagramSize), to);
    });
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    if (a.mode == "udprecv")
        receive(a);
    else
        send(a);
    watch.report();
    std::_Exit(0);
}
