// Private: what a sequence parameter set of H.264 or H.265 says of its pictures. The readers take what they
// need as far as it goes and refuse nothing: what a damaged set does not say stays 0, and the stream is the
// decoder's to judge.
#pragma once

#include "media/BitReader_p.h"

#include <QtCore/QByteArray>
#include <QtCore/QSize>

#include <array>

namespace Nuvika
{
struct VideoSequence {
    quint32 id = 0;
    QSize codedSize;
    QSize shownSize;
    QSize pixelAspect;
    quint32 profile = 0;
    quint32 compatibility = 0; // H.264: the byte of constraint flags
    quint32 level = 0;
    quint32 chromaFormat = 1;
    quint32 lumaBits = 8;
    quint32 chromaBits = 8;
    quint32 subLayers = 0; // 0: not known
    bool bNested = false;
    std::array<unsigned char, 12> general{}; // H.265: profile, tier and level as they stand (7.3.3)
};

// The whole unit, its head included.
VideoSequence readH264Sequence(const QByteArray& unit);
VideoSequence readH265Sequence(const QByteArray& unit);

// Cuts the margins and keeps sizes that can be: 1 to 65,535 pixels.
void setPictureSize(VideoSequence* sequence, QSize coded, quint64 horizontalMargin, quint64 verticalMargin);
// aspect_ratio_idc and what follows (H.264 table E-1, the same in H.265).
void readPixelAspect(BitReader* bits, VideoSequence* sequence);
} // namespace Nuvika
