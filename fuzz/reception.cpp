// A stream of packets with any numbers, timestamps and delays, and sender reports among them: what is
// delivered is in order and adds up, reports are well-formed, times do not go back.
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtcpCompound.h>
#include <KepNuvikaUtil/RtpReception.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/RtpTimeline.h>

#include <QtCore/QtEndian>

#include <array>
#include <cstdint>
#include <cstdlib>

namespace
{
void check(bool bGood)
{
    if (!bGood)
        std::abort();
}

class Receiver
{
public:
    explicit Receiver(int limit) : m_buffer(limit & 15, (limit >> 4) * 40), m_reception(1, 90000)
    {
        constexpr quint32 kRates[] = {90000, 8000, 1, 0, 0xFFFFFFFF};
        m_timeline.addTrack(kRates[static_cast<unsigned int>(limit) % 5]);
    }

    // Five bytes: two of the number, one of time, one of the timestamp's step, one of what else comes.
    void step(const std::uint8_t* bytes)
    {
        m_nowUs += bytes[2] * bytes[2] * 200LL;
        m_timestamp += static_cast<quint32>(bytes[3]) << (bytes[4] & 31);
        std::array<unsigned char, 13> packet{0x80, 96, bytes[0], bytes[1]};
        qToBigEndian(m_timestamp, packet.data() + 4);
        RtpOrderedPacket given;
        const RTPPacket view(packet.data(), packet.size());
        if (m_buffer.push(view, m_nowUs, &given))
            take(given);
        packet.fill(0xEE); // a copy is a copy
        packet[0] = 0x80;
        packet[1] = 96;
        qToBigEndian<quint16>(qFromBigEndian<quint16>(bytes), packet.data() + 2);
        m_reception.update(view, m_nowUs);
        drain(m_nowUs);
        if ((bytes[4] & 0xE0) == 0)
            report(bytes);
    }
    void finish()
    {
        drain(RtpReorderBuffer::kNever);
        const RtpReorderCounts& c = m_buffer.counts();
        const quint64 known = m_nDelivered + c.nLate + c.nDuplicates + c.nStrays;
        check(c.nReceived == known || c.nReceived == known + 1); // one may be on probation
        check(m_buffer.dueAt() == RtpReorderBuffer::kNever);
    }

private:
    void drain(qint64 nowUs)
    {
        RtpOrderedPacket given;
        while (m_buffer.pop(nowUs, &given))
            take(given);
        check(nowUs == RtpReorderBuffer::kNever || m_buffer.dueAt() > nowUs);
    }
    void take(const RtpOrderedPacket& given)
    {
        check(given.packet.isHeaderValid() && given.sequence > m_last);
        check(given.bNewRun || given.sequence == m_last + 1 + given.nLost);
        m_last = given.sequence;
        ++m_nDelivered;
        const RtpTime time
            = m_timeline.stamp(0, given.packet.getRawTimestamp(), {m_nowUs, m_nowUs + 1800000000000000});
        check(time.presentationUs >= m_shown.presentationUs);
        check(time.bNewRun || time.wallUs >= m_shown.wallUs);
        m_shown = time;
    }
    void report(const std::uint8_t* bytes)
    {
        const NTPTimestamp ntp
            = NTPTimestamp::fromRawHostByteOrder(qFromBigEndian<quint32>(bytes) * 0x100000001U);
        m_reception.senderReport(ntp, m_nowUs);
        m_timeline.senderReport(0, 1, ntp, m_timestamp, {m_nowUs, m_nowUs + 1800000000000000});
        unsigned char out[RtpReception::kMaxReportSize];
        const int size = m_reception.writeReport(out, sizeof out, 2, QByteArray(bytes[0], 'c'), m_nowUs);
        RtcpCompound rtcp(out, static_cast<unsigned int>(size));
        RtcpSdesItem item;
        check(rtcp.next() && rtcp.type() == eRtcpRR && rtcp.next() && rtcp.nextSdesItem(&item));
        check(item.text.size() == bytes[0] && !rtcp.next() && !rtcp.isMalformed());
    }

    RtpReorderBuffer m_buffer;
    RtpReception m_reception;
    RtpTimeline m_timeline;
    RtpTime m_shown;
    qint64 m_nowUs = 0;
    quint32 m_timestamp = 0;
    qint64 m_last = 0;
    quint64 m_nDelivered = 0;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    Receiver receiver(data[0]);
    for (std::size_t at = 1; at + 5 <= size; at += 5)
        receiver.step(data + at);
    receiver.finish();
    return 0;
}
