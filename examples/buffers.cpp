// Core: a pooled buffer, shared and returned, and a queue of bytes that is sent in place.
#include <KepNuvikaUtil/DynamicByteFifo.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include <cstdio>

int main()
{
    auto* pool = new SharedBufferPool; // ends itself: after release(), with its last buffer
    SharedPoolBuffer buffer = pool->getBuffer();
    buffer.setData("a picture", 9);
    const SharedPoolBuffer shared = buffer; // the same bytes
    pool->release();

    DynamicByteFifo fifo(4096, 16);
    fifo.put(static_cast<const unsigned char*>(shared.getBuffer()), 9, false);
    iovec ranges[4];
    int count = 4;
    const unsigned int queued = fifo.peek(ranges, &count, 100);
    std::printf("%u bytes in %d range\n", queued, count);
    fifo.consume(queued);
    return fifo.isEmpty() ? 0 : 1;
}
