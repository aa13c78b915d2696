#include "media/AnnexBSplitter_p.h"

#include <algorithm>
#include <cstring>

using Nuvika::AnnexBSplitter;

namespace
{
// The first zero behind which there is another one, or the end; else the end.
const unsigned char* findZeros(const unsigned char* data, const unsigned char* end)
{
    while (data != end) {
        const auto* zero
            = static_cast<const unsigned char*>(std::memchr(data, 0, static_cast<std::size_t>(end - data)));
        if (zero == nullptr)
            return end;
        if (zero + 1 == end || zero[1] == 0)
            return zero;
        data = zero + 2;
    }
    return end;
}
} // namespace

void AnnexBSplitter::begin()
{
    end();
    m_bOpen = true;
}

void AnnexBSplitter::add(const unsigned char* data, std::size_t size)
{
    const unsigned char* end = data + size;
    while (data != end) {
        if (m_nZeros == 0) {
            const unsigned char* zeros = findZeros(data, end);
            write(data, static_cast<std::size_t>(zeros - data));
            data = zeros;
        }
        for (; data != end && *data == 0; ++data)
            ++m_nZeros;
        if (data == end)
            return;
        if (m_nZeros >= 2 && *data == 1) {
            endUnit();
            ++data;
        } else {
            writeZeros();
        }
    }
}

void AnnexBSplitter::end()
{
    if (m_bOpen)
        endUnit();
    m_bOpen = false;
}

void AnnexBSplitter::abort()
{
    m_bOpen = false;
    m_nHead = 0;
    m_nZeros = 0;
}

void AnnexBSplitter::endUnit()
{
    m_nZeros = 0;
    if (m_nHead == 0)
        return;
    if (m_nHead < kHead)
        m_pSink->nalBegins(m_head.data(), m_nHead);
    m_nHead = 0;
    m_pSink->nalEnds();
}

void AnnexBSplitter::write(const unsigned char* data, std::size_t size)
{
    if (m_nHead < kHead && size > 0) {
        const std::size_t part = std::min(kHead - m_nHead, size);
        std::memcpy(m_head.data() + m_nHead, data, part);
        m_nHead += part;
        data += part;
        size -= part;
        if (m_nHead == kHead)
            m_pSink->nalBegins(m_head.data(), kHead);
    }
    if (size > 0)
        m_pSink->nalGoesOn(data, size);
}

void AnnexBSplitter::writeZeros()
{
    static constexpr std::array<unsigned char, kHead> kZeros{};
    const std::size_t inHead = std::min(m_nZeros, kHead - m_nHead);
    const std::size_t rest = m_nZeros - inHead;
    m_nZeros = 0;
    write(kZeros.data(), inHead);
    if (rest > 0)
        m_pSink->nalZeros(rest);
}
