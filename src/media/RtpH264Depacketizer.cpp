// RFC 6184.
#include "media/RtpNalDepacketizer_p.h"
#include "media/RtpPayloads_p.h"

namespace
{
enum PacketType { eLastUnit = 23, eStapA, eStapB, eMtap16, eMtap24, eFuA, eFuB };
constexpr std::size_t kHead = 1;
constexpr std::size_t kOrder = 2; // decoding order numbers of the interleaved mode

class H264Depacketizer final : public Nuvika::RtpNalDepacketizer
{
public:
    H264Depacketizer(const RtpPayloadFormat& payload, const RtpUnitFormat& format)
        : RtpNalDepacketizer(Nuvika::h264Codec(), format)
    {
        const Nuvika::FormatParameters fmtp(payload.fmtp);
        const QByteArray profile = fmtp.fromHex("profile-level-id");
        if (profile.size() == 3)
            m_parameters.codec = "avc1." + profile.toHex();
        describe(fmtp.value("sprop-parameter-sets"));
        showDescribed();
    }

private:
    void readPayload(const unsigned char* data, std::size_t size) override
    {
        const int type = data[0] & 0x1F;
        if (type <= eLastUnit)
            wholeUnit(data, size);
        else if (type == eStapA)
            aggregated(data + kHead, size - kHead, 0);
        else if (type == eStapB && size > kHead + kOrder)
            aggregated(data + kHead + kOrder, size - kHead - kOrder, 0);
        else if (type == eFuA || type == eFuB)
            readFragment(data, size, type == eFuB);
        else
            unreadable();
    }

    void readFragment(const unsigned char* data, std::size_t size, bool bOrder)
    {
        const std::size_t begin = kHead + 1 + (bOrder ? kOrder : 0);
        if (size < begin)
            return;
        const auto head = static_cast<unsigned char>((data[0] & 0xE0) | (data[1] & 0x1F));
        fragment(data[1], &head, kHead, data + begin, size - begin);
    }

    bool goesOn(const unsigned char* data, std::size_t size) const override
    {
        const int type = data[0] & 0x1F;
        if ((type == eFuA || type == eFuB) && size > kHead + 1 && (data[1] & 0x80) == 0)
            return true;
        const Nuvika::NalInfo info = type == eFuA && size > kHead
            ? Nuvika::h264Codec().inspect(data + kHead, size - kHead)
            : Nuvika::h264Codec().inspect(data, size);
        return info.kind == Nuvika::NalKind::Slice && !info.bFirst;
    }
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::h264Depacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format)
{
    return std::make_unique<H264Depacketizer>(payload, format);
}
