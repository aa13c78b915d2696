/// \file
/// Aligned allocation. Blocks from these calls are released by NuvikaFree() only, and NuvikaFree() takes
/// nothing else. All three may be called from any thread.
#pragma once

#include <KepNuvikaUtil/Export.h>

/// A block of \a size + 16 bytes on a 16-byte boundary: every block carries 16 spare bytes behind the size
/// asked for. Null when memory is exhausted.
KEPNUVIKAUTIL_EXPORT void* NuvikaMalloc(unsigned int size);

/// A block of exactly \a size bytes on a 16-byte boundary. Null when memory is exhausted.
KEPNUVIKAUTIL_EXPORT void* NuvikaMallocNoExtending(unsigned int size);

/// Releases a block of either allocation call; a null pointer is ignored.
KEPNUVIKAUTIL_EXPORT void NuvikaFree(void* p);
