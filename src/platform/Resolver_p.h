// Private: the system's resolver. Blocks; runs on a lookup thread.
#pragma once

#include <string>
#include <vector>

struct sockaddr_storage;

namespace Nuvika::Resolver
{
// The addresses of a name in the system's order, each once. Returns 0 or an error code of ErrorCodes.
int resolve(const std::string& name, std::vector<sockaddr_storage>* addresses);
// Index of a network interface by name, or 0.
unsigned int interfaceIndex(const std::string& name);
} // namespace Nuvika::Resolver
