// Private: network interfaces by number, as scope ids and IPv6 memberships name them.
#pragma once

class QHostAddress;

namespace Nuvika
{
// The interface that the address's own scope id names, by number or by name; 0 when it has none.
unsigned int scopeIndex(const QHostAddress& address);
// The interface that has this address; 0 when none has.
unsigned int interfaceIndexOf(const QHostAddress& address);
} // namespace Nuvika
