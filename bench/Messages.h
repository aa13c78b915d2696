// What the programs of the message rows share: messages of 100 bytes in frames of 108.
#pragma once

#include "Common.h"

#include <vector>

namespace bench
{
constexpr int kMessageSize = 100;
constexpr int kFrameHead = 8;
constexpr int kFrameSize = kFrameHead + kMessageSize;

inline unsigned int bigEndian(const char* bytes)
{
    unsigned int value = 0;
    std::memcpy(&value, bytes, sizeof value);
    return ntohl(value);
}

inline std::string bigEndian(unsigned int value)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
    return bytes;
}

inline std::string plainFrame() { return "FDTC" + bigEndian(kMessageSize) + std::string(kMessageSize, 'm'); }

// The ideal reader: calls take(frame) for the whole frames where they were received, moves the rest to the
// front, and tells how many there were.
template <class Take>
long long takeFrames(std::vector<char>& buffer, std::size_t& held, Take take)
{
    long long count = 0;
    std::size_t at = 0;
    while (held - at > kFrameHead) {
        const char* frame = buffer.data() + at;
        const std::size_t size = kFrameHead + bigEndian(frame + 4);
        if (held - at < size)
            break;
        take(frame);
        at += size;
        ++count;
    }
    std::memmove(buffer.data(), buffer.data() + at, held - at);
    held -= at;
    return count;
}
} // namespace bench
