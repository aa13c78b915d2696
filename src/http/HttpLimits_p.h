// Private: what a peer may make us keep. Named, so that users find them, and far above what is ever honest.
#pragma once

#include <cstddef>

namespace Nuvika::HttpLimits
{
constexpr std::size_t kHead = 1U << 20; // head, part head, trailers: each
constexpr std::size_t kChunkSizeLine = 4096;
constexpr std::size_t kPart = 64U << 20; // one multipart part
constexpr std::size_t kContent = 1U << 30; // a collected body
constexpr long long kMaxLength = 0x7FFFFFFF; // a length on the wire: 31 bits
constexpr int kSideBuffer = 1 << 20; // received while a handler runs
} // namespace Nuvika::HttpLimits
