// The library's side of the RTP rows: a receiver for each stream, the check of each packet, and statistics,
// or with "gaps" no more than its peers do.
#include "RtpStreams.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <memory>

using namespace bench;

namespace
{
void countStatistics(const NuvikaUdpReceiver::Datagram* datagram, void* context)
{
    rtpCount.took(datagram->pData, static_cast<std::size_t>(datagram->nSize));
    const RTPPacket packet(
        reinterpret_cast<const unsigned char*>(datagram->pData), static_cast<unsigned int>(datagram->nSize));
    static_cast<RtpStatistics*>(context)->update(packet);
}

void countGaps(const NuvikaUdpReceiver::Datagram* datagram, void* context)
{
    static_cast<RtpStream*>(context)->took(datagram->pData, static_cast<std::size_t>(datagram->nSize));
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    std::vector<std::unique_ptr<NuvikaUdpReceiver>> receivers;
    std::vector<std::unique_ptr<RtpStatistics>> statistics;
    std::vector<RtpStream> streams(static_cast<std::size_t>(a.connections));
    std::vector<unsigned short> ports;
    for (int i = 0; i < a.connections; ++i) {
        receivers.push_back(std::make_unique<NuvikaUdpReceiver>());
        unsigned short port = 0;
        if (!receivers.back()->createUnicast(port, QHostAddress(QHostAddress::LocalHost)))
            return 1;
        ports.push_back(port);
        if (a.variant == "gaps") {
            receivers.back()->registerCallback(countGaps, &streams[static_cast<std::size_t>(i)]);
            continue;
        }
        statistics.push_back(std::make_unique<RtpStatistics>());
        statistics.back()->start("stream", 1000, false, true);
        receivers.back()->registerCallback(countStatistics, statistics.back().get());
    }
    ready(printedPorts(ports));
    return QCoreApplication::exec();
}
