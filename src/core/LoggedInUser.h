/// \file
/// The user who runs the process. Both may be called from any thread.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QString>

namespace KepNuvikaUtil
{
/// The name of the effective user, or an empty string when the system does not answer.
KEPNUVIKAUTIL_EXPORT QString getLoggedInUserSystem();

/// True when the current user's name and \a name are both non-empty and equal without regard to case.
KEPNUVIKAUTIL_EXPORT bool isLoggedInUserSystem(const QString& name);
} // namespace KepNuvikaUtil
