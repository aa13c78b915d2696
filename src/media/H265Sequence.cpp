// H.265, 7.3.2.2, 7.3.3, 7.3.4, 7.3.7 and E.2.1.
#include "media/VideoSequence_p.h"

#include <algorithm>

using Nuvika::BitReader;
using Nuvika::VideoSequence;

namespace
{
void readProfile(BitReader* bits, VideoSequence* sequence)
{
    for (unsigned char& byte : sequence->general)
        byte = static_cast<unsigned char>(bits->bits(8));
    sequence->profile = sequence->general[0] & 0x1FU;
    sequence->level = sequence->general[11];
    const quint32 more = sequence->subLayers - 1;
    bool profiles[8] = {};
    bool levels[8] = {};
    for (quint32 i = 0; i < more; ++i) {
        profiles[i] = bits->flag();
        levels[i] = bits->flag();
    }
    if (more > 0)
        bits->skip(2 * (8 - more));
    for (quint32 i = 0; i < more; ++i)
        bits->skip((profiles[i] ? 88U : 0U) + (levels[i] ? 8U : 0U));
}

void readSize(BitReader* bits, VideoSequence* sequence)
{
    constexpr quint32 kMost = 65535;
    sequence->chromaFormat = bits->ue() & 3U;
    const bool bSeparate = sequence->chromaFormat == 3 && bits->flag();
    const quint32 width = std::min(bits->ue(), kMost + 1);
    const quint32 height = std::min(bits->ue(), kMost + 1);
    quint64 horizontal = 0;
    quint64 vertical = 0;
    if (bits->flag()) {
        const quint32 chroma = bSeparate ? 0 : sequence->chromaFormat;
        horizontal = (chroma == 1 || chroma == 2 ? 2U : 1U) * (quint64(bits->ue()) + bits->ue());
        vertical = (chroma == 1 ? 2U : 1U) * (quint64(bits->ue()) + bits->ue());
    }
    if (bits->isGood())
        Nuvika::setPictureSize(
            sequence, QSize(static_cast<int>(width), static_cast<int>(height)), horizontal, vertical);
}

void skipScalingLists(BitReader* bits)
{
    for (unsigned int size = 0; size < 4; ++size) {
        const unsigned int coefficients = std::min(64U, 1U << (4 + 2 * size));
        for (unsigned int matrix = 0; matrix < 6; matrix += size == 3 ? 3 : 1) {
            if (!bits->flag())
                bits->skipUe(1);
            else
                bits->skipUe(coefficients + (size > 1 ? 1 : 0));
        }
    }
}

// Returns how many pictures the set has, which the next one may be told by.
quint32 skipReferenceSet(BitReader* bits, bool bFirst, quint32 before)
{
    if (!bFirst && bits->flag()) {
        bits->skip(1);
        bits->skipUe(1);
        quint32 count = 0;
        for (quint32 i = 0; i <= before && bits->isGood(); ++i)
            count += static_cast<quint32>(bits->flag() || bits->flag());
        return count;
    }
    constexpr quint32 kMost = 16;
    const quint32 negative = std::min(bits->ue(), kMost);
    const quint32 positive = std::min(bits->ue(), kMost);
    for (quint32 i = 0; i < negative + positive && bits->isGood(); ++i) {
        bits->skipUe(1);
        bits->skip(1);
    }
    return negative + positive;
}

void skipReferences(BitReader* bits, quint32 orderBits)
{
    const quint32 sets = std::min(bits->ue(), 64U);
    quint32 before = 0;
    for (quint32 i = 0; i < sets && bits->isGood(); ++i)
        before = skipReferenceSet(bits, i == 0, before);
    if (bits->flag()) {
        const quint32 longTerm = std::min(bits->ue(), 32U);
        bits->skip(longTerm * (orderBits + 1));
    }
}

void skipToUsability(BitReader* bits, const VideoSequence& sequence)
{
    const quint32 orderBits = std::min(bits->ue(), 12U) + 4;
    bits->skipUe(3 * (bits->flag() ? sequence.subLayers : 1));
    bits->skipUe(6);
    if (bits->flag() && bits->flag())
        skipScalingLists(bits);
    bits->skip(2);
    if (bits->flag()) { // PCM
        bits->skip(8);
        bits->skipUe(2);
        bits->skip(1);
    }
    skipReferences(bits, orderBits);
    bits->skip(2);
}
} // namespace

VideoSequence Nuvika::readH265Sequence(const QByteArray& unit)
{
    VideoSequence sequence;
    BitReader bits(reinterpret_cast<const unsigned char*>(unit.constData()),
        static_cast<std::size_t>(unit.size()), true);
    bits.skip(16 + 4);
    sequence.subLayers = bits.bits(3) + 1;
    sequence.bNested = bits.flag();
    readProfile(&bits, &sequence);
    sequence.id = bits.ue();
    readSize(&bits, &sequence);
    sequence.lumaBits = 8 + (bits.ue() & 7U);
    sequence.chromaBits = 8 + (bits.ue() & 7U);
    skipToUsability(&bits, sequence);
    if (bits.flag() && bits.flag()) // VUI, aspect ratio
        readPixelAspect(&bits, &sequence);
    return sequence;
}
