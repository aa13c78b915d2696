// Private: memory for content that comes in pieces. It grows with what has come, a known length is reserved
// at once up to 1 MiB ahead of that, and bytes may be received right into it. Drained memory of ordinary size
// serves the thread's next content, warm in the cache: a connection holds some only while content is in
// pieces.
#pragma once

#include "net/ReceivePlacer_p.h" // iovec
#include "platform/Bytes_p.h"

#include <cstddef>
#include <utility>

namespace Nuvika
{
class ContentMemory
{
public:
    ContentMemory() = default;
    ~ContentMemory() { clear(); }
    ContentMemory(ContentMemory&& other) noexcept { *this = std::move(other); }
    ContentMemory& operator=(ContentMemory&& other) noexcept;

    bool isEmpty() const { return m_nSize == 0; }
    std::size_t size() const { return m_nSize; }
    const char* data() const { return m_pBytes.get(); }

    // The content will have so many bytes.
    void expect(std::size_t length) { m_nExpected = length; }
    void append(const char* data, std::size_t size);
    // Room for at most so many bytes behind what has come, at least one.
    iovec room(std::size_t most);
    // So many bytes have been written there.
    void grow(std::size_t size) { m_nSize += size; }
    // Nothing any more, and the memory given back.
    void clear();

private:
    void reserve(std::size_t size);
    void giveBack();

    Bytes m_pBytes;
    std::size_t m_nCapacity = 0;
    std::size_t m_nSize = 0;
    std::size_t m_nExpected = 0;
};
} // namespace Nuvika
