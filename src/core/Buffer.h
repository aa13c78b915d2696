/// \file
/// The gathering record in which callers hand several ranges of bytes to one send or put call.
#pragma once

#include <QtCore/qglobal.h>

namespace KepNuvikaUtil
{
/// One range of bytes; the caller keeps the bytes alive for the duration of the call that takes the record.
struct BUFFER {
    const char* pData; ///< start of the range
    qint32 nLen; ///< bytes in the range; a range whose length is not above 0 contributes nothing
};
} // namespace KepNuvikaUtil
