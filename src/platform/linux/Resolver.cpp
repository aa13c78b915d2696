#include "platform/Resolver_p.h"

#include "platform/ErrorCodes_p.h"

#include <cstring>
#include <memory>

#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

int Nuvika::Resolver::resolve(const std::string& name, std::vector<sockaddr_storage>* addresses)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM; // without it each address comes once per socket type
    addrinfo* list = nullptr;
    const int result = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    if (result != 0)
        return ErrorCodes::fromResolver(result);
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        sockaddr_storage address{};
        std::memcpy(&address, entry->ai_addr, entry->ai_addrlen);
        addresses->push_back(address);
    }
    return 0;
}

unsigned int Nuvika::Resolver::interfaceIndex(const std::string& name)
{
    return if_nametoindex(name.c_str());
}
