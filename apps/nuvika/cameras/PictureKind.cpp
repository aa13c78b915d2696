#include "PictureKind.h"

#include <QtCore/QByteArray>

const PictureKind* pictureKindOf(const QByteArray& bytes)
{
    static constexpr PictureKind kJpeg{"image/jpeg", "jpg"};
    static constexpr PictureKind kPng{"image/png", "png"};
    static constexpr PictureKind kGif{"image/gif", "gif"};
    static constexpr PictureKind kWebp{"image/webp", "webp"};
    if (bytes.startsWith("\xff\xd8\xff"))
        return &kJpeg;
    if (bytes.startsWith("\x89PNG\r\n\x1a\n"))
        return &kPng;
    if (bytes.startsWith("GIF8"))
        return &kGif;
    return bytes.startsWith("RIFF") && bytes.mid(8, 4) == "WEBP" ? &kWebp : nullptr;
}
