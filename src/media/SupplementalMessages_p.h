// Private: the messages of supplemental enhancement information, the same in H.264 (7.3.2.3.1) and H.265
// (7.3.5).
#pragma once

#include <cstddef>

namespace Nuvika
{
// A decoder can begin here (H.264 D.1.8, H.265 D.2.8). The unit without its head.
bool hasRecoveryPoint(const unsigned char* data, std::size_t size);
} // namespace Nuvika
