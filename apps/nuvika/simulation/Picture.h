// The moving picture of a simulated camera.
#pragma once

#include <QtCore/QByteArray>

namespace Picture
{
constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kLoop = 48; // frames until it repeats

// Frame `index` of camera `camera` as JPEG; drawn once, then kept. For use by one thread.
const QByteArray& frame(int camera, int index);
} // namespace Picture
