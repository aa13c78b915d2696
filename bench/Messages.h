// What the programs of the message rows share: messages of 100 bytes in frames of 108.
#pragma once

#include "Common.h"

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
} // namespace bench
