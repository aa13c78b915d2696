// Private: a body that is collected to be delivered whole. One that lies whole in a receive is not copied;
// once it has begun to come in pieces, the rest is received right into its memory.
#pragma once

#include "http/ContentMemory_p.h"
#include "http/HttpMessageReader_p.h"

#include <algorithm>
#include <cstddef>

namespace Nuvika
{
class CollectedContent
{
public:
    // A body of so many bytes, -1 for as many as come; more than `most` are refused.
    void begin(long long length, int most)
    {
        clear();
        m_nMost = static_cast<std::size_t>(most);
        m_nLength = length;
        if (length > 0)
            m_memory.expect(static_cast<std::size_t>(length));
    }
    // False over the limit. What was not copied must stay in place until the body was delivered.
    bool add(const char* data, int size)
    {
        const auto bytes = static_cast<std::size_t>(size);
        if (bytes > m_nMost - m_memory.size())
            return false;
        if (m_memory.isEmpty() && size == m_nLength)
            refer(data, size);
        else
            m_memory.append(data, bytes);
        return true;
    }
    void refer(const char* data, int size)
    {
        m_pWhole = data;
        m_nWhole = size;
    }
    // Where the next bytes of a message's content belong; an empty range for nowhere in particular.
    iovec target(const HttpMessageReader& reader)
    {
        const std::size_t most = std::min(reader.contentAhead(), m_nMost - m_memory.size());
        return m_memory.isEmpty() || most == 0 ? iovec{} : m_memory.room(most);
    }
    void placed(std::size_t size) { m_memory.grow(size); }

    const char* data() const { return m_pWhole != nullptr ? m_pWhole : m_memory.data(); }
    int size() const { return m_pWhole != nullptr ? m_nWhole : static_cast<int>(m_memory.size()); }
    void clear()
    {
        m_memory.clear();
        m_pWhole = nullptr;
        m_nWhole = 0;
    }

private:
    ContentMemory m_memory;
    const char* m_pWhole = nullptr;
    int m_nWhole = 0;
    long long m_nLength = -1;
    std::size_t m_nMost = 0;
};
} // namespace Nuvika
