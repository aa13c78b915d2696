// Private: hexadecimal digits, of either case, into bytes.
#pragma once

#include <QtCore/QStringView>

namespace Nuvika
{
// Two digits make a byte, from the start on; a last one alone makes none. Returns the place of the first
// character that is no digit, or -1.
int decodeHex(QStringView digits, char* out);
} // namespace Nuvika
