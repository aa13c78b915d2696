// Private: what a server refuses in a request although it could guess what was meant, because two programs on
// its way may guess differently (RFC 9112, 2.2, 3.2, 5.1, 7.1).
#pragma once

#include <string>

namespace Nuvika
{
// The head with its line ends. Continued lines, and heads that end their lines by bare line feeds, are fine.
bool isStrictHead(const char* data, int size);
// A chunk's size with its extensions, the line end included.
bool isStrictChunkLine(const std::string& line);
bool isStrictTrailerLine(const std::string& line);
} // namespace Nuvika
