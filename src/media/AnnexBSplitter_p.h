// Private: NAL units as cameras send them, fed in any pieces: without the zeros behind them, and taken apart
// where a whole byte stream with start codes (H.264 and H.265, annex B) was sent as one unit.
//
// Zeros are held back until the byte behind them tells what they are. A unit is announced when enough of its
// head has come to tell what it is, or it ends. Time is linear in the bytes.
#pragma once

#include <QtCore/QtGlobal>

#include <array>
#include <cstddef>

namespace Nuvika
{
class NalSink
{
public:
    // At most AnnexBSplitter::kHead bytes, and at least one.
    virtual void nalBegins(const unsigned char* head, std::size_t size) = 0;
    virtual void nalGoesOn(const unsigned char* data, std::size_t size) = 0;
    virtual void nalZeros(std::size_t count) = 0;
    virtual void nalEnds() = 0;

protected:
    ~NalSink() = default;
};

class AnnexBSplitter
{
public:
    // Enough for the head and what a slice begins with: its place, type and picture parameter set.
    static constexpr std::size_t kHead = 8;

    explicit AnnexBSplitter(NalSink* sink) : m_pSink(sink) { }

    // Ends an open unit.
    void begin();
    void add(const unsigned char* data, std::size_t size);
    void end();
    // Forgets an open unit, which ends in the middle.
    void abort();
    bool isOpen() const { return m_bOpen; }

private:
    void write(const unsigned char* data, std::size_t size);
    void writeZeros();
    void endUnit();

    NalSink* m_pSink;
    std::array<unsigned char, kHead> m_head{};
    std::size_t m_nHead = 0;
    std::size_t m_nZeros = 0;
    bool m_bOpen = false;
};
} // namespace Nuvika
