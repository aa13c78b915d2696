#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NUVIKA_RECT.h>
#include <KepNuvikaUtil/WinRecords.h>

#include <QtCore/QHashFunctions>
#include <QtCore/QPair>
#include <QtCore/QSize>

class QDebug;

/// A size in whole pixels. Only a field of exactly 0 makes it empty; negative sizes are not.
struct KEPNUVIKAUTIL_EXPORT NUVIKA_SIZE {
    qint32 cx = 0; ///< width
    qint32 cy = 0; ///< height

    NUVIKA_SIZE() = default;
    NUVIKA_SIZE(int cx_, int cy_) : cx(cx_), cy(cy_) { }

    bool isEmpty() const { return cx == 0 || cy == 0; }
    bool operator==(const NUVIKA_SIZE& other) const { return cx == other.cx && cy == other.cy; }
    bool operator!=(const NUVIKA_SIZE& other) const { return !(*this == other); }

    static NUVIKA_SIZE fromQRect(const QRect& rect);
    static NUVIKA_SIZE fromRect(const NUVIKA_RECT& rect);
    static NUVIKA_SIZE fromWinRect(const KepNuvikaUtil::RECT& rect);
    static NUVIKA_SIZE fromWinSize(const KepNuvikaUtil::SIZE& size) { return {size.cx, size.cy}; }
    /// Takes the width for both fields; the height is ignored. Not the reverse of toQSize().
    static NUVIKA_SIZE fromQSize(const QSize& size) { return {size.width(), size.width()}; }
    QSize toQSize() const { return {cx, cy}; }
    KepNuvikaUtil::SIZE toWinSize() const { return {cx, cy}; }
};

inline uint qHash(const NUVIKA_SIZE& size, uint seed = 0) { return qHash(qMakePair(size.cx, size.cy), seed); }

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const NUVIKA_SIZE& size);
