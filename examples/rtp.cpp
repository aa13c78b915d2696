// RTP over UDP: a sender with its reports, and a receiver that counts loss and maps the media clock to
// wall-clock time.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>

#include <cstdio>

namespace
{
constexpr unsigned int kClockRate = 90000;
constexpr unsigned int kSource = 0x4E56;

struct Receiver {
    NuvikaUdpReceiver socket;
    RtpStatistics statistics;
    ClockToNtpMapper32 clock{kClockRate};

    static void take(const NuvikaUdpReceiver::Datagram* datagram, void* context)
    {
        auto* self = static_cast<Receiver*>(context);
        const auto* bytes = reinterpret_cast<const unsigned char*>(datagram->pData);
        const RTPPacket packet(bytes, static_cast<unsigned int>(datagram->nSize));
        const RTCPPacket report(bytes, static_cast<unsigned int>(datagram->nSize));
        if (report.isHeaderValid() && report.getType() == eRtcpSR)
            self->clock.setTimeBase(report.getNtpTimestamp(), report.getRtpTimestamp());
        if (!packet.isHeaderValid())
            return;
        self->statistics.update(packet);
        const NTPTimestamp time = self->clock.clockToNtp(packet.getRawTimestamp(), 100);
        std::printf("packet %hu, made at %s\n", packet.getSeqNum(), qUtf8Printable(time.toString(false)));
    }
};
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Receiver receiver;
    unsigned short port = 0;
    receiver.socket.registerCallback(&Receiver::take, &receiver);
    if (!receiver.socket.createUnicast(port, QHostAddress(QHostAddress::LocalHost)))
        return 1;
    QObject::connect(&receiver.statistics, &RtpStatistics::sigStatistics,
        [](const QString&, unsigned int, double, unsigned int received, unsigned int lost) {
            std::printf("%u packets received, %u lost\n", received, lost);
            QCoreApplication::exit(received == 9 && lost == 1 ? 0 : 1);
        });
    receiver.statistics.start("example", 500, false, true);

    NuvikaUdpSender sender;
    NuvikaLLSock::ADDR_V4_V6 to;
    NuvikaLLSock::createSockAddr(&to, QHostAddress(QHostAddress::LocalHost), port);
    VariableBuffer buffer;
    const RTCPPacket report(&buffer, kSource, 0, NTPTimestamp::fromDateTime(QDateTime::currentDateTimeUtc()));
    sender.sendTo(report.getRawPacket(), static_cast<int>(report.getRawPacketSize()), to);
    const unsigned char payload[] = "forty milliseconds of a picture";
    for (unsigned short i = 0; i < 10; ++i) {
        const RTPPacket packet(&buffer, kSource, i, i * kClockRate / 25, eRtp96, payload, sizeof payload, 1);
        if (i != 4) // lost on the way
            sender.sendTo(packet.getRawPacket(), static_cast<int>(packet.getRawPacketSize()), to);
    }
    return QCoreApplication::exec();
}
