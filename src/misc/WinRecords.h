/// \file
/// The Windows records RECT and SIZE, by layout, for data that was written with them.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/qglobal.h>

class QDebug;

namespace KepNuvikaUtil
{
struct RECT {
    qint32 left;
    qint32 top;
    qint32 right; ///< exclusive
    qint32 bottom; ///< exclusive
};

struct SIZE {
    qint32 cx;
    qint32 cy;
};

inline bool operator==(const RECT& a, const RECT& b)
{
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}
inline bool operator!=(const RECT& a, const RECT& b) { return !(a == b); }
inline bool operator==(const SIZE& a, const SIZE& b) { return a.cx == b.cx && a.cy == b.cy; }
inline bool operator!=(const SIZE& a, const SIZE& b) { return !(a == b); }

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const RECT& rect);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SIZE& size);
} // namespace KepNuvikaUtil
