#include "net/InterfaceIndex_p.h"

#include "platform/Resolver_p.h"

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkInterface>

unsigned int Nuvika::scopeIndex(const QHostAddress& address)
{
    bool bNumber = false;
    const unsigned int id = address.scopeId().toUInt(&bNumber);
    return bNumber ? id : Resolver::interfaceIndex(address.scopeId().toStdString());
}

unsigned int Nuvika::interfaceIndexOf(const QHostAddress& address)
{
    if (const unsigned int scope = scopeIndex(address))
        return scope;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& candidate : interfaces) {
        const QList<QNetworkAddressEntry> entries = candidate.addressEntries();
        for (const QNetworkAddressEntry& entry : entries) {
            if (entry.ip() == address)
                return static_cast<unsigned int>(candidate.index());
        }
    }
    return 0;
}
