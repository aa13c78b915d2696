#include "msg/HexDigits_p.h"

namespace
{
int valueOf(QChar c)
{
    const ushort unit = c.unicode();
    if (unit >= '0' && unit <= '9')
        return unit - '0';
    const int letter = (unit | 0x20) - 'a';
    return letter >= 0 && letter < 6 ? letter + 10 : -1;
}
} // namespace

int Nuvika::decodeHex(QStringView digits, char* out)
{
    const int size = static_cast<int>(digits.size());
    for (int i = 0; i + 1 < size; i += 2) {
        const int high = valueOf(digits[i]);
        const int low = valueOf(digits[i + 1]);
        if (high < 0 || low < 0)
            return high < 0 ? i : i + 1;
        *out++ = static_cast<char>(high << 4 | low);
    }
    return -1;
}
