#include <KepNuvikaUtil/LoggedInUser.h>

#include "platform/Process_p.h"

QString KepNuvikaUtil::getLoggedInUserSystem()
{
    return QString::fromStdString(Nuvika::Process::effectiveUserName());
}

bool KepNuvikaUtil::isLoggedInUserSystem(const QString& name)
{
    const QString user = getLoggedInUserSystem();
    return !user.isEmpty() && !name.isEmpty() && user.compare(name, Qt::CaseInsensitive) == 0;
}
