// RFC 7798.
#include "media/RtpNalDepacketizer_p.h"
#include "media/RtpPayloads_p.h"

namespace
{
enum PacketType { eLastUnit = 47, eAggregation, eFragment };
constexpr std::size_t kHead = 2;

int typeOf(const unsigned char* data) { return (data[0] >> 1) & 0x3F; }

class H265Depacketizer final : public Nuvika::RtpNalDepacketizer
{
public:
    H265Depacketizer(const RtpPayloadFormat& payload, const RtpUnitFormat& format)
        : RtpNalDepacketizer(Nuvika::h265Codec(), format)
    {
        const Nuvika::FormatParameters fmtp(payload.fmtp);
        for (const char* key : {"sprop-vps", "sprop-sps", "sprop-pps", "sprop-parameter-sets"})
            describe(fmtp.value(key));
        m_bOrder = fmtp.number("sprop-max-don-diff", 0) > 0;
        showDescribed();
    }

private:
    void readPayload(const unsigned char* data, std::size_t size) override
    {
        const int type = typeOf(data);
        const std::size_t order = m_bOrder ? 2 : 0; // decoding order numbers
        if (type == eFragment)
            readFragment(data, size, order);
        else if (size <= kHead + order || type > eFragment)
            unreadable();
        else if (type == eAggregation)
            aggregated(data + kHead + order, size - kHead - order, m_bOrder ? 1 : 0);
        else if (!m_bOrder)
            wholeUnit(data, size);
        else
            fragment(0xC0, data, kHead, data + kHead + order, size - kHead - order);
    }

    void readFragment(const unsigned char* data, std::size_t size, std::size_t order)
    {
        const bool bStart = size > kHead && (data[kHead] & 0x80) != 0;
        const std::size_t begin = kHead + 1 + (bStart ? order : 0);
        if (size < begin)
            return;
        const unsigned char head[kHead]
            = {static_cast<unsigned char>((data[0] & 0x81) | (data[kHead] & 0x3F) << 1), data[1]};
        fragment(data[kHead], head, kHead, data + begin, size - begin);
    }

    bool goesOn(const unsigned char* data, std::size_t size) const override
    {
        const int type = typeOf(data);
        const std::size_t order = m_bOrder ? 2 : 0;
        if (type == eAggregation)
            return false;
        const std::size_t at = (type == eFragment ? kHead + 1 : kHead) + order; // of the slice's flag
        if (type == eFragment && size > kHead && (data[kHead] & 0x80) == 0)
            return true;
        const int inner = type == eFragment && size > kHead ? data[kHead] & 0x3F : type;
        return inner < 32 && size > at && (data[at] & 0x80) == 0;
    }

    bool m_bOrder = false;
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::h265Depacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat& format)
{
    return std::make_unique<H265Depacketizer>(payload, format);
}
