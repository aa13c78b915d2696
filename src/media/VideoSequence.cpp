#include "media/VideoSequence_p.h"

namespace
{
constexpr int kMostPixels = 65535;

bool canBe(const QSize& size)
{
    return size.width() > 0 && size.height() > 0 && size.width() <= kMostPixels
        && size.height() <= kMostPixels;
}
} // namespace

void Nuvika::setPictureSize(
    VideoSequence* sequence, QSize coded, quint64 horizontalMargin, quint64 verticalMargin)
{
    if (!canBe(coded))
        return;
    sequence->codedSize = coded;
    sequence->shownSize = coded;
    const auto width = static_cast<quint64>(coded.width());
    const auto height = static_cast<quint64>(coded.height());
    if (horizontalMargin < width && verticalMargin < height)
        sequence->shownSize
            = QSize(static_cast<int>(width - horizontalMargin), static_cast<int>(height - verticalMargin));
}

void Nuvika::readPixelAspect(BitReader* bits, VideoSequence* sequence)
{
    static constexpr std::array<std::array<int, 2>, 17> kRatios{
        {{0, 0}, {1, 1}, {12, 11}, {10, 11}, {16, 11}, {40, 33}, {24, 11}, {20, 11}, {32, 11}, {80, 33},
            {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3}, {3, 2}, {2, 1}}};
    constexpr quint32 kExtended = 255;
    const quint32 index = bits->bits(8);
    QSize ratio;
    if (index == kExtended) {
        const auto width = static_cast<int>(bits->bits(16));
        ratio = QSize(width, static_cast<int>(bits->bits(16)));
    } else if (index < kRatios.size()) {
        ratio = QSize(kRatios[index][0], kRatios[index][1]);
    }
    if (bits->isGood() && ratio.width() > 0 && ratio.height() > 0)
        sequence->pixelAspect = ratio;
}
