// Private: bounds that are no setting.
#pragma once

namespace Nuvika::HttpLimits
{
constexpr long long kMaxLength = 0x7FFFFFFF; // a length on the wire: 31 bits
constexpr int kSideBuffer = 1 << 20; // received while a handler runs; receiving stalls above it
constexpr int kKeptContent = 1 << 20; // memory of a collected body that is kept for the next one
} // namespace Nuvika::HttpLimits
