#include "platform/Bytes_p.h"

Nuvika::Bytes Nuvika::tryAllocate(std::size_t size) { return Bytes(static_cast<char*>(std::malloc(size))); }
