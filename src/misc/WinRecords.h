/// \file
/// The Windows records RECT and SIZE, by layout, for data that was written with them.
#pragma once

#include <QtCore/qglobal.h>

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
} // namespace KepNuvikaUtil
