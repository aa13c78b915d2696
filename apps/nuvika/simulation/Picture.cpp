#include "Picture.h"

#include <QtCore/QHash>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <jpeglib.h>

namespace
{
constexpr int kScenes = 16; // cameras beyond this number share their pictures
constexpr int kQuality = 75;
constexpr double kPi = 3.14159265358979;

struct Colour {
    double r, g, b;
};

class Canvas
{
public:
    Canvas() : m_rgb(static_cast<std::size_t>(Picture::kWidth) * Picture::kHeight * 3) { }
    void set(int x, int y, Colour c)
    {
        if (x < 0 || y < 0 || x >= Picture::kWidth || y >= Picture::kHeight)
            return;
        unsigned char* p
            = &m_rgb[(static_cast<std::size_t>(y) * Picture::kWidth + static_cast<std::size_t>(x)) * 3];
        p[0] = static_cast<unsigned char>(c.r * 255);
        p[1] = static_cast<unsigned char>(c.g * 255);
        p[2] = static_cast<unsigned char>(c.b * 255);
    }
    void box(int x, int y, int w, int h, Colour c)
    {
        for (int j = y; j < y + h; ++j) {
            for (int i = x; i < x + w; ++i)
                set(i, j, c);
        }
    }
    void disc(int cx, int cy, int radius, Colour c)
    {
        for (int y = -radius; y <= radius; ++y) {
            for (int x = -radius; x <= radius; ++x) {
                if (x * x + y * y <= radius * radius)
                    set(cx + x, cy + y, c);
            }
        }
    }
    // Seven segments are enough for numbers.
    void digit(int x, int y, int size, int value, Colour c)
    {
        static constexpr std::array<unsigned char, 10> kSegments{
            0x77, 0x24, 0x5D, 0x6D, 0x2E, 0x6B, 0x7B, 0x25, 0x7F, 0x6F};
        const int thick = size / 4;
        const unsigned char s = kSegments[static_cast<std::size_t>(value)];
        if (s & 0x01)
            box(x, y, size, thick, c);
        if (s & 0x02)
            box(x, y, thick, size, c);
        if (s & 0x04)
            box(x + size - thick, y, thick, size, c);
        if (s & 0x08)
            box(x, y + size - thick / 2, size, thick, c);
        if (s & 0x10)
            box(x, y + size, thick, size, c);
        if (s & 0x20)
            box(x + size - thick, y + size, thick, size, c);
        if (s & 0x40)
            box(x, y + 2 * size - thick, size, thick, c);
    }
    void number(int x, int y, int size, int value, Colour c)
    {
        digit(x, y, size, value / 10 % 10, c);
        digit(x + size + size / 2, y, size, value % 10, c);
    }
    QByteArray jpeg()
    {
        jpeg_compress_struct encoder{};
        jpeg_error_mgr errors{};
        encoder.err = jpeg_std_error(&errors);
        jpeg_create_compress(&encoder);
        unsigned char* out = nullptr;
        unsigned long size = 0;
        jpeg_mem_dest(&encoder, &out, &size);
        encoder.image_width = Picture::kWidth;
        encoder.image_height = Picture::kHeight;
        encoder.input_components = 3;
        encoder.in_color_space = JCS_RGB;
        jpeg_set_defaults(&encoder);
        jpeg_set_quality(&encoder, kQuality, TRUE);
        jpeg_start_compress(&encoder, TRUE);
        while (encoder.next_scanline < encoder.image_height) {
            JSAMPROW row = &m_rgb[static_cast<std::size_t>(encoder.next_scanline) * Picture::kWidth * 3];
            jpeg_write_scanlines(&encoder, &row, 1);
        }
        jpeg_finish_compress(&encoder);
        jpeg_destroy_compress(&encoder);
        const QByteArray bytes(reinterpret_cast<const char*>(out), static_cast<int>(size));
        std::free(out);
        return bytes;
    }

private:
    std::vector<unsigned char> m_rgb;
};

Colour hue(double h, double value)
{
    const auto part = [&](double offset) { return value * (0.6 + 0.4 * std::cos(2 * kPi * (h + offset))); };
    return {part(0), part(1 / 3.0), part(2 / 3.0)};
}

QByteArray draw(int scene, int index)
{
    Canvas canvas;
    const double base = scene / static_cast<double>(kScenes);
    const double phase = 2 * kPi * index / Picture::kLoop;
    for (int y = 0; y < Picture::kHeight; ++y) {
        const Colour sky = hue(base, 0.25 + 0.35 * y / Picture::kHeight);
        for (int x = 0; x < Picture::kWidth; ++x)
            canvas.set(x, y, sky);
    }
    for (int i = 0; i < 5; ++i) { // a street with cars
        const int x
            = (index * Picture::kWidth / Picture::kLoop * (i % 2 + 1) + i * 71) % (Picture::kWidth + 60) - 60;
        canvas.box(x, 150 + i * 17, 44, 11, hue(base + 0.1 * i + 0.3, 0.9));
    }
    const int sunX = static_cast<int>(Picture::kWidth / 2.0 + 110 * std::cos(phase + scene));
    const int sunY = static_cast<int>(80 + 45 * std::sin(phase + scene));
    canvas.disc(sunX, sunY, 22, {1, 0.93, 0.6});
    canvas.number(14, 14, 16, scene + 1, {1, 1, 1});
    canvas.number(Picture::kWidth - 54, 14, 12, index, {0.8, 0.9, 1});
    return canvas.jpeg();
}
} // namespace

const QByteArray& Picture::frame(int camera, int index)
{
    static QHash<int, QByteArray> drawn;
    const int scene = camera % kScenes;
    const int key = scene * kLoop + index % kLoop;
    auto found = drawn.find(key);
    if (found == drawn.end())
        found = drawn.insert(key, draw(scene, index % kLoop));
    return *found;
}
