// Private: the bytes of a unit that is collected. Its memory grows by doubling, up to a bound, and is kept
// for the next one.
#pragma once

#include <QtCore/QByteArray>

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace Nuvika
{
class UnitBuffer
{
public:
    explicit UnitBuffer(std::size_t most) : m_nMost(most) { }

    // False over the bound, or without memory; nothing is added then.
    bool append(const unsigned char* data, std::size_t size);
    bool append(const QByteArray& bytes);
    bool append(const UnitBuffer& other) { return append(other.data(), other.size()); }
    bool appendZeros(std::size_t count);
    // Room in front of a piece whose length is not known yet.
    void write32(std::size_t at, quint32 value);
    void resize(std::size_t smaller) { m_nSize = smaller; }
    void clear() { m_nSize = 0; }

    const unsigned char* data() const { return m_memory.get(); }
    std::size_t size() const { return m_nSize; }
    bool isEmpty() const { return m_nSize == 0; }
    std::size_t capacity() const { return m_nCapacity; }

private:
    struct Free {
        void operator()(unsigned char* p) const { std::free(p); }
    };
    bool reserve(std::size_t more);

    std::size_t m_nMost;
    std::size_t m_nSize = 0;
    std::size_t m_nCapacity = 0;
    std::unique_ptr<unsigned char, Free> m_memory;
};
} // namespace Nuvika
