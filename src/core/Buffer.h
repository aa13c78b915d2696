/// \file
/// The gathering record in which callers hand several ranges of bytes to one send or put call.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/qglobal.h>

class QDebug;

namespace KepNuvikaUtil
{
/// One range of bytes; the caller keeps the bytes alive for the duration of the call that takes the record.
struct BUFFER {
    const char* pData; ///< start of the range
    qint32 nLen; ///< bytes in the range; a range whose length is not above 0 contributes nothing
};

/// For logs: the size. Of all values of the library, what they print may change, and no password is in it.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const BUFFER& buffer);
} // namespace KepNuvikaUtil
