// Private: owns a buffer pool, and says its farewell instead of deleting it.
#pragma once

#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <memory>

namespace Nuvika
{
struct PoolRelease {
    void operator()(SharedBufferPool* pool) const { pool->release(); }
};
using PoolOwner = std::unique_ptr<SharedBufferPool, PoolRelease>;
} // namespace Nuvika
