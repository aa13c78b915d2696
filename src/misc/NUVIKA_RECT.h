#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/WinRecords.h>

#include <QtCore/QHashFunctions>
#include <QtCore/QPair>
#include <QtCore/QRect>

class QDebug;

/// A rectangle of whole pixels whose right and bottom are exclusive: its width is right - left. Arithmetic is
/// 32-bit and wraps.
struct KEPNUVIKAUTIL_EXPORT NUVIKA_RECT {
    qint32 left = 0;
    qint32 top = 0;
    qint32 right = 0;
    qint32 bottom = 0;

    NUVIKA_RECT() = default;
    NUVIKA_RECT(int left_, int top_, int right_, int bottom_)
        : left(left_), top(top_), right(right_), bottom(bottom_)
    {
    }

    int width() const;
    int height() const;
    bool isEmpty() const { return right <= left || bottom <= top; }
    void moveBy(int dx, int dy);
    /// Keeps the size.
    void moveTopLeftTo(int x, int y);

    bool operator==(const NUVIKA_RECT& other) const;
    bool operator!=(const NUVIKA_RECT& other) const { return !(*this == other); }

    /// A QRect's right and bottom are inclusive.
    static NUVIKA_RECT fromQRect(const QRect& rect);
    QRect toQRect() const;
    static NUVIKA_RECT fromWinRect(const KepNuvikaUtil::RECT& rect);
    KepNuvikaUtil::RECT toWinRect() const;
};

inline uint qHash(const NUVIKA_RECT& rect, uint seed = 0)
{
    return qHash(qMakePair(qMakePair(rect.left, rect.top), qMakePair(rect.right, rect.bottom)), seed);
}

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const NUVIKA_RECT& rect);
