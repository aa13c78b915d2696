// What a camera's bytes are, whatever it calls them.
#pragma once

class QByteArray;

struct PictureKind {
    const char* type; // of the content: "image/jpeg"
    const char* ending; // of a file
};

// Null for what is no picture, or none that browsers show.
const PictureKind* pictureKindOf(const QByteArray& bytes);
