// The names under which a server of this host answers. A page elsewhere that has its own name resolve to a
// loopback address (DNS rebinding) would otherwise read what the server says.
#pragma once

#include <QtCore/QStringList>

class HostNames
{
public:
    // Beside the names and addresses of the loopback. False for what is no name or address.
    bool add(const QString& name);
    // A request's Host field; browsers never leave it out, so one that is not there does no harm.
    bool allow(const QString& field) const;

private:
    QStringList m_names; // lower case
};
