// Private: reads bits, the highest first. Behind the end there are zeros, and isGood() is false.
#pragma once

#include <QtCore/QtGlobal>

#include <cstddef>

namespace Nuvika
{
class BitReader
{
public:
    // bEscaped: a 3 behind two zeros is none of the bits (emulation prevention, H.264 7.4.1, H.265 7.4.2).
    BitReader(const unsigned char* data, std::size_t size, bool bEscaped)
        : m_pNext(data), m_pEnd(data + size), m_bEscaped(bEscaped)
    {
    }

    bool isGood() const { return m_bGood; }
    std::size_t position() const { return m_nRead; }

    bool flag()
    {
        if (m_nLeft == 0)
            fetch();
        ++m_nRead;
        --m_nLeft;
        return ((m_byte >> m_nLeft) & 1U) != 0;
    }
    // At most 32.
    quint32 bits(unsigned int count)
    {
        quint32 value = 0;
        for (; count > 0; --count)
            value = value << 1 | static_cast<quint32>(flag());
        return value;
    }
    void skip(unsigned int count)
    {
        for (; count > 0 && m_bGood; --count)
            flag();
    }
    // Exponential Golomb codes (H.264 9.1).
    quint32 ue()
    {
        unsigned int zeros = 0;
        while (!flag()) {
            if (++zeros > 31 || !m_bGood)
                return fail();
        }
        return (1U << zeros) - 1 + bits(zeros);
    }
    void skipUe(unsigned int count)
    {
        for (; count > 0 && m_bGood; --count)
            ue();
    }

private:
    quint32 fail()
    {
        m_bGood = false;
        return 0;
    }
    void fetch()
    {
        if (m_bEscaped && m_nZeros >= 2 && m_pNext != m_pEnd && *m_pNext == 3) {
            ++m_pNext;
            m_nZeros = 0;
        }
        m_bGood = m_bGood && m_pNext != m_pEnd;
        m_byte = m_bGood ? *m_pNext++ : 0U;
        m_nZeros = m_byte == 0 ? m_nZeros + 1 : 0;
        m_nLeft = 8;
    }

    const unsigned char* m_pNext;
    const unsigned char* m_pEnd;
    bool m_bEscaped;
    bool m_bGood = true;
    unsigned int m_byte = 0;
    unsigned int m_nLeft = 0;
    unsigned int m_nZeros = 0;
    std::size_t m_nRead = 0;
};
} // namespace Nuvika
