#include "media/SupplementalMessages_p.h"

namespace
{
// Bytes of 255 and one that is less, or what there is of them.
std::size_t takeNumber(const unsigned char** next, const unsigned char* end)
{
    constexpr unsigned char kMore = 0xFF;
    std::size_t value = 0;
    bool bMore = true;
    for (; bMore && *next != end; ++*next) {
        value += **next;
        bMore = **next == kMore;
    }
    return value;
}
} // namespace

bool Nuvika::hasRecoveryPoint(const unsigned char* data, std::size_t size)
{
    constexpr std::size_t kRecoveryPoint = 6;
    constexpr std::size_t kShortest = 2;
    const unsigned char* end = data + size;
    while (static_cast<std::size_t>(end - data) > kShortest) {
        const std::size_t type = takeNumber(&data, end);
        const std::size_t length = takeNumber(&data, end);
        if (type == kRecoveryPoint)
            return true;
        if (length >= static_cast<std::size_t>(end - data))
            return false;
        data += length;
    }
    return false;
}
