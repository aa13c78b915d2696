// H.264, 7.3.2.1.1 and E.1.1.
#include "media/VideoSequence_p.h"

#include <algorithm>
#include <iterator>

using Nuvika::BitReader;
using Nuvika::VideoSequence;

namespace
{
bool hasChroma(quint32 profile)
{
    static constexpr quint32 kProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::find(std::begin(kProfiles), std::end(kProfiles), profile) != std::end(kProfiles);
}

int signedOf(quint32 code)
{
    return (code & 1U) != 0 ? static_cast<int>(code / 2) + 1 : -static_cast<int>(code / 2);
}

void skipScalingList(BitReader* bits, int size)
{
    int last = 8;
    int next = 8;
    for (int i = 0; i < size && next != 0 && bits->isGood(); ++i) {
        next = (last + signedOf(bits->ue() & 0xFFFFU) + 256) & 0xFF;
        last = next == 0 ? last : next;
    }
}

void readChroma(BitReader* bits, VideoSequence* sequence, bool* bSeparate)
{
    sequence->chromaFormat = bits->ue() & 3U;
    if (sequence->chromaFormat == 3)
        *bSeparate = bits->flag();
    sequence->lumaBits = 8 + (bits->ue() & 7U);
    sequence->chromaBits = 8 + (bits->ue() & 7U);
    bits->flag();
    if (!bits->flag())
        return;
    const int lists = sequence->chromaFormat == 3 ? 12 : 8;
    for (int i = 0; i < lists && bits->isGood(); ++i) {
        if (bits->flag())
            skipScalingList(bits, i < 6 ? 16 : 64);
    }
}

void skipPictureOrder(BitReader* bits)
{
    const quint32 type = bits->ue();
    if (type == 0) {
        bits->skipUe(1);
    } else if (type == 1) {
        bits->skip(1);
        bits->skipUe(2);
        bits->skipUe(std::min(bits->ue(), 255U));
    }
}

void readSize(BitReader* bits, VideoSequence* sequence, bool bSeparate)
{
    constexpr quint32 kMostBlocks = 4095;
    const quint32 width = std::min(bits->ue(), kMostBlocks) + 1;
    const quint32 height = std::min(bits->ue(), kMostBlocks) + 1;
    const bool bFrames = bits->flag();
    const quint32 fields = bFrames ? 1 : 2;
    if (!bFrames)
        bits->skip(1);
    bits->skip(1);
    if (!bits->isGood())
        return;
    const QSize coded(static_cast<int>(width * 16), static_cast<int>(height * 16 * fields));
    quint64 horizontal = 0;
    quint64 vertical = 0;
    if (bits->flag()) {
        const quint32 chroma = bSeparate ? 0 : sequence->chromaFormat;
        const quint64 unitX = chroma == 1 || chroma == 2 ? 2 : 1;
        const quint64 unitY = (chroma == 1 ? 2U : 1U) * fields;
        horizontal = unitX * (quint64(bits->ue()) + bits->ue());
        vertical = unitY * (quint64(bits->ue()) + bits->ue());
    }
    Nuvika::setPictureSize(sequence, coded, horizontal, vertical);
}
} // namespace

VideoSequence Nuvika::readH264Sequence(const QByteArray& unit)
{
    VideoSequence sequence;
    BitReader bits(reinterpret_cast<const unsigned char*>(unit.constData()),
        static_cast<std::size_t>(unit.size()), true);
    bits.skip(8);
    sequence.profile = bits.bits(8);
    sequence.compatibility = bits.bits(8);
    sequence.level = bits.bits(8);
    sequence.id = bits.ue();
    bool bSeparate = false;
    if (hasChroma(sequence.profile))
        readChroma(&bits, &sequence, &bSeparate);
    bits.skipUe(1);
    skipPictureOrder(&bits);
    bits.skipUe(1);
    bits.skip(1);
    readSize(&bits, &sequence, bSeparate);
    if (bits.flag() && bits.flag()) // VUI, aspect ratio
        readPixelAspect(&bits, &sequence);
    return sequence;
}
